// Timing helpers of the login benchmark.

#include "bench/login/Timing.h"

#include <algorithm>

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double percentile(std::vector<double> values, double share) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    size_t at = static_cast<size_t>(share * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(at, values.size() - 1)];
}
