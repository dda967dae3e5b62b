// Fuzz target: arbitrary bytes decoded into a Controls record (sizes, output lists, indices,
// flips, gammas and gains including not-a-number and infinities, regions with any corners, modes,
// locks, presets) handed to a streaming camera's setControls, then one frame read with those
// controls. Only CaptureDeviceException may come out; nothing may crash or trip a sanitizer.
#include "CUDACamera.h"
#include "OutputBufferConfig.h"
#include "sim/SimulatedSensor.h"

#include <ruvo/capture/CaptureDeviceException.h>

#include <Poco/Logger.h>
#include <Poco/Util/MapConfiguration.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

using namespace ruvo::capture;

namespace {

class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : _data(data), _size(size) {}
    template <typename T>
    T take() {
        T value{};
        const size_t n = std::min(sizeof(T), _size - _pos);
        std::memcpy(&value, _data + _pos, n);
        _pos += n;
        return value;
    }

private:
    const uint8_t* _data;
    size_t _size;
    size_t _pos = 0;
};

const uint32_t kWidths[] = {672, 1280, 1920, 2688, 0, 1281, 640};
const uint32_t kHeights[] = {380, 720, 1080, 1520, 0, 721, 480};

Controls decode(Bytes& in, Controls c) {
    const uint8_t size = in.take<uint8_t>();
    if (size & 0x80) {
        c.width = in.take<uint32_t>();
        c.height = in.take<uint32_t>();
    } else if (size & 0x40) {  // a supported size, occasionally a large one
        c.width = kWidths[size % 7];
        c.height = kHeights[(size >> 3) % 7];
    }
    const uint8_t list = in.take<uint8_t>();
    if (list < 200) c.outputBuffers = CUDA_OUTPUT_BUFFER_CONFIG[list % 12];
    if (list >= 200) {
        c.outputBuffers.clear();
        for (int i = in.take<uint8_t>() % 10; i > 0; --i) {
            // Any value each enumeration can hold, in or out of the table's combinations.
            c.outputBuffers.push_back({static_cast<Frame::Format>(in.take<uint8_t>() % 8),
                                       static_cast<Frame::OutputType>(in.take<uint8_t>() % 10),
                                       static_cast<Frame::OutputLevel>(in.take<uint8_t>() % 7 - 2)});
        }
    }
    c.outputBuffersConfIndex = in.take<uint8_t>() < 230 ? list % 12 : in.take<uint32_t>();
    const uint8_t flags = in.take<uint8_t>();
    c.hFlip = flags & 1;
    c.vFlip = flags & 2;
    c.ae.manual = flags & 4;
    c.ae.lock = flags & 8;
    c.awb.manual = flags & 16;
    c.awb.lock = flags & 32;
    for (float* f : {&c.awb.gammaRed, &c.awb.gammaGreen, &c.awb.gammaBlue, &c.awb.gammaCr, &c.awb.gammaCb,
                     &c.awb.manualRedGain, &c.awb.manualGreenGain, &c.awb.manualBlueGain, &c.ae.manualExposure,
                     &c.ae.manualGain, &c.ae.ev, &c.ae.targetY}) {
        if (in.take<uint8_t>() & 1) *f = in.take<float>();
    }
    static const char* modes[] = {"default", "AVGY", "oru", ""};
    c.ae.manualMode = modes[in.take<uint8_t>() % 4];
    c.ae.time = ruvo::util::Range<float>(in.take<float>(), in.take<float>());
    c.ae.regions.clear();
    for (int i = in.take<uint8_t>() % 3; i > 0; --i) {
        c.ae.regions.emplace_back(
            dlib::rectangle(in.take<int32_t>(), in.take<int32_t>(), in.take<int32_t>(), in.take<int32_t>()),
            in.take<float>());
    }
    return c;
}

struct Rig {
    Rig() {
        Poco::Logger::root().setLevel(Poco::Message::PRIO_FATAL);
        Poco::AutoPtr<Poco::Util::MapConfiguration> config(new Poco::Util::MapConfiguration());
        config->setString("path", "sim:fuzz-controls");
        config->setString("sim.clock", "stepped");
        config->setString("width", "672");
        config->setString("height", "380");
        config->setString("numSamples", "2000");
        camera = std::make_unique<CUDACamera>(config, 0);
        camera->start();
        sensor = sim::findSensor("sim:fuzz-controls");
        initial = camera->getControls();
    }
    std::unique_ptr<CUDACamera> camera;
    std::shared_ptr<sim::SimulatedSensor> sensor;
    Controls initial;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Rig rig;
    Bytes in(data, size);
    try {
        rig.camera->setControls(decode(in, rig.initial));
    } catch (const CaptureDeviceException&) {
        return 0;
    }
    if (in.take<uint8_t>() & 1) {
        const char* presets[] = {"default", "barcode", "oru", "night"};
        rig.camera->setControls(std::string(presets[in.take<uint8_t>() % 4]));
    }
    rig.sensor->step();
    if (CUDACamera::Bucket* bucket = rig.camera->read()) {
        for (unsigned k = 0; k < bucket->buffers.size(); ++k) rig.camera->release(bucket->index, k);
    }
    rig.camera->setControls(rig.initial);  // back to a small size so each run stays fast
    return 0;
}
