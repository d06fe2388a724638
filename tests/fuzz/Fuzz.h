#pragma once

// What the fuzz targets share. Each is a program that tries one part of the library with whatever input it is given
// and ends the process when a property does not hold that the library has for all input.

#include "../support/Thrown.h"

#include <Kel/Core/AppDomain.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

/// Tries one input. Called by the fuzzer's main function, or by that of Replay.cpp.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Takes an input apart, from the front. Behind its end there are zeros.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : next(data), left(size) {}

    bool IsEmpty() const { return left == 0; }

    template <typename T>
    T Number() {
        T number{};
        const std::string bytes = Bytes(sizeof number);
        std::memcpy(&number, bytes.data(), bytes.size());
        return number;
    }

    /// A number from -128 to 127.
    int Small() {
        const int byte = Number<std::uint8_t>();
        return byte < 128 ? byte : byte - 256;
    }

    /// A byte tells how many bytes of text there are.
    std::string Text() { return Bytes(Number<std::uint8_t>()); }

    std::string Rest() { return Bytes(left); }

private:
    std::string Bytes(std::size_t count) {
        const std::size_t taken = std::min(count, left);
        std::string bytes(reinterpret_cast<const char*>(next), taken);
        next += taken;
        left -= taken;
        return bytes;
    }

    const std::uint8_t* next;
    std::size_t left;
};

/// Returns what there is of a text for those who take it to end at a null.
inline std::string UpToNull(const std::string& text) { return text.substr(0, text.find('\0')); }

inline void Require(bool holds, const char* property) {
    if (!holds) {
        static_cast<void>(std::fprintf(stderr, "This does not hold: %s\n", property));
        std::abort();
    }
}

/// Returns the factory, which is there for the rest of the process.
inline Kel::System::Ve::Internal::ServiceFactory& Factory() {
    using Kel::System::Ve::Internal::ServiceFactory;
    static ServiceFactory* const factory = [] {
        static Kel::AppDomain appDomain;
        Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
        ServiceFactory::CreateServiceFactory();
        return ServiceFactory::GetInstance();
    }();
    return *factory;
}
