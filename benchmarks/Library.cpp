// The library that is loaded and unloaded.
extern "C" [[gnu::visibility("default")]] int Answer() { return 42; }
