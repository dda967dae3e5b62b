// Ctrl-C and SIGTERM handling for a run: the first signal only sets a flag that the run loop
// polls, so the cameras stop cleanly and the files are still written; a second one ends the
// process the default way.
#pragma once

namespace ruvo {
namespace tool {

class StopSignal {
public:
    // Installs the handlers for SIGINT and SIGTERM and clears the flag.
    StopSignal();
    // Puts the previous handlers back.
    ~StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    // Whether a stop was requested since construction.
    bool requested() const;
};

}  // namespace tool
}  // namespace ruvo
