// The library that the tour loads.

#include <array>

std::array<char, 1 << 20> samples{};

extern "C" int TourAverage(int first, int second) { return (first + second) / 2 + samples[0]; }
