// CUDACamera's per-frame auto exposure and auto white balance.
#include "CUDACamera.h"

namespace ruvo {
namespace capture {

void CUDACamera::evaluate_3A(const Bucket& bucket) { (void)bucket; }

}  // namespace capture
}  // namespace ruvo
