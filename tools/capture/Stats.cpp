// Nearest-rank percentiles.
#include "Stats.h"

#include <algorithm>
#include <cmath>

namespace ruvo {
namespace tool {

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0.0;
    const double clamped = std::min(100.0, std::max(0.0, p));
    size_t rank = static_cast<size_t>(std::ceil(clamped / 100.0 * static_cast<double>(values.size())));
    rank = std::max<size_t>(1, std::min(rank, values.size()));
    std::nth_element(values.begin(), values.begin() + static_cast<long>(rank - 1), values.end());
    return values[rank - 1];
}

}  // namespace tool
}  // namespace ruvo
