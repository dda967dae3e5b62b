// Entry point of ruvo-capture: parses the command line, runs the command, and turns every
// failure into one "ruvo-capture: error:" line on stderr with exit status 2 (command line) or 1.
#include "Options.h"
#include "RunCommand.h"
#include "ToolError.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>

#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace {

int fail(std::string message, int status) {
    std::replace(message.begin(), message.end(), '\n', ' ');
    std::cout.flush();
    std::cerr << "ruvo-capture: error: " << message << std::endl;
    return status;
}

void setLogLevel(const std::string& level) {
    try {
        Poco::Logger::setLevel("", Poco::Logger::parseLevel(level));  // the root and every logger below it
    } catch (const Poco::Exception&) {
        throw ruvo::tool::UsageError("unknown log level \"" + level + "\" (see --help)");
    }
}

int dispatch(int argc, char** argv) {
    using namespace ruvo::tool;
    const Options options = parseOptions(argc, argv);
    setLogLevel(options.logLevel);
    switch (options.command) {
        case Options::Command::Run:
            return runCommand(options, std::cout, isatty(STDOUT_FILENO) == 1);
        case Options::Command::Info:
            return infoCommand(options, std::cout);
        case Options::Command::Help:
            break;
    }
    std::cout << usageText();
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace ruvo::tool;
    try {
        return dispatch(argc, argv);
    } catch (const UsageError& e) {
        return fail(e.what(), kExitUsageError);
    } catch (const ToolError& e) {
        return fail(e.what(), kExitRuntimeError);
    } catch (const Poco::Exception& e) {
        return fail(e.displayText(), kExitRuntimeError);
    } catch (const std::exception& e) {
        return fail(e.what(), kExitRuntimeError);
    } catch (const std::string& s) {
        return fail(s, kExitRuntimeError);
    } catch (const char* s) {
        return fail(s, kExitRuntimeError);
    } catch (...) {
        return fail("unknown failure", kExitRuntimeError);
    }
}
