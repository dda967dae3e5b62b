// Delivered raw frames in every sample layout and Bayer order, written from the V4L2 format
// definitions (not from the library's readers), for the conversion tests and benchmarks.
#pragma once

#include "kernels/RawSamples.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ruvo {
namespace test {

// Bytes of a frame of `values` (width x height, each value in its low bits) stored as `storage`
// with rows of `stride` bytes; the bytes between a row's samples and the stride are `padding`.
std::vector<uint8_t> packFrame(capture::kernels::SampleStorage storage, const std::vector<uint16_t>& values,
                               unsigned width, unsigned height, size_t stride, uint8_t padding = 0xa5);

// A width x height mosaic in `order` of an image given per pixel as (r, g, b): each site keeps the
// channel of its colour in that order.
std::vector<uint16_t> mosaicOf(capture::kernels::BayerOrder order, const std::vector<uint16_t>& rgb, unsigned width,
                               unsigned height);

std::string layoutName(const capture::kernels::RawLayout& layout);

}  // namespace test
}  // namespace ruvo
