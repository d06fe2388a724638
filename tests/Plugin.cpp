#include <pthread.h>

#include <array>

// Zero, so that the file does not hold it.
std::array<char, 1 << 20> pluginData;

#if defined(BROKEN)
// Nowhere to be found.
int Missing();
#else
static int Missing() { return 42; }
#endif

// Loading and unloading are cancellation points of its own.
[[gnu::constructor, gnu::destructor]] static void TestCancellation() { pthread_testcancel(); }

extern "C" int PluginAnswer() { return Missing() + pluginData[0]; }
