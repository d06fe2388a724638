#include <array>

// Zero, so that the file does not hold it.
std::array<char, 1 << 20> pluginData;

#if defined(BROKEN)
// Nowhere to be found.
int Missing();
#else
static int Missing() { return 42; }
#endif

// What the program does while the library is loaded, and unloaded; a program without it does nothing.
extern "C" [[gnu::weak]] void WhileLibraryIsLoaded();

[[gnu::constructor, gnu::destructor]] static void Tell() {
    if (WhileLibraryIsLoaded != nullptr) {
        WhileLibraryIsLoaded();
    }
}

extern "C" int PluginAnswer() { return Missing() + pluginData[0]; }
