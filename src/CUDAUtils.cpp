// CUDA error reporting: the stream form of a cudaError and cuda_throw.
#include "CUDAUtils.h"

#include <sstream>

namespace ruvo {
namespace capture {

std::ostream& operator<<(std::ostream& os, cudaError error) {
    const char* name = cudaGetErrorName(error);
    if (name == nullptr) {
        os.setstate(std::ios_base::badbit);  // as inserting a null text would: nothing more is written
        return os;
    }
    os << name << "(" << static_cast<int>(error) << ") " << cudaGetErrorString(error) << std::endl;
    return os;
}

void cuda_throw(cudaError error, const char* file, int line, const char* call) {
    if (error == cudaSuccess) return;
    std::ostringstream text;
    text << call << " at " << file << ":" << line << ": " << error;
    throw CUDADeviceException(text.str());
}

}  // namespace capture
}  // namespace ruvo
