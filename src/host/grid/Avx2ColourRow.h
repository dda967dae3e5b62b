// The interior rows of the bilinear YUV420p colour kernel written by hand for AVX2 with FMA, eight
// quads per step. It computes what the portable loop computes, operation for operation, and is
// chosen on x86-64 CPUs with AVX2 and FMA where the portable loop would run as its x86-64-v3
// clone; on AVX-512 CPUs, in builds without row clones and on every other architecture, the
// portable loop runs.
#pragma once

#include "kernels/ColourKernels.h"

namespace ruvo {
namespace capture {
namespace kernels {

// Kernels without a hand-written interior row: the portable loop runs.
template <class Kernel>
bool runHandWrittenRow(const Kernel&, unsigned, unsigned, unsigned) {
    return false;
}

#if defined(__x86_64__)
// Whether this CPU runs the hand-written row (AVX2 and FMA, row clones built, no AVX-512 clone chosen).
bool avx2ColourRowChosen();

// Quads begin .. end - 1 (at least eight) of interior row ty; the CPU must have AVX2 and FMA.
void runAvx2ColourRow(const Yuv420Fast& kernel, unsigned ty, unsigned begin, unsigned end);

// Runs quads begin .. end - 1 of interior row ty by hand-written code where this CPU has it and the
// run holds at least eight quads; false where the portable loop must run them.
bool runHandWrittenRow(const Yuv420Fast& kernel, unsigned ty, unsigned begin, unsigned end);
#endif

// What runs the interior rows of the bilinear YUV420p colour kernel on this CPU, for reports.
inline const char* bilinearYuvRowChosen() {
#if defined(__x86_64__)
    if (avx2ColourRowChosen()) return "hand-written AVX2 + FMA";
#endif
    return "the row loops above";
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
