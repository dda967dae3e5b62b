// The kernel sequence of each output configuration and demosaic mode, as data: which kernel runs at
// which launch step, what it reads and which targets it writes. Both dispatchers execute this plan,
// and the byte counts of what the kernels write into each output buffer are derived from it.
#pragma once

#include "CUDAKernels.h"

#include <cstddef>
#include <initializer_list>

namespace ruvo {
namespace capture {
namespace kernels {

enum class KernelId {
    yuv420_fast,
    yuv420_lanczos,
    yuv420_fast_bggr,
    yuv420_rgb_only,
    yuv420_no_demosaic_rgb,
    yuv420_fast_segment_skin,
    yuv420_fast_skin_histogram,
    histogram_even,  // the device-wide luminance histogram (not a grid launch)
    step_down_YUV,
    step_down_Y_twice,
    step_down_erode_Y,
    gradient,
    gradient_magnitude,
    step_down_YUV_and_gradient,
    step_down_YUV_and_gradient_magnitude
};

// The kernel's name as launched (the __global__ function's name in the CUDA build).
constexpr const char* kernelName(KernelId kernel) {
    constexpr const char* names[] = {"yuv420_fast",
                                     "yuv420_lanczos",
                                     "yuv420_fast_bggr",
                                     "yuv420_rgb_only",
                                     "yuv420_no_demosaic_rgb",
                                     "yuv420_fast_segment_skin",
                                     "yuv420_fast_skin_histogram",
                                     "histogram_even",
                                     "step_down_YUV",
                                     "step_down_Y_twice",
                                     "step_down_erode_Y",
                                     "gradient",
                                     "gradient_magnitude",
                                     "step_down_YUV_and_gradient",
                                     "step_down_YUV_and_gradient_magnitude"};
    static_assert(
        sizeof names / sizeof names[0] == static_cast<size_t>(KernelId::step_down_YUV_and_gradient_magnitude) + 1,
        "one name per kernel id");
    return names[static_cast<int>(kernel)];
}

constexpr int kNoTarget = -1;
constexpr int kMaxTargets = 16;  // above every target index a plan uses

struct PlannedLaunch {
    KernelId kernel;
    int step;        // launch step 1 to 4; 0 for the histogram
    int input;       // target read, kNoTarget for the raw frame
    int inputShift;  // the input is (width >> inputShift) x (height >> inputShift)
    int outputs[3];  // targets written in the kernel's argument order, kNoTarget when unused
};

constexpr int kMaxPlannedLaunches = 6;

struct IspPlan {
    PlannedLaunch launches[kMaxPlannedLaunches];
    int count;
    bool unimplemented;  // no pyramid stage for the configuration: report it after the colour stage
};

inline void appendLaunch(IspPlan& plan, KernelId kernel, int step, int input, int inputShift, int out0,
                         int out1 = kNoTarget, int out2 = kNoTarget) {
    plan.launches[plan.count++] = {kernel, step, input, inputShift, {out0, out1, out2}};
}

// Pyramid and gradient stage; false for a configuration outside the enumeration.
inline bool planPyramidStage(IspPlan& plan, int configuration) {
    switch (configuration) {
        case YUV_ONLY:
        case YUV_SKIN:
        case BGGR:
        case NO_DEMOSAIC_RGB:
        case RGB_ONLY:
            return true;
        case YUV_2:
            appendLaunch(plan, KernelId::step_down_YUV, 2, 0, 0, 1);
            return true;
        case YUV_2_4_SKIN_HISTOGRAM:
            appendLaunch(plan, KernelId::step_down_Y_twice, 3, 3, 1, 5);
            appendLaunch(plan, KernelId::step_down_erode_Y, 4, 5, 3, 6);
            appendLaunch(plan, KernelId::step_down_YUV, 2, 0, 0, 1);
            appendLaunch(plan, KernelId::step_down_YUV, 3, 1, 1, 2);
            return true;
        case YUV_2_4:
            appendLaunch(plan, KernelId::step_down_YUV, 2, 0, 0, 1);
            appendLaunch(plan, KernelId::step_down_YUV, 3, 1, 1, 2);
            return true;
        case YUV_GRADIENT:
            appendLaunch(plan, KernelId::gradient, 2, 0, 0, 1, 2);
            return true;
        case YUV_2_4_GRADIENT:
            appendLaunch(plan, KernelId::step_down_YUV_and_gradient, 2, 0, 0, 1, 3, 4);
            appendLaunch(plan, KernelId::step_down_YUV, 3, 1, 1, 2);
            return true;
        case YUV_2_4_GRADIENT_2_4:
            appendLaunch(plan, KernelId::step_down_YUV_and_gradient, 2, 0, 0, 1, 3, 4);
            appendLaunch(plan, KernelId::step_down_YUV_and_gradient, 3, 1, 1, 2, 5, 6);
            appendLaunch(plan, KernelId::gradient, 4, 2, 2, 7, 8);
            return true;
        case YUV_2_GRADIENT_VECTOR_2:
            appendLaunch(plan, KernelId::step_down_YUV_and_gradient_magnitude, 2, 0, 0, 1, 2, 3);
            appendLaunch(plan, KernelId::gradient_magnitude, 3, 1, 1, 4, 5);
            return true;
        default:
            return false;
    }
}

// The kernel sequence of a configuration. The Lanczos mode always starts with yuv420_lanczos into
// target 0 and goes on with the pyramid stage, whatever the configuration; so do the bilinear
// configurations without an extra colour output.
inline IspPlan planIsp(int configuration, CUDADemosaicMode mode) {
    IspPlan plan{};
    if (mode != BILINEAR_5) {
        appendLaunch(plan, KernelId::yuv420_lanczos, 1, kNoTarget, 0, 0);
    } else {
        switch (configuration) {
            case RGB_ONLY:
                appendLaunch(plan, KernelId::yuv420_rgb_only, 1, kNoTarget, 0, 0);
                return plan;
            case NO_DEMOSAIC_RGB:
                appendLaunch(plan, KernelId::yuv420_no_demosaic_rgb, 1, kNoTarget, 0, 0, 1);
                return plan;
            case YUV_SKIN:
                appendLaunch(plan, KernelId::yuv420_fast_segment_skin, 1, kNoTarget, 0, 0, 1);
                return plan;
            case BGGR:
                appendLaunch(plan, KernelId::yuv420_fast_bggr, 1, kNoTarget, 0, 0, 1);
                return plan;
            case YUV_2_4_SKIN_HISTOGRAM:
                appendLaunch(plan, KernelId::yuv420_fast_skin_histogram, 1, kNoTarget, 0, 0, 3);
                appendLaunch(plan, KernelId::histogram_even, 0, 3, 1, 4);
                break;
            default:
                appendLaunch(plan, KernelId::yuv420_fast, 1, kNoTarget, 0, 0);
                break;
        }
    }
    plan.unimplemented = !planPyramidStage(plan, configuration);
    return plan;
}

// The pointers and input size a launch is called with, from the call's targets and processed size.
struct LaunchArguments {
    const unsigned char* in;  // null for the raw frame
    int width;                // of the input
    int height;
    unsigned char* out[3];  // null where the launch has no such output
};

inline LaunchArguments launchArguments(const PlannedLaunch& launch, unsigned char** targets, unsigned width,
                                       unsigned height) {
    LaunchArguments arguments{};
    arguments.in = launch.input == kNoTarget ? nullptr : targets[launch.input];
    arguments.width = static_cast<int>(width >> launch.inputShift);
    arguments.height = static_cast<int>(height >> launch.inputShift);
    for (int slot = 0; slot < 3; ++slot) {
        arguments.out[slot] = launch.outputs[slot] == kNoTarget ? nullptr : targets[launch.outputs[slot]];
    }
    return arguments;
}

// The highest target index a plan reads or writes.
inline int highestTarget(const IspPlan& plan) {
    int highest = 0;
    for (int i = 0; i < plan.count; ++i) {
        const PlannedLaunch& l = plan.launches[i];
        for (int target : {l.input, l.outputs[0], l.outputs[1], l.outputs[2]})
            highest = target > highest ? target : highest;
    }
    return highest;
}

// Bytes written into output `slot` of a launch, for a processed size of width x height.
inline size_t launchOutputBytes(const PlannedLaunch& launch, int slot, unsigned width, unsigned height) {
    const size_t w = width >> launch.inputShift;
    const size_t h = height >> launch.inputShift;
    const size_t plane = w * h;
    const size_t yuv = plane * 3 / 2;
    const size_t rgb = plane * 3;
    const size_t halfYuv = (w / 2) * (h / 2) * 3 / 2;
    switch (launch.kernel) {
        case KernelId::yuv420_fast:
        case KernelId::yuv420_lanczos:
        case KernelId::yuv420_fast_segment_skin:
            return yuv;
        case KernelId::yuv420_fast_bggr:
            return slot == 0 ? yuv : rgb;  // target 1: RGB24 view of the mosaic
        case KernelId::yuv420_rgb_only:
            return rgb;
        case KernelId::yuv420_no_demosaic_rgb:
            return slot == 0 ? rgb : yuv;
        case KernelId::yuv420_fast_skin_histogram:
            return slot == 0 ? yuv : plane / 4;
        case KernelId::histogram_even:
            return 256 * sizeof(int);
        case KernelId::step_down_YUV:
            return halfYuv;
        case KernelId::step_down_Y_twice:
            return (w / 4) * (h / 4);
        case KernelId::step_down_erode_Y:
            return (w / 2) * (h / 2);
        case KernelId::gradient:
        case KernelId::gradient_magnitude:
            return plane;
        case KernelId::step_down_YUV_and_gradient:
        case KernelId::step_down_YUV_and_gradient_magnitude:
            return slot == 0 ? halfYuv : plane;
    }
    return 0;
}

// Bytes that a plan writes into target `buffer` (0 when no launch writes it).
inline size_t planOutputBytes(const IspPlan& plan, size_t buffer, unsigned width, unsigned height) {
    size_t bytes = 0;
    for (int i = 0; i < plan.count; ++i) {
        for (int slot = 0; slot < 3; ++slot) {
            if (plan.launches[i].outputs[slot] != static_cast<int>(buffer)) continue;
            const size_t written = launchOutputBytes(plan.launches[i], slot, width, height);
            bytes = written > bytes ? written : bytes;
        }
    }
    return bytes;
}

// Bytes the kernels write into buffer `buffer` of a configuration in either demosaic mode.
inline size_t plannedOutputBytes(int configuration, size_t buffer, unsigned width, unsigned height) {
    const size_t bilinear = planOutputBytes(planIsp(configuration, BILINEAR_5), buffer, width, height);
    const size_t lanczos = planOutputBytes(planIsp(configuration, LANCZOS_11), buffer, width, height);
    return bilinear > lanczos ? bilinear : lanczos;
}

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
