#pragma once

#include <sys/mman.h>

#include <new>

/// A `T` in memory that this process shares with the children it starts.
template <typename T>
class SharedObject {
public:
    SharedObject() = default;
    ~SharedObject() {
        object->~T();
        munmap(object, sizeof(T));
    }

    SharedObject(const SharedObject&) = delete;
    SharedObject& operator=(const SharedObject&) = delete;

    T* operator->() const { return object; }
    T& operator*() const { return *object; }

private:
    T* const object = new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T();
};
