// The simulated sensor's settings, read from the "sim.*" keys of a camera's configuration entry,
// and the scene script that changes illuminance and colour temperature at given frames.
#pragma once

#include "sensor/PixelFormats.h"
#include "sim/ControlTable.h"
#include "sim/FrameSizes.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/AbstractConfiguration.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ruvo {
namespace capture {
namespace sim {

enum class ClockMode {
    Realtime,  // a frame every 1/fps seconds; frames with no queued buffer are dropped
    Free,      // a frame as soon as a buffer is queued
    Stepped    // a frame only when the test calls SimulatedSensor::step
};

// The sensor's colour response to the illuminant: `Neutral`, a sensor already balanced for
// daylight; `Raw`, a bare sensor seen through its colour filters (SensorModel.h).
enum class ColourResponse { Neutral, Raw };

enum class SampleLayout {
    Msb14,  // 10-bit value in the upper bits of a 14-bit field: value x 16
    Lsb10   // plain 10-bit value
};

// One scripted change: from exposed frame number `frame` on (counted over the sensor's life,
// dropped frames included), the named scene parameter takes `value`.
struct ScriptEvent {
    enum class Parameter { Illuminance, ColourTemperature };
    uint64_t frame = 0;
    Parameter parameter = Parameter::Illuminance;
    float value = 0.0f;
};

struct SimConfig {
    std::string scene = "chart";        // chart | flat | zoneplate | path of a .png file
    float level = 0.18f;                // reflectance of the flat field, 0..1
    float illuminance = 1.0f;           // multiples of the nominal illuminance
    float colourTemperature = 6500.0f;  // kelvin
    // The sensor's colour response (sim.colourResponse: neutral | raw).
    ColourResponse colourResponse = ColourResponse::Neutral;
    ClockMode clock = ClockMode::Realtime;
    float fps = 30.0f;       // frame rate; also sets the exposure limit of one frame period
    bool noise = false;      // photon shot noise and read noise
    float readNoise = 1.0f;  // read noise standard deviation, 10-bit codes
    uint64_t seed = 1;       // seed of the noise generator
    int32_t pedestal = 64;   // black level, 10-bit codes
    SampleLayout samples = SampleLayout::Msb14;
    // Formats offered, the first at start (sim.format; without it, the one sim.samples names).
    std::vector<sensor::PixelFormat> formats{sensor::defaultLayoutFormat()};
    ControlSet controls = ControlSet::Default;  // sim.controls: default | generic
    StandardControls standard;                  // sim.exposureControl, sim.gainControl (generic set only)
    FrameSizes sizes;                           // offered frame sizes (sim.sizes)
    uint32_t exposureDelay = 2;                 // frames until an exposure write shows
    uint32_t gainDelay = 1;                     // frames until a gain write shows
    std::vector<ScriptEvent> script;            // sorted by frame
    uint32_t dropEvery = 0;                     // every n-th exposed frame is lost before reaching a buffer; 0: none
    uint32_t errorEvery = 0;                    // every n-th completed buffer carries V4L2_BUF_FLAG_ERROR; 0: none
    bool userptr = true;                        // user-pointer buffers offered (memory-mapped ones always are)
};

// Reads the "sim.*" keys of a camera entry; keys that are absent keep the defaults above.
// Throws CaptureDeviceException naming the key for a value out of range or not understood.
SimConfig readSimConfig(const Poco::Util::AbstractConfiguration& cameraConfig);

// Parses a script such as "120:illuminance=4;240:colourTemperature=3000,illuminance=1". Events
// come back sorted by frame, in written order within a frame. Throws CaptureDeviceException.
std::vector<ScriptEvent> parseScript(const std::string& script);

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
