// Side-by-side timing, in one run, of the host pipeline's YUV_ONLY on one thread and the equivalent
// OpenCV CPU pipeline on one thread: 16-bit bilinear demosaic (cvtColor Bayer to BGR on CV_16U),
// values normalised by 16383 and raised to the power 0.8 per channel, conversion to 8 bits and to
// I420. The two alternate run by run so that both see the same machine load; medians are printed
// with the throughput ratio. Then the host pipeline on all threads, as frames per second. The
// header names the CPU, its vector instruction sets, the row-loop clones and whether the
// hand-written AVX2 row ran, so that every figure says which machine and code path it came from.
// Usage: compare_opencv [runs per size, default 30]
#include "host/grid/Avx2ColourRow.h"
#include "host/grid/RowClones.h"
#include "support/GpuPresence.h"
#include "support/kernel_buffers.h"

#include <omp.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace ruvo::test;
namespace cap = ruvo::capture;

struct Times {
    double wall;  // milliseconds
    double cpu;   // milliseconds of this thread
};

double threadCpuMilliseconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1e3 + now.tv_nsec * 1e-6;
}

template <class Body>
Times timed(const Body& body) {
    const auto wall0 = std::chrono::steady_clock::now();
    const double cpu0 = threadCpuMilliseconds();
    body();
    const double cpu = threadCpuMilliseconds() - cpu0;
    return {std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - wall0).count(), cpu};
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

// The OpenCV pipeline with its intermediate images kept between runs (no allocation per frame).
struct OpenCvPipeline {
    cv::Mat bgr16, normalised, bgr8, i420;

    void run(const cv::Mat& raw) {
        // OpenCV names a Bayer pattern by the second row's second and third pixels: R G for B G / G R.
        cv::cvtColor(raw, bgr16, cv::COLOR_BayerRG2BGR);
        bgr16.convertTo(normalised, CV_32F, 1.0 / 16383.0);
        cv::pow(normalised, 0.8, normalised);
        normalised.convertTo(bgr8, CV_8U, 255.0);
        cv::cvtColor(bgr8, i420, cv::COLOR_BGR2YUV_I420);
    }
};

void compareOneThread(const ProcessedSize& size, int runs) {
    IspRig rig(cap::YUV_ONLY, size);
    rig.fillRaw(colourFrame(size.width, size.height, 614, 409, 307, 300, 1));
    const cv::Mat raw(static_cast<int>(size.height), static_cast<int>(size.width), CV_16U, rig.raw());
    const Gammas gammas{0.8f, 0.8f, 0.8f, 1.0f, 1.0f};
    OpenCvPipeline opencv;
    omp_set_num_threads(1);
    cv::setNumThreads(1);
    opencv.run(raw);
    rig.run(cap::BILINEAR_5, gammas);
    std::vector<double> opencvWall, opencvCpu, hostWall, hostCpu;
    for (int i = 0; i < runs; ++i) {
        const Times o = timed([&] { opencv.run(raw); });
        const Times h = timed([&] { rig.run(cap::BILINEAR_5, gammas); });
        opencvWall.push_back(o.wall);
        opencvCpu.push_back(o.cpu);
        hostWall.push_back(h.wall);
        hostCpu.push_back(h.cpu);
    }
    const double ow = median(opencvWall), oc = median(opencvCpu), hw = median(hostWall), hc = median(hostCpu);
    std::printf("%-10s  %8.3f %8.3f   %8.3f %8.3f   %6.2fx %6.2fx\n", sizeName(size).c_str(), ow, oc, hw, hc, ow / hw,
                oc / hc);
}

void allThreads(const ProcessedSize& size, int runs) {
    IspRig rig(cap::YUV_ONLY, size);
    rig.fillRaw(colourFrame(size.width, size.height, 614, 409, 307, 300, 1));
    const Gammas gammas{0.8f, 0.8f, 0.8f, 1.0f, 1.0f};
    omp_set_num_threads(omp_get_num_procs());
    rig.run(cap::BILINEAR_5, gammas);
    std::vector<double> wall;
    for (int i = 0; i < runs; ++i) wall.push_back(timed([&] { rig.run(cap::BILINEAR_5, gammas); }).wall);
    const double ms = median(wall);
    std::printf("%-10s  %8.3f ms  %7.1f frames/s\n", sizeName(size).c_str(), ms, 1000.0 / ms);
}

// The CPU's model name as the kernel reports it ("unknown" where it does not).
std::string cpuModel() {
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        const size_t colon = line.find(':');
        if (line.rfind("model name", 0) == 0 && colon != std::string::npos) return line.substr(colon + 2);
    }
    return "unknown";
}

}  // namespace

int main(int argc, char** argv) {
    std::string reason;
    if (!cudaDeviceAvailable(&reason)) {
        std::printf("skipped: %s\n", reason.c_str());
        return 0;
    }
    const int runs = argc > 1 ? std::max(3, std::atoi(argv[1])) : 30;
    std::printf("CPU: %s, %d logical processors\n", cpuModel().c_str(), omp_get_num_procs());
    std::printf("vector instruction sets: %s\n", cap::kernels::vectorInstructionSets().c_str());
    std::printf("row loops: %s; bilinear YUV interior rows: %s\n\n", cap::kernels::rowClonesChosen().c_str(),
                cap::kernels::bilinearYuvRowChosen());
    std::printf("YUV_ONLY, bilinear, one thread; medians of %d alternating runs (ms)\n", runs);
    std::printf("%-10s  %17s   %17s   %15s\n", "", "OpenCV", "host pipeline", "throughput ratio");
    std::printf("%-10s  %8s %8s   %8s %8s   %7s %7s\n", "size", "wall", "cpu", "wall", "cpu", "wall", "cpu");
    for (const ProcessedSize& size : supportedSizes()) compareOneThread(size, runs);
    std::printf("\nYUV_ONLY, bilinear, host pipeline on all %d threads (median wall time)\n", omp_get_num_procs());
    for (const ProcessedSize& size : supportedSizes()) allThreads(size, runs);
    return 0;
}
