#pragma once

#include "Benchmark.h"
#include "Expect.h"

#include <Kel/Core/BasicString.h>

#include <ios>
#include <string>

// Files of 64 KiB in memory, of which 64 bytes at a time are read or written.

constexpr unsigned int recordSize = 64;
constexpr unsigned int inFile = 1024;
constexpr unsigned int sharedSize = 4096;

/// The path of a file that exists for as long as this object.
struct TemporaryFile {
    TemporaryFile();
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    Kel::BasicString path;
};

/// A stream with the interface of the standard library's.
template <typename Stream>
struct StreamFile : TemporaryFile {
    StreamFile() : stream(path, std::ios::in | std::ios::out | std::ios::binary) { Expect(stream.good()); }

    bool Read(char* buffer) { return stream.read(buffer, recordSize).good(); }
    bool Write(const char* bytes) { return stream.write(bytes, recordSize).good(); }
    bool Flush() { return stream.flush().good(); }
    bool GoBack() { return stream.seekp(0).good(); }

    Stream stream;
};

/// `work(file)` as often as there is room in the file, and then from its beginning again.
template <typename File, typename Work>
void RegisterInFile(const std::string& name, Work work) {
    RegisterRun(name, [work](benchmark::State& state) {
        File file;
        unsigned int done = 0;
        for (auto _ : state) {
            work(file);
            if (++done % inFile == 0) {
                Expect(file.GoBack());
            }
        }
    });
}

template <typename File>
void RegisterFileWorks(const std::string& way) {
    RegisterInFile<File>("file/read 64 bytes/" + way, [](auto& file) {
        char buffer[recordSize];
        Expect(file.Read(buffer));
    });
    RegisterInFile<File>("file/write 64 bytes/" + way, [](auto& file) {
        const char bytes[recordSize] = {};
        Expect(file.Write(bytes));
    });
    RegisterInFile<File>("file/write and flush 64 bytes/" + way, [](auto& file) {
        const char bytes[recordSize] = {};
        Expect(file.Write(bytes) && file.Flush());
    });
}
