// Order statistics for the run summary.
#pragma once

#include <vector>

namespace ruvo {
namespace tool {

// The nearest-rank percentile p (0..100) of `values`: the smallest value with at least p % of the
// values at or below it. 0 for an empty list.
double percentile(std::vector<double> values, double p);

}  // namespace tool
}  // namespace ruvo
