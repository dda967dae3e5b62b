// Whether the CUDA runtime of this build has a device: always in the host build; in the CUDA
// build only on a machine with a GPU. Tests that need a device skip with the reason otherwise.
#pragma once

#include <cuda_runtime.h>

#include <string>

namespace ruvo {
namespace test {

inline bool cudaDeviceAvailable(std::string* reason = nullptr) {
    int count = 0;
    const cudaError_t error = cudaGetDeviceCount(&count);
    if (error != cudaSuccess || count == 0) {
        if (reason) *reason = std::string("no CUDA device: ") + cudaGetErrorString(error);
        (void)cudaGetLastError();
        return false;
    }
    return true;
}

}  // namespace test
}  // namespace ruvo

#define RUVO_REQUIRE_CUDA_DEVICE()                                               \
    do {                                                                         \
        std::string reason_;                                                     \
        if (!ruvo::test::cudaDeviceAvailable(&reason_)) GTEST_SKIP() << reason_; \
    } while (0)
