// Status lines and the run summary.
#include "StatusReport.h"

#include "Stats.h"

#include <cstdio>
#include <sstream>

namespace ruvo {
namespace tool {

namespace {

std::string cameraLabel(const CameraEntry& camera, uint32_t cameraId) {
    return "camera " + std::to_string(cameraId) + " " + camera.name;
}

std::string feedbackText(const FeedbackSample& s) {
    char text[160];
    std::snprintf(text, sizeof(text), "exposure %.2f ms, gain %.2f, luminance %.3f, wb %.3f/%.3f/%.3f",
                  s.exposureS * 1000.0, s.gain, s.luminance, s.wbRed, s.wbGreen, s.wbBlue);
    return text;
}

}  // namespace

std::string statusLine(const CameraEntry& camera, uint32_t cameraId, const CameraStatus& status, double intervalS) {
    const std::string label = cameraLabel(camera, cameraId) + ": ";
    if (!status.hasSample) return label + "waiting for frames";
    char rates[96];
    const double fps = intervalS > 0.0 ? static_cast<double>(status.windowFrames) / intervalS : 0.0;
    std::snprintf(rates, sizeof(rates), "%5.1f fps, latency %5.1f ms, ", fps, status.windowLatencyMs);
    return label + rates + feedbackText(status.last) + ", " + std::to_string(status.delivered) + " frames, " +
           std::to_string(status.last.droppedFrames) + " dropped, " + std::to_string(status.last.errorBuffers) +
           " errors";
}

std::string summaryText(const std::vector<CameraEntry>& cameras, const std::vector<CameraTotals>& totals) {
    std::ostringstream out;
    out << "Summary:\n";
    for (size_t c = 0; c < totals.size() && c < cameras.size(); ++c) {
        const CameraTotals& t = totals[c];
        out << "  " << cameraLabel(cameras[c], static_cast<uint32_t>(c)) << " (" << cameras[c].path << "): ";
        if (!t.hasSample) {
            out << "no frames delivered\n";
            continue;
        }
        const double span = t.lastDeliveryS - t.firstDeliveryS;
        const double fps = t.delivered > 1 && span > 0.0 ? static_cast<double>(t.delivered - 1) / span : 0.0;
        char line[160];
        std::snprintf(line, sizeof(line), "%llu frames, mean %.1f fps, latency median %.2f ms, p99 %.2f ms\n",
                      static_cast<unsigned long long>(t.delivered), fps, percentile(t.latenciesMs, 50.0),
                      percentile(t.latenciesMs, 99.0));
        out << line << "    final " << feedbackText(t.last) << "\n";
    }
    return out.str();
}

void StatusPrinter::update(const std::vector<std::string>& lines) {
    if (_terminal && _shown > 0) _out << "\x1b[" << _shown << "A";
    for (const std::string& line : lines) {
        if (_terminal)
            _out << "\r" << line << "\x1b[K\n";
        else
            _out << line << "\n";
    }
    _shown = lines.size();
    _out.flush();
}

}  // namespace tool
}  // namespace ruvo
