// Half-open range of thread indices along one axis: how a kernel tells the host thread grid which
// of its threads are interior (no border handling) so that those run in the vectorised loop.
#pragma once

namespace ruvo {
namespace capture {
namespace kernels {

struct IndexRange {
    unsigned begin;
    unsigned end;
};

}  // namespace kernels
}  // namespace capture
}  // namespace ruvo
