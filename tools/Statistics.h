#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// The calls that came at least `from` and less than `to` microseconds late.
struct Bin {
    double from;
    double to;
    std::size_t calls;
};

/// A value that this share of the calls does not exceed.
struct Quantile {
    std::string name;
    double lateness;
};

/// How late the calls of a timer came, in microseconds.
class Statistics {
public:
    /// At least one call; `neverMade` is how many more there should have been.
    Statistics(const std::vector<double>& lateness, std::size_t neverMade, double periodUs);

    std::size_t Calls() const { return sorted.size(); }

    /// The calls that came a whole period late or more, in a period that was not theirs, or not at all.
    std::size_t Missed() const;

    /// Minimum, median, further percentiles and maximum.
    std::vector<Quantile> Quantiles() const;

    /// The range of the calls, cut at these parts of each decade, such as 1, 2 and 5. The first bin has what is below
    /// a tenth of a microsecond, too.
    std::vector<Bin> Histogram(const std::vector<double>& partsOfDecade) const;

private:
    std::vector<double> sorted;
    std::size_t missing;
    double period;
};
