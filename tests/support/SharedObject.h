#pragma once

#include <sys/mman.h>

#include <cerrno>
#include <new>
#include <system_error>

/// A `T` in memory that this process shares with the children it starts.
template <typename T>
class SharedObject {
public:
    SharedObject() : memory(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (memory == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
        object = new (memory) T();
    }
    ~SharedObject() {
        object->~T();
        munmap(memory, sizeof(T));
    }

    SharedObject(const SharedObject&) = delete;
    SharedObject& operator=(const SharedObject&) = delete;

    T* operator->() const { return object; }
    T& operator*() const { return *object; }

private:
    void* memory;
    T* object;
};
