// Failed CUDA calls: the message that CUDA_CHECK and cuda_throw build (call text, location
// relative to the project root, error name, number and description, final newline), the
// exception types that carry it, and the stream form of a cudaError.
#include "CUDAUtils.h"

#ifndef RUVO_CUDA_BUILD
#include "host/runtime/HostRuntimeControl.h"
#endif

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace {

using ruvo::capture::CaptureDeviceException;
using ruvo::capture::CUDADeviceException;
using ruvo::capture::projectRelativePath;

// Clients catch a failed CUDA call as any capture failure.
static_assert(std::is_base_of_v<CaptureDeviceException, CUDADeviceException>);
static_assert(std::is_base_of_v<std::runtime_error, CaptureDeviceException>);

// This file as CUDA_CHECK reports it.
constexpr const char* kThisFile = "tests/test_cuda_errors.cpp";

// The what() of the CUDADeviceException that `body` throws; fails the test when it throws nothing.
std::string messageOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const CUDADeviceException& e) {
        return e.what();
    }
    ADD_FAILURE() << "no CUDADeviceException was thrown";
    return {};
}

std::string location(int line) { return std::string(" at ") + kThisFile + ":" + std::to_string(line) + ": "; }

// Counts flushes, so that "ends with an end of line" can be told apart from a bare '\n'.
class FlushCountingBuffer : public std::stringbuf {
public:
    int flushes = 0;

protected:
    int sync() override {
        ++flushes;
        return std::stringbuf::sync();
    }
};

TEST(ProjectRelativePath, KeepsThePathFromTheLastSrcDirectory) {
    EXPECT_STREQ(projectRelativePath("/home/src/p/src/host/a.cpp"), "src/host/a.cpp");
    EXPECT_STREQ(projectRelativePath("src/CUDADevice.cpp"), "src/CUDADevice.cpp");
    static_assert(projectRelativePath("/a/src/b.cu")[0] == 's', "usable at compile time");
}

#ifndef RUVO_CUDA_BUILD

class HostCudaErrors : public ::testing::Test {
protected:
    void TearDown() override { ruvo::hostrt::resetFaults(); }
};

// A code the host runtime has no name for (within the enum's range, outside CUDA's table) ends
// the message after the location.
TEST_F(HostCudaErrors, FailingCallNamesCallFileLineAndError) {
    const std::pair<cudaError, std::string> cases[] = {
        {cudaErrorInvalidDevice, "cudaErrorInvalidDevice(101) invalid device ordinal\n"},
        {static_cast<cudaError>(1000), ""}};
    for (const auto& [error, text] : cases) {
        ruvo::hostrt::failCall("cudaSetDevice", error);
        int devID = 0;
        const auto [line, message] = std::make_pair(__LINE__, messageOf([&] { CUDA_CHECK(cudaSetDevice(devID)); }));
        EXPECT_EQ(message, "cudaSetDevice(devID)" + location(line) + text);
    }
}

TEST_F(HostCudaErrors, StreamFormIsNameNumberDescriptionAndFlushedEndOfLine) {
    FlushCountingBuffer buffer;
    std::ostream os(&buffer);
    ruvo::capture::operator<<(os, cudaErrorNoDevice);
    EXPECT_EQ(buffer.str(), "cudaErrorNoDevice(100) no CUDA-capable device is detected\n");
    EXPECT_GE(buffer.flushes, 1);
    EXPECT_TRUE(os.good());

    FlushCountingBuffer unnamed;
    std::ostream bad(&unnamed);
    ruvo::capture::operator<<(bad, static_cast<cudaError>(1000)) << "ignored";
    EXPECT_EQ(unnamed.str(), "");
    EXPECT_TRUE(bad.fail());
}

#else  // RUVO_CUDA_BUILD

// The real runtime: a device number one past the last device fails on every machine, with
// cudaErrorInvalidDevice where there are devices and a driver or no-device error where there are none.
TEST(RealCudaErrors, FailingCallNamesCallFileLineAndError) {
    int devID = 0;
    if (cudaGetDeviceCount(&devID) != cudaSuccess) devID = 0;
    const cudaError_t expected = cudaSetDevice(devID);
    if (expected == cudaSuccess) GTEST_SKIP() << "cudaSetDevice(" << devID << ") succeeded: no failing call to report";
    const char* name = cudaGetErrorName(expected);
    ASSERT_NE(name, nullptr);
    const auto [line, message] = std::make_pair(__LINE__, messageOf([&] { CUDA_CHECK(cudaSetDevice(devID)); }));
    EXPECT_EQ(message, "cudaSetDevice(devID)" + location(line) + name + "(" +
                           std::to_string(static_cast<int>(expected)) + ") " + cudaGetErrorString(expected) + "\n");
}

#endif  // RUVO_CUDA_BUILD

}  // namespace
