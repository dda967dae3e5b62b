// Parsing of the ruvo-capture command line.
#include "Options.h"

#include "ToolError.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace ruvo {
namespace tool {

namespace {

uint64_t parseFrameCount(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        throw UsageError("--frames needs a positive whole number, not \"" + text + "\"");
    }
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (errno == ERANGE || value == 0) throw UsageError("--frames needs a positive whole number, not \"" + text + "\"");
    return value;
}

double parseSeconds(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || errno == ERANGE || !std::isfinite(value) || value <= 0.0) {
        throw UsageError("--seconds needs a positive number, not \"" + text + "\"");
    }
    return value;
}

// Walks argv, handing out option values; "--name=value" and "--name value" are both accepted.
class ArgumentReader {
public:
    ArgumentReader(int argc, const char* const* argv) : _argc(argc), _argv(argv) {}

    bool done() const { return _next >= _argc; }
    std::string peek() const { return _argv[_next]; }

    // The next argument, split into option name and an inline "=value" when it has one.
    std::string take(std::string* inlineValue, bool* hasInline) {
        std::string arg = _argv[_next++];
        *hasInline = false;
        const size_t eq = arg.find('=');
        if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            *inlineValue = arg.substr(eq + 1);
            *hasInline = true;
            arg = arg.substr(0, eq);
        }
        return arg;
    }

    std::string value(const std::string& option, const std::string& inlineValue, bool hasInline) {
        if (hasInline) return inlineValue;
        if (done()) throw UsageError(option + " needs a value");
        return _argv[_next++];
    }

private:
    int _argc;
    const char* const* _argv;
    int _next = 1;
};

void checkCombination(const Options& options, bool sawFrames, bool sawSeconds, bool sawRunOption) {
    if (sawFrames && sawSeconds) throw UsageError("--frames and --seconds cannot be used together");
    if (options.command == Options::Command::Info && sawRunOption) {
        throw UsageError("--frames, --seconds and --output apply to the run command only");
    }
}

}  // namespace

std::pair<std::string, std::string> parseSetting(const std::string& text) {
    const size_t eq = text.find('=');
    if (eq == std::string::npos) throw UsageError("--set needs key=value, not \"" + text + "\"");
    std::string key = text.substr(0, eq);
    if (key.empty()) throw UsageError("--set needs a key before '=' in \"" + text + "\"");
    return {key, text.substr(eq + 1)};
}

Options parseOptions(int argc, const char* const* argv) {
    Options options;
    ArgumentReader reader(argc, argv);
    bool sawCommand = false, sawFrames = false, sawSeconds = false, sawRunOption = false, help = false;
    while (!reader.done()) {
        std::string inlineValue;
        bool hasInline = false;
        const std::string arg = reader.take(&inlineValue, &hasInline);
        if (arg == "--help" || arg == "-h") {
            help = true;
        } else if (arg == "--config") {
            options.configFile = reader.value(arg, inlineValue, hasInline);
            if (options.configFile.empty()) throw UsageError("--config needs a file name");
        } else if (arg == "--set") {
            options.sets.push_back(parseSetting(reader.value(arg, inlineValue, hasInline)));
            // "--set a=1 b=2": further settings up to the next option belong to the same --set.
            while (!hasInline && !reader.done() && reader.peek().rfind("-", 0) != 0 &&
                   reader.peek().find('=') != std::string::npos) {
                options.sets.push_back(parseSetting(reader.value(arg, "", false)));
            }
        } else if (arg == "--frames") {
            options.frames = parseFrameCount(reader.value(arg, inlineValue, hasInline));
            sawFrames = sawRunOption = true;
        } else if (arg == "--seconds") {
            options.seconds = parseSeconds(reader.value(arg, inlineValue, hasInline));
            sawSeconds = sawRunOption = true;
        } else if (arg == "--output") {
            options.outputDir = reader.value(arg, inlineValue, hasInline);
            if (options.outputDir.empty()) throw UsageError("--output needs a directory name");
            sawRunOption = true;
        } else if (arg == "--log") {
            options.logLevel = reader.value(arg, inlineValue, hasInline);
        } else if (arg.rfind("-", 0) == 0) {
            throw UsageError("unknown option " + arg + " (see --help)");
        } else if (sawCommand) {
            throw UsageError("unexpected argument \"" + arg + "\" (see --help)");
        } else if (arg == "run" || arg == "info" || arg == "help") {
            options.command = arg == "run" ? Options::Command::Run
                                           : (arg == "info" ? Options::Command::Info : Options::Command::Help);
            sawCommand = true;
        } else {
            throw UsageError("unknown command \"" + arg + "\"; the commands are run and info");
        }
    }
    if (help) {
        options.command = Options::Command::Help;
        return options;
    }
    if (!sawCommand) throw UsageError("no command given; the commands are run and info (see --help)");
    checkCombination(options, sawFrames, sawSeconds, sawRunOption);
    return options;
}

std::string usageText() {
    return "Usage:\n"
           "  ruvo-capture run  [--config FILE] [--set key=value ...] [--frames N | --seconds S] [--output DIR]\n"
           "  ruvo-capture info [--config FILE] [--set key=value ...]\n"
           "  ruvo-capture --help\n"
           "\n"
           "Commands:\n"
           "  run    capture from every enabled camera, show a status line per camera, then write the\n"
           "         last images, a contact sheet, the per-frame feedback (CSV), the metering records\n"
           "         and a plot of exposure, gain, luminance and white balance over time\n"
           "  info   print the cameras, their capabilities and controls, and the output configurations\n"
           "\n"
           "Options:\n"
           "  --config FILE      configuration file: .properties, .ini, .xml or .json; without it, two\n"
           "                     simulated cameras on the test chart (devices[0] and devices[1])\n"
           "  --set key=value    override a key, e.g. devices[0].width=672; devices[*].key sets the key\n"
           "                     of every camera entry; several settings may follow one --set\n"
           "  --frames N         stop after N delivered frames from every camera (default 300)\n"
           "  --seconds S        stop after S seconds instead\n"
           "  --output DIR       where the files go (default ./ruvo-capture-out, created)\n"
           "  --log LEVEL        library log level: none, fatal, critical, error, warning (default),\n"
           "                     notice, information, debug, trace\n"
           "  -h, --help         print this text\n"
           "\n"
           "Ctrl-C stops a run early; the files are still written.\n"
           "Exit status: 0 success, 1 failure while running, 2 unusable command line.\n";
}

}  // namespace tool
}  // namespace ruvo
