#pragma once

#include "Recording.h"
#include "Statistics.h"

#include <ostream>
#include <string>
#include <vector>

/// A number with one digit behind the point.
std::string Tenths(double number);

/// The same, without that digit from 1 on.
std::string Plain(double number);

/// The settings in words, such as "period 1000 us, priority 80, processor 1".
std::string Describe(const Settings& settings);

/// How many calls there were, and missed periods.
std::string CountsIn(const Statistics& statistics);

/// How the program was set up, such as "memory locked, latency target set".
std::string Describe(const Setup& setup);

void WriteText(std::ostream& out, const Settings& settings, const Setup& setup, const Statistics& statistics);
void WriteJson(std::ostream& out, const Settings& settings, const Setup& setup, const Statistics& statistics);
/// A line for each call, in their order.
void WriteCsv(std::ostream& out, const std::vector<double>& lateness);
/// SVG, for light and dark grounds.
void WritePicture(std::ostream& out, const Settings& settings, const Setup& setup, const Statistics& statistics);
