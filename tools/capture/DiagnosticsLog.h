// Records the JSON texts of the metering diagnostics channels during a run: one file per channel,
// one record per line, written by a listener that the library calls on its reader threads.
#pragma once

#include <ruvo/util/Channel.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ruvo {
namespace tool {

// The channels the tool listens to: region weights and skin-histogram statistics.
const std::vector<std::string>& diagnosticsChannels();

class DiagnosticsLog {
public:
    // Opens "<directory>/<channel>.jsonl" for every channel and attaches a listener to it.
    // Throws ToolError when a file cannot be created.
    DiagnosticsLog(const std::string& directory, const std::vector<std::string>& channels);
    // Detaches the listeners and closes the files.
    ~DiagnosticsLog();
    DiagnosticsLog(const DiagnosticsLog&) = delete;
    DiagnosticsLog& operator=(const DiagnosticsLog&) = delete;

    const std::vector<std::string>& files() const { return _files; }
    // Records written to channel number `i` so far.
    uint64_t records(size_t i) const;

private:
    // Shared with the listener so that a delivery racing the detachment finds it alive.
    struct Sink {
        std::mutex mutex;
        std::ofstream file;
        uint64_t records = 0;
        void write(const std::string& text);
    };
    struct Attachment {
        std::shared_ptr<util::Channel> channel;
        util::Channel::ListenerId id = 0;
        std::shared_ptr<Sink> sink;
    };

    std::vector<Attachment> _attachments;
    std::vector<std::string> _files;
};

}  // namespace tool
}  // namespace ruvo
