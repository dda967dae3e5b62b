// The two kinds of failure the tool reports: a command line it cannot use (exit status 2) and a
// failure while doing the work (exit status 1). Both end in one "ruvo-capture: error:" line.
#pragma once

#include <stdexcept>
#include <string>

namespace ruvo {
namespace tool {

// A command line the tool cannot use: unknown option, missing or malformed value.
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

// A failure while loading, capturing or writing, with a message meant for the user.
class ToolError : public std::runtime_error {
public:
    explicit ToolError(const std::string& message) : std::runtime_error(message) {}
};

constexpr int kExitOk = 0;
constexpr int kExitRuntimeError = 1;
constexpr int kExitUsageError = 2;

}  // namespace tool
}  // namespace ruvo
