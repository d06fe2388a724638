#include "Resident.h"

#include "Expect.h"

#include <sys/mman.h>

#include <algorithm>

Resident::Resident(std::size_t bytes) : length(bytes) {
    if (length != 0) {
        constexpr int protection = PROT_READ | PROT_WRITE;
        memory = mmap(nullptr, length, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        Expect(memory != MAP_FAILED && madvise(memory, length, MADV_NOHUGEPAGE) == 0);
        std::fill_n(static_cast<char*>(memory), length, '\1');
    }
}

Resident::~Resident() {
    if (length != 0) {
        munmap(memory, length);
    }
}
