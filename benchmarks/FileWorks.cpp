#include "FileWorks.h"

#include <unistd.h>

#include <fstream>

TemporaryFile::TemporaryFile() : path(UniqueName("/dev/shm/kel-bench-file-")) {
    std::ofstream(path).write(std::string(recordSize * inFile, 'x').data(), recordSize * inFile);
}

TemporaryFile::~TemporaryFile() { Expect(unlink(path.c_str()) == 0); }
