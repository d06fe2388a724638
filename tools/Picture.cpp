#include "Machine.h"
#include "Report.h"

#include <algorithm>
#include <cmath>
#include <iomanip>

namespace {

constexpr double width = 960;
constexpr double height = 540;
// The axes' ends.
constexpr double left = 80;
constexpr double right = width - 30;
constexpr double top = 178;
constexpr double bottom = height - 62;

const char style[] = R"(<style>
    text { fill: #1f2733; font: 13px sans-serif }
    .title { font: bold 18px sans-serif } .small { font-size: 12px; fill: #566171 } .value { font-weight: bold }
    .ground { fill: #ffffff } .bar { fill: #0b62c4 } .axis { stroke: #1f2733 } .grid { stroke: #dfe3e9 }
    .mark { stroke: #c2410c; stroke-width: 1.3; fill: none }
    @media (prefers-color-scheme: dark) {
        text { fill: #dce3ec } .small { fill: #9aa7b8 }
        .ground { fill: #14181f } .bar { fill: #58a6ff } .axis { stroke: #dce3ec } .grid { stroke: #2b323d }
        .mark { stroke: #ffa657 }
    }
</style>
)";

std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char character : text) {
        if (character == '&') {
            escaped += "&amp;";
        } else if (character == '<') {
            escaped += "&lt;";
        } else {
            escaped += character;
        }
    }
    return escaped;
}

/// A logarithmic axis from one point of the picture to another.
struct Axis {
    double from;
    double to;
    double start;
    double end;

    double At(double value) const {
        const double part = std::log(std::clamp(value, from, to) / from) / std::log(to / from);
        return start + part * (end - start);
    }
};

class Drawing {
public:
    explicit Drawing(std::ostream& stream) : out(stream) {
        out << std::fixed << std::setprecision(1) << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << width
            << ' ' << height << "\" width=\"" << width << "\" height=\"" << height << "\">\n"
            << style;
        Rectangle("ground", 0, 0, width, height);
    }
    ~Drawing() { out << "</svg>\n"; }

    Drawing(const Drawing&) = delete;
    Drawing& operator=(const Drawing&) = delete;

    void Text(const char* kind, double x, double y, const char* anchor, const std::string& text) {
        out << "<text class=\"" << kind << "\" x=\"" << x << "\" y=\"" << y << "\" text-anchor=\"" << anchor << "\">"
            << Escaped(text) << "</text>\n";
    }

    void Line(const char* kind, double x1, double y1, double x2, double y2) {
        out << "<path class=\"" << kind << "\" d=\"M" << x1 << ' ' << y1 << 'L' << x2 << ' ' << y2 << "\"/>\n";
    }

    void Rectangle(const char* kind, double x, double y, double w, double h) {
        out << "<rect class=\"" << kind << "\" x=\"" << x << "\" y=\"" << y << "\" width=\"" << w << "\" height=\"" << h
            << "\"/>\n";
    }

private:
    std::ostream& out;
};

/// The values that an axis has numbers at.
std::vector<double> Ticks() {
    std::vector<double> ticks;
    for (int decade = -1; decade < 10; ++decade) {
        for (const double part : {1.0, 2.0, 5.0}) {
            ticks.push_back(part * std::pow(10.0, decade));
        }
    }
    return ticks;
}

/// An axis of these values that begins and ends with a tick.
Axis LatenessAxis(double from, double to) {
    const std::vector<double> ticks = Ticks();
    // 0.1 % for what rounding does to the ends.
    const auto first = std::upper_bound(ticks.begin() + 1, ticks.end() - 1, from * 1.001) - 1;
    const auto last = std::lower_bound(first + 1, ticks.end() - 1, to * 0.999);
    return {*first, *last, left, right};
}

void DrawLateness(Drawing& drawing, const Axis& axis) {
    double free = 0;
    for (const double value : Ticks()) {
        if (value < axis.from || value > axis.to) {
            continue;
        }
        const double x = axis.At(value);
        drawing.Line("grid", x, top, x, bottom);
        const std::string text = Plain(value);
        const double half = 4.0 * static_cast<double>(text.size());
        if (x - half >= free) {
            drawing.Text("tick", x, bottom + 20, "middle", text);
            free = x + half + 6;
        }
    }
    drawing.Text("label", (left + right) / 2, bottom + 44, "middle", "lateness in us (logarithmic)");
}

void DrawCounts(Drawing& drawing, const Axis& axis) {
    for (std::size_t power = 1; static_cast<double>(power) <= axis.to; power *= 10) {
        const auto value = static_cast<double>(power);
        drawing.Line("grid", left, axis.At(value), right, axis.At(value));
        drawing.Text("tick", left - 10, axis.At(value) + 4, "end", Plain(value));
    }
    drawing.Text("label", left - 10, top - 14, "end", "calls");
}

// The names stand side by side in the order of their values, so that neither they nor what leads to them cross.
void DrawQuantiles(Drawing& drawing, const Axis& axis, const std::vector<Quantile>& quantiles) {
    const double step = (right - left) / static_cast<double>(quantiles.size());
    double x = left + step / 2;
    for (const Quantile& quantile : quantiles) {
        const double place = axis.At(quantile.lateness);
        drawing.Text("label", x, 112, "middle", quantile.name);
        drawing.Text("value", x, 130, "middle", Tenths(quantile.lateness) + " us");
        drawing.Line("mark", x, 136, place, top - 8);
        drawing.Line("mark", place, top - 8, place, bottom);
        x += step;
    }
}

}  // namespace

void WritePicture(std::ostream& out, const Settings& settings, const Setup& setup, const Statistics& statistics) {
    std::vector<double> parts(20);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        parts[i] = std::pow(10.0, static_cast<double>(i) / static_cast<double>(parts.size()));
    }
    const std::vector<Bin> bins = statistics.Histogram(parts);
    const auto fullest =
        std::max_element(bins.begin(), bins.end(), [](const Bin& a, const Bin& b) { return a.calls < b.calls; });
    const Axis lateness = LatenessAxis(bins.front().from, bins.back().to);
    // Half a call is nothing, so that one call shows.
    const Axis counts{0.5, std::max(10.0, 1.3 * static_cast<double>(fullest->calls)), bottom, top};

    Drawing drawing(out);
    drawing.Text("title", 24, 34, "start", "Lateness of a timer: " + Describe(settings));
    drawing.Text("small", 24, 56, "start", MachineName() + ", " + KernelText());
    drawing.Text("small", 24, 75, "start", CountsIn(statistics));
    drawing.Text("small", 24, 94, "start", Describe(setup));
    DrawLateness(drawing, lateness);
    DrawCounts(drawing, counts);
    for (const Bin& bin : bins) {
        const double x = lateness.At(bin.from);
        const double y = counts.At(static_cast<double>(bin.calls));
        drawing.Rectangle("bar", x + 0.5, y, lateness.At(bin.to) - x - 1, bottom - y);
    }
    drawing.Line("axis", left, bottom, right, bottom);
    DrawQuantiles(drawing, lateness, statistics.Quantiles());
}
