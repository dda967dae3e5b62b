// The bilinear YUV420p colour kernel's interior row in AVX2 + FMA intrinsics: lane i of every vector
// is quad tx + i, eight quads per pass. Each step is the portable code's own arithmetic (Demosaic.h,
// ColourPath.h, FastMath.h), with the multiply-adds fused where the compiler fuses them in the
// portable loop's x86-64-v3 version, so that both give the same bytes.
#include "host/grid/Avx2ColourRow.h"

#if defined(__x86_64__)

#include "host/grid/RowClones.h"

#include <immintrin.h>

#include <cstdint>

#define RUVO_AVX2 __attribute__((target("avx2,fma")))
#define RUVO_AVX2_INLINE __attribute__((target("avx2,fma"), always_inline)) inline

namespace ruvo {
namespace capture {
namespace kernels {
namespace {

RUVO_AVX2_INLINE __m256 splat(float value) { return _mm256_set1_ps(value); }

// The powers run on N independent vectors at once, each step for all N before the next: one power
// is a chain of some twenty dependent instructions, and only interleaved chains keep the vector
// units busy.

// host::log2Positive of each lane.
template <int N>
RUVO_AVX2_INLINE void log2Positive8(const __m256 (&x)[N], __m256 (&out)[N]) {
    __m256i exponent[N];
    __m256 t[N], q[N];
    for (int i = 0; i < N; ++i) {
        const __m256i bits = _mm256_castps_si256(x[i]);
        const __m256i offset = _mm256_sub_epi32(bits, _mm256_set1_epi32(static_cast<int>(host::kSqrtHalfBits)));
        exponent[i] = _mm256_srai_epi32(offset, 23);
        // bits - (exponent << 23), with the shifted exponent as the offset's top nine bits.
        const __m256i mantissa = _mm256_sub_epi32(bits, _mm256_and_si256(offset, _mm256_set1_epi32(~0x7fffff)));
        t[i] = _mm256_sub_ps(_mm256_castsi256_ps(mantissa), splat(1.0f));
    }
    for (int i = 0; i < N; ++i) {
        q[i] = _mm256_fmadd_ps(splat(host::kLog2Coefficients[0]), t[i], splat(host::kLog2Coefficients[1]));
    }
    for (int i = 0; i < N; ++i) q[i] = _mm256_fmadd_ps(q[i], t[i], splat(host::kLog2Coefficients[2]));
    for (int i = 0; i < N; ++i) q[i] = _mm256_fmadd_ps(q[i], t[i], splat(host::kLog2Coefficients[3]));
    for (int i = 0; i < N; ++i) out[i] = _mm256_fmadd_ps(t[i], q[i], _mm256_cvtepi32_ps(exponent[i]));
}

// host::exp2Clamped of each lane, in place; without the clamp where kClamp is false.
template <bool kClamp, int N>
RUVO_AVX2_INLINE void exp2Clamped8(__m256 (&x)[N]) {
    __m256 shifter[N], f[N], q[N];
    for (int i = 0; i < N; ++i) {
        const __m256 clamped =
            kClamp ? _mm256_max_ps(_mm256_min_ps(x[i], splat(host::kExp2Limit)), splat(-host::kExp2Limit)) : x[i];
        shifter[i] = _mm256_add_ps(clamped, splat(host::kRoundingShifter));
        f[i] = _mm256_sub_ps(clamped, _mm256_sub_ps(shifter[i], splat(host::kRoundingShifter)));
    }
    for (int i = 0; i < N; ++i) {
        q[i] = _mm256_fmadd_ps(splat(host::kExp2Coefficients[0]), f[i], splat(host::kExp2Coefficients[1]));
    }
    for (int i = 0; i < N; ++i) q[i] = _mm256_fmadd_ps(q[i], f[i], splat(host::kExp2Coefficients[2]));
    for (int i = 0; i < N; ++i) {
        const __m256i fraction = _mm256_castps_si256(_mm256_fmadd_ps(f[i], q[i], splat(1.0f)));
        const __m256i scale = _mm256_slli_epi32(_mm256_castps_si256(shifter[i]), 23);
        x[i] = _mm256_castsi256_ps(_mm256_add_epi32(fraction, scale));
    }
}

// fastPow of each lane, in place: x^e, and 0 where x <= 0.
template <bool kClamp, int N>
RUVO_AVX2_INLINE void powers8(__m256 (&x)[N], const __m256 (&e)[N]) {
    __m256 p[N];
    log2Positive8(x, p);
    for (int i = 0; i < N; ++i) p[i] = _mm256_mul_ps(e[i], p[i]);
    exp2Clamped8<kClamp>(p);
    for (int i = 0; i < N; ++i) x[i] = _mm256_and_ps(p[i], _mm256_cmp_ps(x[i], _mm256_setzero_ps(), _CMP_GT_OQ));
}

RUVO_AVX2_INLINE __m256 clampByteRange8(__m256 x) {
    return _mm256_min_ps(_mm256_max_ps(x, _mm256_setzero_ps()), splat(255.0f));
}

// lumaOf from the shaped r', g', b' of a site, fused as the compiler fuses it:
// 255 (0.114 b' + (0.587 g' + 0.299 r')), clamped and truncated.
RUVO_AVX2_INLINE __m256i lumaByte8(const __m256* shaped) {
    const __m256 rg = _mm256_fmadd_ps(splat(kLumaG), shaped[1], _mm256_mul_ps(splat(kLumaR), shaped[0]));
    const __m256 luma = _mm256_mul_ps(splat(255.0f), _mm256_fmadd_ps(splat(kLumaB), shaped[2], rg));
    return _mm256_cvttps_epi32(clampByteRange8(luma));
}

// shapeChroma from a chroma value c and the power |c|^e, then the byte: 255 (0.5 sign(c) |c|^e + 0.5),
// clamped and truncated.
RUVO_AVX2_INLINE __m256i chromaByte8(__m256 c, __m256 power) {
    const __m256 shaped = _mm256_xor_ps(_mm256_mul_ps(splat(0.5f), power), _mm256_and_ps(c, splat(-0.0f)));
    return _mm256_cvttps_epi32(clampByteRange8(_mm256_mul_ps(splat(255.0f), _mm256_add_ps(shaped, splat(0.5f)))));
}

// Red, green and blue of the four sites of eight quads (QuadRgb, lane by lane).
struct QuadRgb8 {
    __m256 r[4], g[4], b[4];
};

// One row of raw samples as 32-bit sample pairs (even column low, odd column high): lane i holds
// the pair at column 2 i + offset from the first quad's B column.
struct PairRow {
    const uint16_t* row;

    RUVO_AVX2_INLINE __m256i pairs(int offset) const {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + offset));
    }
    RUVO_AVX2_INLINE __m256i even(int offset) const {
        return _mm256_and_si256(pairs(offset), _mm256_set1_epi32(0xffff));
    }
    RUVO_AVX2_INLINE __m256i odd(int offset) const { return _mm256_srli_epi32(pairs(offset), 16); }
};

// Sums of samples are taken in integers, exact as the portable code's float sums of them are.
RUVO_AVX2_INLINE __m256i add(__m256i a, __m256i b) { return _mm256_add_epi32(a, b); }
RUVO_AVX2_INLINE __m256 toFloat(__m256i a) { return _mm256_cvtepi32_ps(a); }
RUVO_AVX2_INLINE __m256 quarterOf(__m256i sum) { return _mm256_mul_ps(splat(kQuarter), toFloat(sum)); }
RUVO_AVX2_INLINE __m256 thirdsAndTwelfths8(__m256i nearSum, __m256i farSum) {
    return _mm256_fmadd_ps(splat(kThird), toFloat(nearSum), _mm256_mul_ps(splat(kTwelfth), toFloat(farSum)));
}

// bilinearQuad of eight quads whose B sites are at columns 0, 2, .., 14 of `centre` (row y0).
RUVO_AVX2_INLINE QuadRgb8 bilinearQuad8(const uint16_t* centre, ptrdiff_t stride) {
    const PairRow up2{centre - 2 * stride}, up1{centre - stride}, row0{centre}, row1{centre + stride},
        row2{centre + 2 * stride}, row3{centre + 3 * stride};
    const __m256i s00 = row0.even(0), s01 = row0.odd(0), s10 = row1.even(0), s11 = row1.odd(0);
    const __m256i s02 = row0.even(2), s20 = row2.even(0), s22 = row2.even(2);
    const __m256i s1m1 = row1.odd(-2), sm1m1 = up1.odd(-2), sm11 = up1.odd(0);
    QuadRgb8 q;
    q.b[kSiteB] = toFloat(s00);
    q.g[kSiteB] = quarterOf(add(add(row0.odd(-2), s01), add(up1.even(0), s10)));
    q.r[kSiteB] = quarterOf(add(add(sm1m1, sm11), add(s1m1, s11)));
    q.g[kSiteG1] = toFloat(s01);
    q.r[kSiteG1] = thirdsAndTwelfths8(add(sm11, s11), add(add(sm1m1, up1.odd(2)), add(s1m1, row1.odd(2))));
    q.b[kSiteG1] = thirdsAndTwelfths8(add(s00, s02), add(add(up2.even(0), up2.even(2)), add(s20, s22)));
    q.g[kSiteG2] = toFloat(s10);
    q.r[kSiteG2] = thirdsAndTwelfths8(add(s1m1, s11), add(add(sm1m1, sm11), add(row3.odd(-2), row3.odd(0))));
    q.b[kSiteG2] = thirdsAndTwelfths8(add(s00, s20), add(add(row0.even(-2), s02), add(row2.even(-2), s22)));
    q.r[kSiteR] = toFloat(s11);
    q.g[kSiteR] = quarterOf(add(add(s10, s01), add(row1.even(2), row2.odd(0))));
    q.b[kSiteR] = quarterOf(add(add(s00, s02), add(s20, s22)));
    return q;
}

// A channel's quad mean as the power's input: 0.25 (((v0 + v1) + v2) + v3) / 16383, with the two
// scalings as one product (scaling by 0.25 is exact, so the rounding is the same).
RUVO_AVX2_INLINE __m256 scaledMean8(const __m256 (&values)[4]) {
    const __m256 sum = _mm256_add_ps(_mm256_add_ps(_mm256_add_ps(values[0], values[1]), values[2]), values[3]);
    return _mm256_mul_ps(splat(kQuarter * kInvFullScale), sum);
}

// A site's three channels as the powers' inputs: value / 16383.
RUVO_AVX2_INLINE void scaledSite8(const QuadRgb8& q, int site, __m256* out) {
    out[0] = _mm256_mul_ps(splat(kInvFullScale), q.r[site]);
    out[1] = _mm256_mul_ps(splat(kInvFullScale), q.g[site]);
    out[2] = _mm256_mul_ps(splat(kInvFullScale), q.b[site]);
}

// Four luma rows of eight quads as bytes: 16 in the quads' top row at y0, 16 in the row below.
RUVO_AVX2_INLINE void storeLuma8(unsigned char* y0, size_t width, __m256i b, __m256i g1, __m256i g2, __m256i r) {
    // Each row as 16-bit pairs (left site low), packed to bytes with row 0 in the low half.
    const __m256i row0 = _mm256_or_si256(b, _mm256_slli_epi32(g1, 16));
    const __m256i row1 = _mm256_or_si256(g2, _mm256_slli_epi32(r, 16));
    const __m256i rows = _mm256_permute4x64_epi64(_mm256_packus_epi16(row0, row1), 0xd8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(y0), _mm256_castsi256_si128(rows));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(y0 + width), _mm256_extracti128_si256(rows, 1));
}

// Eight U and eight V bytes.
RUVO_AVX2_INLINE void storeChroma8(unsigned char* u, unsigned char* v, __m256i uBytes, __m256i vBytes) {
    // As 16-bit values (U0-3 V0-3 | U4-7 V4-7), then bytes, gathered as U0-7 V0-7.
    const __m256i words = _mm256_packs_epi32(uBytes, vBytes);
    const __m256i bytes = _mm256_packus_epi16(words, words);
    const __m128i uv =
        _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 0, 0, 0, 0)));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(u), uv);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(v), _mm_unpackhi_epi64(uv, uv));
}

// colourQuad and storeYuvQuad of eight quads: y0 is the first quad's top-left Y byte, u and v its
// chroma bytes. The chroma is a chain of two powers (of the channel means, then of the chroma
// differences), so its first powers go with the B and G1 sites' and its second with the G2 and R
// sites': the luma powers fill the wait on the chain.
template <bool kClamp>
RUVO_AVX2_INLINE void colourQuads8(const QuadRgb8& q, const Gammas& gammas, unsigned char* y0, size_t width,
                                   unsigned char* u, unsigned char* v) {
    const __m256 r = splat(gammas.r), g = splat(gammas.g), b = splat(gammas.b);
    __m256 first[9] = {scaledMean8(q.r), scaledMean8(q.g), scaledMean8(q.b)};
    scaledSite8(q, kSiteB, first + 3);
    scaledSite8(q, kSiteG1, first + 6);
    powers8<kClamp>(first, {r, g, b, r, g, b, r, g, b});

    // The chroma differences, fused as the compiler fuses them.
    const __m256 blue =
        _mm256_fnmadd_ps(splat(kBlueDifferenceG), first[1], _mm256_mul_ps(splat(kBlueDifferenceR), first[0]));
    const __m256 red = _mm256_fnmadd_ps(splat(kRedDifferenceG), first[1], _mm256_mul_ps(splat(0.5f), first[0]));
    const __m256 cb = _mm256_mul_ps(splat(2.0f), _mm256_fmadd_ps(splat(0.5f), first[2], blue));
    const __m256 cr = _mm256_mul_ps(splat(2.0f), _mm256_fnmadd_ps(splat(kRedDifferenceB), first[2], red));
    __m256 second[8] = {_mm256_andnot_ps(splat(-0.0f), cb), _mm256_andnot_ps(splat(-0.0f), cr)};
    scaledSite8(q, kSiteG2, second + 2);
    scaledSite8(q, kSiteR, second + 5);
    // Blue-difference chroma takes gammaCr and red-difference gammaCb (see colourQuad).
    powers8<kClamp>(second, {splat(gammas.cr), splat(gammas.cb), r, g, b, r, g, b});

    storeLuma8(y0, width, lumaByte8(first + 3), lumaByte8(first + 6), lumaByte8(second + 2), lumaByte8(second + 5));
    storeChroma8(u, v, chromaByte8(cb, second[0]), chromaByte8(cr, second[1]));
}

// Quads begin .. end - 1 of row ty in steps of eight, the last step moved back to end at `end`
// (quads it repeats store the same bytes again).
template <bool kClamp>
RUVO_AVX2_INLINE void avx2Row(const cudaKernelParams& params, unsigned char* yuv, unsigned ty, unsigned begin,
                              unsigned end) {
    const Gammas gammas = gammasOf(params);
    const size_t width = params.width;
    const size_t plane = width * params.height;
    const uint16_t* raw = static_cast<const uint16_t*>(params.sbggr) + 2 * ty * width;
    unsigned char* yRow = yuv + 2 * ty * width;
    unsigned char* uRow = yuv + plane + ty * (width / 2);
    unsigned char* vRow = uRow + plane / 4;
    for (unsigned tx = begin; tx < end; tx += 8) {
        const size_t first = tx + 8 <= end ? tx : end - 8;
        const QuadRgb8 quads = bilinearQuad8(raw + 2 * first, static_cast<ptrdiff_t>(width));
        colourQuads8<kClamp>(quads, gammas, yRow + 2 * first, width, uRow + first, vRow + first);
    }
}

// The exponent clamp of exp2 changes nothing when every exponent is in (0, 1], and the row then runs
// without it. A power's input x is 0 or a value the clamp leaves alone: a site's value / 16383 is at
// least (1/12) / 16383 and a mean's (1/48) / 16383, both at most 1 (log2 x in [-20, 0]); a chroma
// value is a weighted sum of such powers (each then at least 2^-20), rounded after each step, so a
// nonzero one is at least 2^-90 and at most 1 (log2 |c| in [-90, 0]). log2 0 is -127, which e <= 1
// keeps in range.
RUVO_AVX2 void avx2Row(const cudaKernelParams& params, unsigned char* yuv, unsigned ty, unsigned begin, unsigned end) {
    const float gammas[] = {params.gammaR, params.gammaG, params.gammaB, params.gammaCr, params.gammaCb};
    bool clampNeeded = false;
    for (const float gamma : gammas) clampNeeded = clampNeeded || !(gamma > 0.0f && gamma <= 1.0f);
    if (clampNeeded) {
        avx2Row<true>(params, yuv, ty, begin, end);
    } else {
        avx2Row<false>(params, yuv, ty, begin, end);
    }
}

}  // namespace

bool avx2ColourRowChosen() {
    static const bool chosen = [] {
#if RUVO_X86_ROW_CLONES
        // On such a CPU the other colour kernels run their x86-64-v3 clones, which fuse the
        // multiply-adds as this row does, so every configuration's colour image stays the same.
        // Where the portable loop has an AVX-512 clone (RowClones.h), that clone runs.
        return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && !__builtin_cpu_supports("x86-64-v4");
#else
        // Without clones (sanitizer and clang builds) the other colour kernels run baseline code,
        // which fuses no multiply-add: this row would move YUV_ONLY's bytes a step from theirs.
        return false;
#endif
    }();
    return chosen;
}

void runAvx2ColourRow(const Yuv420Fast& kernel, unsigned ty, unsigned begin, unsigned end) {
    avx2Row(kernel.params, kernel.sink.yuv, ty, begin, end);
}

bool runHandWrittenRow(const Yuv420Fast& kernel, unsigned ty, unsigned begin, unsigned end) {
    if (end - begin < 8 || !avx2ColourRowChosen()) return false;
    runAvx2ColourRow(kernel, ty, begin, end);
    return true;
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo

#endif
