#include "Statistics.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double leastUs = 0.1;

}  // namespace

Statistics::Statistics(const std::vector<double>& lateness, std::size_t neverMade, double periodUs)
    : sorted(lateness), missing(neverMade), period(periodUs) {
    std::sort(sorted.begin(), sorted.end());
}

std::size_t Statistics::Missed() const {
    return missing + static_cast<std::size_t>(sorted.end() - std::lower_bound(sorted.begin(), sorted.end(), period));
}

std::vector<Quantile> Statistics::Quantiles() const {
    // The value whose rank is the share of all, rounded up.
    const auto at = [this](double share) {
        const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
        return sorted[std::max(rank, std::size_t{1}) - 1];
    };
    return {{"min", sorted.front()}, {"median", at(0.5)},  {"p90", at(0.9)},
            {"p99", at(0.99)},       {"p99.9", at(0.999)}, {"max", sorted.back()}};
}

std::vector<Bin> Statistics::Histogram(const std::vector<double>& partsOfDecade) const {
    std::vector<Bin> bins;
    const auto firstAfter = [this](double limit) { return std::lower_bound(sorted.begin(), sorted.end(), limit); };
    double from = 0;
    auto first = sorted.begin();
    for (int decade = -1; first != sorted.end(); ++decade) {
        for (const double part : partsOfDecade) {
            const double to = part * std::pow(10.0, decade);
            const auto last = firstAfter(to);
            if (from >= leastUs && (last != sorted.begin() || !bins.empty()) && first != sorted.end()) {
                bins.push_back({from, to, static_cast<std::size_t>(last - first)});
                first = last;
            }
            from = to;
        }
    }
    return bins;
}
