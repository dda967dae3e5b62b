// Channel listeners that write JSON lines.
#include "DiagnosticsLog.h"

#include "ToolError.h"

#include <algorithm>

namespace ruvo {
namespace tool {

const std::vector<std::string>& diagnosticsChannels() {
    static const std::vector<std::string> channels = {"CapDevCUDAExpStat", "CapDevCUDAExpMeta"};
    return channels;
}

void DiagnosticsLog::Sink::write(const std::string& text) {
    std::string line = text;
    std::replace(line.begin(), line.end(), '\n', ' ');  // one record per line
    std::lock_guard<std::mutex> lock(mutex);
    file << line << '\n';
    ++records;
}

DiagnosticsLog::DiagnosticsLog(const std::string& directory, const std::vector<std::string>& channels) {
    // Every file is created before any listener is attached, so a failure leaves none behind.
    for (const std::string& name : channels) {
        const std::string path = directory + "/" + name + ".jsonl";
        auto sink = std::make_shared<Sink>();
        sink->file.open(path, std::ios::out | std::ios::trunc);
        if (!sink->file) throw ToolError("cannot create " + path);
        _attachments.push_back({util::Channel::get(name), 0, sink});
        _files.push_back(path);
    }
    for (Attachment& attachment : _attachments) {
        std::shared_ptr<Sink> sink = attachment.sink;
        attachment.id = attachment.channel->addListener([sink](const std::string& text) { sink->write(text); });
    }
}

DiagnosticsLog::~DiagnosticsLog() {
    for (Attachment& attachment : _attachments) {
        attachment.channel->removeListener(attachment.id);
        std::lock_guard<std::mutex> lock(attachment.sink->mutex);
        attachment.sink->file.flush();
    }
}

uint64_t DiagnosticsLog::records(size_t i) const {
    std::lock_guard<std::mutex> lock(_attachments.at(i).sink->mutex);
    return _attachments.at(i).sink->records;
}

}  // namespace tool
}  // namespace ruvo
