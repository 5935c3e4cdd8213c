// QVMem: the root of the library's classes. All of the library's memory goes
// through one replaceable pair of functions, so that inside a host it comes
// from the host's memory suite, and a failed allocation becomes the exception
// PLErrOutOfMemory instead of std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/plerr.h"

using QVMallocFunc = void* (*)(void* userData, unsigned long size);
using QVFreeFunc = void (*)(void* userData, void* block);

// Process-wide; change only while no other thread of the library runs.
void setMemoryHooks(void* userData, QVMallocFunc mallocFunc, QVFreeFunc freeFunc);

void* QVMemMalloc(size_t size);  // may give null
void QVMemFree(void* block);     // null is a no-op
void* QVMemNew(size_t size);     // throws PLErrOutOfMemory instead of giving null
void* QVMemRealloc(void* block, size_t newSize, size_t oldSize);

class QVMem {
  public:
    static void* operator new(size_t size) { return QVMemNew(size); }
    static void* operator new[](size_t size) { return QVMemNew(size); }
    static void operator delete(void* block) noexcept { QVMemFree(block); }
    static void operator delete[](void* block) noexcept { QVMemFree(block); }
};

// Owns a block of `count` elements from QVMemNew and frees it on every way out
// of its scope: the holder of the library's own scratch memory.
template <typename T>
class QVMemBlock {
  public:
    explicit QVMemBlock(size_t count) : block_(static_cast<T*>(QVMemNew(Bytes(count)))) {}
    ~QVMemBlock() { QVMemFree(block_); }
    QVMemBlock(const QVMemBlock&) = delete;
    QVMemBlock& operator=(const QVMemBlock&) = delete;
    T* get() const { return block_; }

  private:
    // A count whose size cannot be stated is more than can be had.
    static size_t Bytes(size_t count) {
        if (count > SIZE_MAX / sizeof(T)) throw PLErrOutOfMemory;
        return count * sizeof(T);
    }
    T* block_;
};
