// The command line of ruvo-capture: a command ("run" or "info") and its options, parsed into one
// record so that the commands never look at argv themselves.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace tool {

struct Options {
    enum class Command { Run, Info, Help };

    Command command = Command::Help;
    std::string configFile;                                 // empty: the built-in configuration
    std::vector<std::pair<std::string, std::string>> sets;  // --set key=value, in command-line order
    uint64_t frames = 300;                                  // delivered frames per camera (run)
    double seconds = 0.0;                                   // > 0: stop after this time instead
    std::string outputDir = "ruvo-capture-out";
    std::string logLevel = "warning";  // level of the library's POCO loggers
};

// Parses argv (argv[0] is the program). Throws UsageError with a one-line reason.
Options parseOptions(int argc, const char* const* argv);

// Splits "key=value" at the first '='; throws UsageError when there is none or the key is empty.
std::pair<std::string, std::string> parseSetting(const std::string& text);

// The text printed by --help.
std::string usageText();

}  // namespace tool
}  // namespace ruvo
