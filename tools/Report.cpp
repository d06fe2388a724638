#include "Report.h"

#include "Machine.h"

#include <cmath>
#include <iomanip>
#include <sstream>

namespace {

std::string Bar(std::size_t calls) {
    const double charactersPerDecade = 8;
    const double length = calls == 0 ? 0 : 1 + charactersPerDecade * std::log10(static_cast<double>(calls));
    return std::string(static_cast<std::size_t>(length), '#');
}

}  // namespace

std::string Tenths(double number) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << number;
    return text.str();
}

std::string Plain(double number) {
    const std::string text = Tenths(number);
    return number >= 1 ? text.substr(0, text.size() - 2) : text;
}

std::string Describe(const Settings& settings) {
    std::ostringstream text;
    text << "period " << settings.periodUs << " us, ";
    if (settings.priority == 0) {
        text << "normal scheduling";
    } else {
        text << "priority " << settings.priority;
    }
    if (settings.processors != 0) {
        text << ", processor " << std::log2(settings.processors);
    }
    return text.str();
}

std::string Describe(const Setup& setup) {
    const auto unless = [](const std::string& reason) { return reason.empty() ? "" : "not "; };
    const auto because = [](const std::string& reason) { return reason.empty() ? "" : " (" + reason + ')'; };
    return std::string("memory ") + unless(setup.whyNotLocked) + "locked" + because(setup.whyNotLocked) +
           ", latency target " + unless(setup.whyNoTarget) + "set" + because(setup.whyNoTarget);
}

std::string CountsIn(const Statistics& statistics) {
    return std::to_string(statistics.Calls()) + " calls, missed periods: " + std::to_string(statistics.Missed());
}

void WriteText(std::ostream& out, const Settings& settings, const Setup& setup, const Statistics& statistics) {
    out << MachineName() << ", " << KernelText() << '\n'
        << Describe(settings) << ": " << CountsIn(statistics) << '\n'
        << Describe(setup) << "\n\nLateness in us\n";
    for (const Quantile& quantile : statistics.Quantiles()) {
        out << std::setw(10) << quantile.name << std::setw(10) << Tenths(quantile.lateness) << '\n';
    }
    out << "\n  less than     calls  (logarithmic)\n";
    for (const Bin& bin : statistics.Histogram({1, 2, 5})) {
        out << std::setw(8) << Plain(bin.to) << " us" << std::setw(10) << bin.calls << "  " << Bar(bin.calls) << '\n';
    }
}

void WriteJson(std::ostream& out, const Settings& settings, const Setup& setup, const Statistics& statistics) {
    out << "{\"machine\": " << Quoted(MachineName()) << ", \"kernel\": " << Quoted(KernelText())
        << ",\n \"period_us\": " << settings.periodUs << ", \"priority\": " << settings.priority
        << ", \"processor_mask\": " << settings.processors << std::boolalpha
        << ", \"memory_locked\": " << setup.whyNotLocked.empty()
        << ", \"latency_target\": " << setup.whyNoTarget.empty() << ",\n \"calls\": " << statistics.Calls()
        << ", \"missed_periods\": " << statistics.Missed() << ",\n \"lateness_us\": {";
    const char* separator = "";
    for (const Quantile& quantile : statistics.Quantiles()) {
        out << separator << Quoted(quantile.name) << ": " << Tenths(quantile.lateness);
        separator = ", ";
    }
    out << "},\n \"histogram\": [";
    separator = "\n";
    for (const Bin& bin : statistics.Histogram({1, 2, 5})) {
        out << separator << "  {\"from_us\": " << Plain(bin.from) << ", \"to_us\": " << Plain(bin.to)
            << ", \"calls\": " << bin.calls << '}';
        separator = ",\n";
    }
    out << "\n]}\n";
}

void WriteCsv(std::ostream& out, const std::vector<double>& lateness) {
    out << "period,lateness_us\n" << std::fixed << std::setprecision(3);
    for (std::size_t i = 0; i < lateness.size(); ++i) {
        out << i + 1 << ',' << lateness[i] << '\n';
    }
}
