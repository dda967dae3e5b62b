// A closed interval [low, high] of values, used for permitted ranges such as the exposure time
// window of the auto-exposure controls.
#pragma once

namespace ruvo {
namespace util {

template <typename T>
class Range {
public:
    Range() : _low(), _high() {}
    Range(T low, T high) : _low(low), _high(high) {}

    T low() const { return _low; }
    T high() const { return _high; }
    void setLow(T low) { _low = low; }
    void setHigh(T high) { _high = high; }

    // A range is valid when its lower bound does not exceed its upper bound.
    bool valid() const { return !(_high < _low); }
    // Whether `value` lies inside the range, bounds included (a not-a-number lies outside).
    bool in(T value) const { return _low <= value && value <= _high; }
    bool out(T value) const { return !in(value); }

    bool operator==(const Range& other) const { return _low == other._low && _high == other._high; }
    bool operator!=(const Range& other) const { return !(*this == other); }

    T _low;
    T _high;
};

}  // namespace util
}  // namespace ruvo
