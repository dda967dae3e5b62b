// Signal handlers that request a clean stop.
#include "StopSignal.h"

#include <csignal>

namespace ruvo {
namespace tool {

namespace {

volatile std::sig_atomic_t gStopRequested = 0;
struct sigaction gPreviousInt;
struct sigaction gPreviousTerm;

// Async-signal-safe: sets the flag, or on a repeated signal restores the default action and
// raises the signal again.
void onStopSignal(int signal) {
    if (gStopRequested != 0) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
        return;
    }
    gStopRequested = 1;
}

}  // namespace

StopSignal::StopSignal() {
    gStopRequested = 0;
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, &gPreviousInt);
    sigaction(SIGTERM, &action, &gPreviousTerm);
}

StopSignal::~StopSignal() {
    sigaction(SIGINT, &gPreviousInt, nullptr);
    sigaction(SIGTERM, &gPreviousTerm, nullptr);
}

bool StopSignal::requested() const { return gStopRequested != 0; }

}  // namespace tool
}  // namespace ruvo
