// The texts a run shows: the live status line of each camera, rewritten in place on a terminal
// and printed as plain lines otherwise, and the summary at the end.
#pragma once

#include "Configuration.h"
#include "Recorder.h"

#include <ostream>
#include <string>
#include <vector>

namespace ruvo {
namespace tool {

// "camera 0 left: 29.9 fps, latency 3.2 ms, exposure 18.20 ms, gain 1.00, luminance 0.291,
// wb 1.000/1.000/1.000, 120 frames, 0 dropped, 0 errors" for a window of `intervalS` seconds; the
// counts are the driver's dropped frames and the damaged buffers not delivered since the start.
std::string statusLine(const CameraEntry& camera, uint32_t cameraId, const CameraStatus& status, double intervalS);

// Per camera: frames, mean frame rate, latency median and 99th percentile, final exposure, gain,
// luminance and white-balance gains.
std::string summaryText(const std::vector<CameraEntry>& cameras, const std::vector<CameraTotals>& totals);

// Prints a block of status lines: on a terminal each refresh overwrites the previous block
// (carriage return, cursor up, erase to end of line); otherwise every refresh adds plain lines.
class StatusPrinter {
public:
    StatusPrinter(std::ostream& out, bool terminal) : _out(out), _terminal(terminal) {}
    void update(const std::vector<std::string>& lines);

private:
    std::ostream& _out;
    bool _terminal;
    size_t _shown = 0;  // lines of the block on screen
};

}  // namespace tool
}  // namespace ruvo
