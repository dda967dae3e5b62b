// The simulated sensor's delivered formats: which ones it offers ("sim.format"), and its 10-bit
// codes quantised and packed per format. The sensor's converter has 10 bits: deeper formats carry
// each code scaled to their full scale (x4 for 12 bits, x64 for 16), 8-bit ones the code rounded
// to its upper 8 bits.
#pragma once

#include "sensor/PixelFormats.h"
#include "sim/SimConfig.h"

#include <Poco/Util/AbstractConfiguration.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ruvo {
namespace capture {
namespace sim {

// The formats of "sim.format", a comma-separated list of "default" and Bayer fourccs, the first
// being the one the sensor starts with. Without the key, the one format "sim.samples" names.
// Throws CaptureDeviceException for an unknown entry, a repeated code (the default layout and
// BG10 share one), or an empty list.
std::vector<sensor::PixelFormat> readFormats(const Poco::Util::AbstractConfiguration& config, SampleLayout samples);

// The offered format with the requested code, or the first one when none has it (as a driver
// answers S_FMT/TRY_FMT).
const sensor::PixelFormat& chooseFormat(const std::vector<sensor::PixelFormat>& formats, uint32_t fourcc);

// The left shift that places a 10-bit code in a 16-bit word of `layout`, or -1 when the layout
// is not one word per sample of at least 10 bits (its rows are packed from codes instead).
int wordShift(const kernels::RawLayout& layout);

// One delivered row of `width` (a multiple of 4) 10-bit codes in `layout`, packedRowBytes bytes.
void packRow(const uint16_t* codes, size_t width, const kernels::RawLayout& layout, uint8_t* out);

}  // namespace sim
}  // namespace capture
}  // namespace ruvo
