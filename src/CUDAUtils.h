// CUDA error reporting: every CUDA runtime call is checked through CUDA_CHECK, which hands the
// result to cuda_throw with the call's own source text, its file relative to the project root
// and its line; a failure becomes a CUDADeviceException naming exactly that call.
#pragma once

#include <ruvo/capture/CaptureDeviceException.h>

#include <cuda_runtime.h>

#include <ostream>

namespace ruvo {
namespace capture {

// Writes "<name>(<number>) <description>" and an end of line (flushing). A null error name
// puts the stream into its failed state, so nothing after it is written.
std::ostream& operator<<(std::ostream& os, cudaError error);

// Does nothing for cudaSuccess; otherwise throws CUDADeviceException with the text
// call + " at " + file + ":" + line + ": " + the stream form of the error.
void cuda_throw(cudaError error, const char* file, int line, const char* call);

// The part of a source path from its last "src/" directory on: "src/CUDACamera.cpp" whether
// the compiler gave an absolute or an already relative path.
constexpr const char* projectRelativePath(const char* path) {
    const char* result = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (p[0] == '/' && p[1] == 's' && p[2] == 'r' && p[3] == 'c' && p[4] == '/') result = p + 1;
    }
    return result;
}

}  // namespace capture
}  // namespace ruvo

// Checks one CUDA runtime call; the call is written inside, exactly as it should appear in
// the error message.
#define CUDA_CHECK(call) \
    ::ruvo::capture::cuda_throw((call), ::ruvo::capture::projectRelativePath(__FILE__), __LINE__, #call)
