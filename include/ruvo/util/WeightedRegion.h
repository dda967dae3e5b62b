// A rectangle of the sensor image with a weight, used for metering regions and as the region
// list of exposure and white-balance feedback.
#pragma once

#include <dlib/geometry/rectangle.h>

namespace ruvo {
namespace util {

struct WeightedRegion {
    dlib::rectangle rect;  // pixel coordinates, right and bottom inclusive as dlib defines them
    float weight = 0.0f;

    WeightedRegion() = default;
    WeightedRegion(const dlib::rectangle& r, float w) : rect(r), weight(w) {}

    bool operator==(const WeightedRegion& other) const { return rect == other.rect && weight == other.weight; }
    bool operator!=(const WeightedRegion& other) const { return !(*this == other); }
};

}  // namespace util
}  // namespace ruvo
