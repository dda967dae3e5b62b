// The few transcendental and rounding helpers the per-pixel kernels use. On the device they map to
// the approximate hardware instructions (log2, exp2, division; denormals flushed); on the host they
// are branch-free polynomial code that the compiler vectorises. Where a result must be the same in
// both builds (byte conversions, orientation), the arithmetic is spelled out with explicit fused or
// correctly rounded operations so that neither compiler can contract it differently.
#pragma once

#include <cuda_runtime.h>

#include <cmath>
#include <cstdint>
#include <cstring>

namespace ruvo {
namespace capture {
namespace kernels {

// Raw samples are 10-bit values in the upper bits of a 14-bit field: 16383 is full scale.
constexpr float kFullScale = 16383.0f;
constexpr float kInvFullScale = 1.0f / 16383.0f;
// A raw value times this, truncated, is its byte form (value / 16383 * 255).
constexpr float kFullScaleToByte = 255.0f / 16383.0f;

#ifndef __CUDA_ARCH__
namespace host {

__forceinline__ uint32_t floatBits(float x) {
    uint32_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    return bits;
}

__forceinline__ float bitsFloat(uint32_t bits) {
    float x;
    std::memcpy(&x, &bits, sizeof x);
    return x;
}

// The constants of log2Positive and exp2Clamped (below), which the hand-written AVX2 row
// (host/grid/Avx2ColourRow.cpp) evaluates in the same order, eight lanes at a time.
constexpr uint32_t kSqrtHalfBits = 0x3f3504f3u;  // sqrt(1/2)
constexpr float kLog2Coefficients[4] = {-3.216976523e-01f, 5.071774125e-01f, -7.246342897e-01f, 1.442695022e+00f};
constexpr float kExp2Limit = 127.0f;
constexpr float kRoundingShifter = 12582912.0f;  // 1.5 * 2^23
constexpr float kExp2Coefficients[3] = {5.500890687e-02f, 2.422109842e-01f, 6.932829618e-01f};

// log2 of a positive normal float, without a division: x = 2^e (1 + t) with the exponent e taken so
// that 1 + t lies in [sqrt(1/2), sqrt(2)), and log2(1 + t) = t q(t) with q a degree-3 fit whose
// constant term is 1/ln 2: absolute error below 1.7e-4, and relative error going to 0 with t, so
// values just below 1 keep their small negative logarithm. log2(1) is exactly 0. The outputs are
// bytes: see exp2Clamped for what this error costs a power.
__forceinline__ float log2Positive(float x) {
    const uint32_t bits = floatBits(x);
    const int exponent = static_cast<int>(bits - kSqrtHalfBits) >> 23;
    const float t = bitsFloat(bits - (static_cast<uint32_t>(exponent) << 23)) - 1.0f;
    float q = kLog2Coefficients[0];
    q = q * t + kLog2Coefficients[1];
    q = q * t + kLog2Coefficients[2];
    q = q * t + kLog2Coefficients[3];
    return t * q + static_cast<float>(exponent);
}

// 2^x: x = n + f with n the nearest integer and |f| <= 1/2; 2^f = 1 + f q(f) with q a degree-2
// fit (relative error below 1.02e-4), n added to the exponent field. n is found by adding
// 1.5 * 2^23, whose sum keeps round(x) in its low mantissa bits, so no integer conversion is needed.
// Inputs are clamped to [-127, 127]: at -127 the exponent field becomes 0 and the result is exactly
// 0 (just above it, a value below 2^-126); above 127 the result saturates at 2^127.
// With log2Positive, x^e = 2^(e log2 x) has a relative error below 1.2e-4 |e| + 1.03e-4, so a luma
// value (at most 255, a weighted sum of such powers) is off by less than 0.15 for exponents up to 4
// and by less than 1 up to 29; the bytes are truncated, so a byte moves by at most one step. Higher
// degrees keep more bytes equal to a correctly rounded computation (a degree-5 log2 with a degree-3
// exp2 changes about one byte in 150 against these), at about a sixth more of the colour kernels'
// time on AVX2.
__forceinline__ float exp2Clamped(float x) {
    const float clamped = x > kExp2Limit ? kExp2Limit : (x < -kExp2Limit ? -kExp2Limit : x);
    const float shifter = clamped + kRoundingShifter;
    const float f = clamped - (shifter - kRoundingShifter);
    float q = kExp2Coefficients[0];
    q = q * f + kExp2Coefficients[1];
    q = q * f + kExp2Coefficients[2];
    return bitsFloat(floatBits(1.0f + f * q) + (floatBits(shifter) << 23));
}

}  // namespace host
#endif

// log2 of a positive value (device: the approximate lg2 instruction).
__host__ __device__ __forceinline__ float fastLog2(float x) {
#ifdef __CUDA_ARCH__
    return __log2f(x);
#else
    return host::log2Positive(x);
#endif
}

// 2^x (device: the approximate ex2 instruction, flushing to zero).
__host__ __device__ __forceinline__ float fastExp2(float x) {
#ifdef __CUDA_ARCH__
    return exp2f(x);
#else
    return host::exp2Clamped(x);
#endif
}

// x^e as 2^(e log2 x). Zero and negative values (possible after a negative interpolation lobe)
// give 0.
__host__ __device__ __forceinline__ float fastPow(float x, float e) {
    const float p = fastExp2(e * fastLog2(x));  // whatever log2 gives for x <= 0 is discarded
    return x > 0.0f ? p : 0.0f;
}

// a / b with the device's approximate division.
__host__ __device__ __forceinline__ float approxDivide(float a, float b) {
#ifdef __CUDA_ARCH__
    return __fdividef(a, b);
#else
    return a / b;
#endif
}

// a / b correctly rounded in both builds.
__host__ __device__ __forceinline__ float exactDivide(float a, float b) {
#ifdef __CUDA_ARCH__
    return __fdiv_rn(a, b);
#else
    return a / b;
#endif
}

// sqrt correctly rounded in both builds, so perfect squares give exact roots.
__host__ __device__ __forceinline__ float exactSqrt(float x) {
#ifdef __CUDA_ARCH__
    return __fsqrt_rn(x);
#else
    return std::sqrt(x);
#endif
}

// Clamp to the byte range, kept in floating point.
__host__ __device__ __forceinline__ float clampByteRange(float x) {
    const float low = x < 0.0f ? 0.0f : x;
    return low > 255.0f ? 255.0f : low;
}

// Truncation toward zero of a value in [0, 255].
__host__ __device__ __forceinline__ unsigned char truncateToByte(float x) {
    return static_cast<unsigned char>(static_cast<int>(x));
}

// Truncation toward zero keeping the low byte of the integer (no clamp: 256 wraps to 0).
__host__ __device__ __forceinline__ unsigned char lowByte(float x) {
    return static_cast<unsigned char>(static_cast<unsigned int>(static_cast<int>(x)) & 0xffu);
}

// A raw-scale value (16383 = full scale) as a byte, value / 16383 * 255 truncated, with no clamp:
// one correctly rounded multiplication, so both builds agree on every input.
__host__ __device__ __forceinline__ unsigned char fullScaleToByte(float value) {
    return lowByte(value * kFullScaleToByte);
}

// Four-quadrant arctangent in radians, [-pi, pi], absolute error about 1e-8 before rounding.
// The octant is reduced to a = min/max in [0, 1], atan(a) = a * P(a^2) (degree-8 fit), and the
// result is put back with one fused operation so that both builds round identically.
__host__ __device__ __forceinline__ float atan2Approx(float y, float x) {
    const float ax = fabsf(x);
    const float ay = fabsf(y);
    const float hi = ax > ay ? ax : ay;
    const float lo = ax > ay ? ay : ax;
    const float a = exactDivide(lo, hi > 0.0f ? hi : 1.0f);
    const float s = a * a;
    float p = 2.7662835012e-03f;
    p = fmaf(p, s, -1.5731249120e-02f);
    p = fmaf(p, s, 4.2137623586e-02f);
    p = fmaf(p, s, -7.4568548258e-02f);
    p = fmaf(p, s, 1.0618370637e-01f);
    p = fmaf(p, s, -1.4197797794e-01f);
    p = fmaf(p, s, 1.9991872029e-01f);
    p = fmaf(p, s, -3.3333036709e-01f);
    p = fmaf(p, s, 9.9999998179e-01f);
    // Octant, as 0/1 weights rather than branches: a steep angle (|y| > |x|) is reflected about
    // pi/2, a negative x about pi; reflected once, the fitted angle is subtracted.
    const float steep = ay > ax ? 1.0f : 0.0f;
    const float left = x < 0.0f ? 1.0f : 0.0f;
    const float base = 1.57079637f * steep + 3.14159274f * left * (1.0f - steep);
    const float sign = 1.0f - 2.0f * (steep + left - 2.0f * steep * left);
    return copysignf(fmaf(sign * a, p, base), y);
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
