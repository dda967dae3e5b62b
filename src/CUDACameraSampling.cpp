// CUDACamera's metering samples: the seeded random engine, the table of sample positions drawn
// at every start, the perturbation noise of white balance, and the centre-weighted prior of the
// exposure metering regions.
#include "CUDACamera.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace ruvo {
namespace capture {

namespace {

// Uniform integer in [a, b] by rejection over the 32-bit engine output: the classic scaling
// method, written out so that every standard library draws the same sequence.
int uniformInt(std::mt19937& engine, int a, int b) {
    const uint32_t range = static_cast<uint32_t>(b) - static_cast<uint32_t>(a);
    if (range == UINT32_MAX) return static_cast<int>(engine());
    const uint32_t urange = range + 1;
    const uint32_t scaling = UINT32_MAX / urange;
    const uint32_t past = urange * scaling;
    uint32_t draw;
    do {
        draw = engine();
    } while (draw >= past);
    return static_cast<int>(static_cast<uint32_t>(a) + draw / scaling);
}

}  // namespace

void CUDACamera::init_sample_distribution() {
    // The table grows on every start; only the first numSamples entries are ever read. A start at
    // another frame size draws it afresh, so that no sample lies outside the frames metered.
    if (_controls.width != _sampleTableWidth || _controls.height != _sampleTableHeight) {
        _initialSampleDist.clear();
        _sampleTableWidth = _controls.width;
        _sampleTableHeight = _controls.height;
    }
    _initialSampleDist.reserve(_initialSampleDist.size() + _params.numSamples);
    for (uint32_t i = 0; i < _params.numSamples; ++i) {
        const int x = uniformInt(_prng, 0, static_cast<int>(_controls.width) - 1);
        const int y = uniformInt(_prng, 0, static_cast<int>(_controls.height) - 1);
        _initialSampleDist.emplace_back(x, y);
    }
}

float CUDACamera::noise() {
    const uint32_t d = _prng();
    return static_cast<float>(d) * 2.3283064e-10f * 0.2f + -0.1f;
}

int CUDACamera::randRow(const dlib::rectangle& rect) {
    return uniformInt(_prng, static_cast<int>(rect.top()), static_cast<int>(rect.bottom()));
}

int CUDACamera::randCol(const dlib::rectangle& rect) {
    return uniformInt(_prng, static_cast<int>(rect.left()), static_cast<int>(rect.right()));
}

// A 2-D Gaussian over the region grid (sigma one third of the side), row-major. Slots beyond
// side^2 (numRegions not a perfect square) hold 0 so that every region index reads a value.
void CUDACamera::init_window_weights() {
    const auto n = static_cast<uint32_t>(_params.ae.numRegions);
    winWeights.reserve(n);
    const auto side = static_cast<uint32_t>(std::sqrt(static_cast<double>(n)));
    sumWinWeights = 0.0f;
    if (side == 0) return;
    winWeights.assign(std::max<size_t>(n, static_cast<size_t>(side) * side), 0.0f);
    const double c = side * 0.5;
    const double s = side * 0.5 / 1.5;
    for (uint32_t r = 1; r <= side; ++r) {
        for (uint32_t k = 1; k <= side; ++k) {
            const double dx = r - 0.5 - c;
            const double dy = k - 0.5 - c;
            const auto w =
                static_cast<float>(std::exp(-(dx * dx + dy * dy) / (s * (s + s))) / (s * 2.5066283095076436));
            winWeights[(r - 1) * side + (k - 1)] = w;
            sumWinWeights += w;
        }
    }
}

}  // namespace capture
}  // namespace ruvo
