// What the kernel's V4L2 core adds to every driver, for the simulated sensor: the table of
// requests it knows, access priorities, the one input, and the mapping of memory-mapped buffers.
// Called under the sensor's mutex, except mmap and munmap, which take it.
#include "sim/SimulatedSensor.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

namespace ruvo {
namespace capture {
namespace sim {

bool SimulatedSensor::knownRequest(unsigned long request) {
    switch (request) {
        case VIDIOC_QUERYCAP:
        case VIDIOC_ENUM_FMT:
        case VIDIOC_ENUM_FRAMESIZES:
        case VIDIOC_G_FMT:
        case VIDIOC_S_FMT:
        case VIDIOC_TRY_FMT:
        case VIDIOC_G_PARM:
        case VIDIOC_REQBUFS:
        case VIDIOC_QUERYBUF:
        case VIDIOC_QBUF:
        case VIDIOC_DQBUF:
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
        case VIDIOC_QUERYCTRL:
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL:
        case VIDIOC_G_PRIORITY:
        case VIDIOC_S_PRIORITY:
        case VIDIOC_ENUMINPUT:
        case VIDIOC_G_INPUT:
        case VIDIOC_S_INPUT:
            return true;
        default:
            return false;
    }
}

// Requests that change the device answer EBUSY to a descriptor while another holds a higher
// priority.
int SimulatedSensor::checkPriority(int fd, unsigned long request) const {
    switch (request) {
        case VIDIOC_S_FMT:
        case VIDIOC_REQBUFS:
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
        case VIDIOC_S_CTRL:
        case VIDIOC_S_INPUT:
            return _files.at(fd).priority < highestPriority() ? EBUSY : 0;
        default:
            return 0;
    }
}

uint32_t SimulatedSensor::highestPriority() const {
    uint32_t highest = V4L2_PRIORITY_UNSET;
    for (const auto& file : _files) highest = std::max(highest, file.second.priority);
    return highest;
}

int SimulatedSensor::coreRequest(int fd, unsigned long request, void* argument) {
    switch (request) {
        case VIDIOC_G_PRIORITY:
            *static_cast<uint32_t*>(argument) = highestPriority();
            return 0;
        case VIDIOC_S_PRIORITY: {
            const uint32_t priority = *static_cast<const uint32_t*>(argument);
            if (priority == V4L2_PRIORITY_UNSET) {
                _files.at(fd).priority = V4L2_PRIORITY_DEFAULT;
                return 0;
            }
            if (priority > V4L2_PRIORITY_RECORD) return EINVAL;
            if (_files.at(fd).priority < highestPriority()) return EBUSY;
            _files.at(fd).priority = priority;
            return 0;
        }
        case VIDIOC_ENUMINPUT: {
            auto* input = static_cast<v4l2_input*>(argument);
            if (input->index != 0) return EINVAL;
            std::memset(input, 0, sizeof *input);
            std::strncpy(reinterpret_cast<char*>(input->name), "Camera", sizeof input->name - 1);
            input->type = V4L2_INPUT_TYPE_CAMERA;
            return 0;
        }
        case VIDIOC_G_INPUT:
            *static_cast<int*>(argument) = 0;
            return 0;
        case VIDIOC_S_INPUT:
            return *static_cast<const unsigned*>(argument) == 0 ? 0 : EINVAL;
        default:
            return ENOTTY;
    }
}

void* SimulatedSensor::mmap(int fd, size_t length, off_t offset) {
    std::lock_guard<std::mutex> lock(_mutex);
    const auto failed = [](int errnoValue) {
        errno = errnoValue;
        return MAP_FAILED;
    };
    if (_files.find(fd) == _files.end()) return failed(EBADF);
    if (_disconnected) return failed(ENODEV);
    if (_buffers.memory() != V4L2_MEMORY_MMAP || length == 0 || offset < 0) return failed(EINVAL);
    const MappedMemory memory = _buffers.mappedAt(static_cast<uint32_t>(offset));
    // A mapping starts at a buffer and never runs past its end.
    if (!memory || length > _buffers.slot(0).length) return failed(EINVAL);
    Mapping& mapping = _mappings[memory.get()];
    mapping.memory = memory;
    ++mapping.count;
    return memory.get();
}

int SimulatedSensor::munmap(void* address, size_t length) {
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _mappings.find(address);
    if (it == _mappings.end() || length == 0) return fail(EINVAL);
    if (--it->second.count == 0) _mappings.erase(it);
    return 0;
}

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
