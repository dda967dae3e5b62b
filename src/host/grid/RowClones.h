// Which instruction sets the host row loops are compiled for, and which of them this CPU runs.
// On x86-64 (GCC, outside the sanitizer builds) each row loop is compiled several times with
// target_clones and the loader picks one per process by the CPU's features; elsewhere there is
// one version, for the target's baseline (on aarch64 that includes the NEON vector unit).
#pragma once

#include <string>

#if defined(__x86_64__) && !defined(__clang__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define RUVO_X86_ROW_CLONES 1
// Row loops for AVX2 with FMA and for baseline x86-64; interior runs (of the colour kernels, where
// the powers of the colour path take most of the time, and of the gradient kernels) also for
// AVX-512 (16 lanes).
#define RUVO_ROW_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#define RUVO_INTERIOR_ROW_CLONES __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#else
#define RUVO_X86_ROW_CLONES 0
#define RUVO_ROW_CLONES
#define RUVO_INTERIOR_ROW_CLONES
#endif

namespace ruvo {
namespace capture {
namespace kernels {

// The clones the loader picks on this CPU, for interior runs and for other row loops. The tests
// are the ones the clones' resolver makes, so the answer is the version that runs.
inline std::string rowClonesChosen() {
#if RUVO_X86_ROW_CLONES
    const char* interior = __builtin_cpu_supports("x86-64-v4")   ? "x86-64-v4"
                           : __builtin_cpu_supports("x86-64-v3") ? "x86-64-v3"
                                                                 : "default";
    const char* other = __builtin_cpu_supports("x86-64-v3") ? "x86-64-v3" : "default";
    return std::string("interior rows ") + interior + " (of x86-64-v4, x86-64-v3, default), other rows " + other +
           " (of x86-64-v3, default)";
#elif defined(__aarch64__)
    return "no clones: one version for aarch64 (NEON)";
#else
    return "no clones: one version for the compiler's target";
#endif
}

// The vector instruction sets this CPU reports, of those the row loops can use.
inline std::string vectorInstructionSets() {
    std::string sets;
#if defined(__x86_64__)
    const struct {
        const char* name;
        bool present;
    } features[] = {
        {"sse4.2", __builtin_cpu_supports("sse4.2") != 0},     {"avx", __builtin_cpu_supports("avx") != 0},
        {"avx2", __builtin_cpu_supports("avx2") != 0},         {"fma", __builtin_cpu_supports("fma") != 0},
        {"avx512f", __builtin_cpu_supports("avx512f") != 0},   {"avx512bw", __builtin_cpu_supports("avx512bw") != 0},
        {"avx512vl", __builtin_cpu_supports("avx512vl") != 0},
    };
    for (const auto& feature : features) {
        if (feature.present) sets += sets.empty() ? feature.name : std::string(" ") + feature.name;
    }
#elif defined(__aarch64__)
    sets = "neon (aarch64 baseline)";
#endif
    return sets.empty() ? "none known" : sets;
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
