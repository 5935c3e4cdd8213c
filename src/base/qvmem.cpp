#include "base/qvmem.h"

#include <cstdlib>
#include <cstring>

namespace {
void* gUserData = nullptr;
QVMallocFunc gMalloc = nullptr;
QVFreeFunc gFree = nullptr;
}  // namespace

void setMemoryHooks(void* userData, QVMallocFunc mallocFunc, QVFreeFunc freeFunc) {
    gUserData = userData;
    gMalloc = mallocFunc;
    gFree = freeFunc;
}

void* QVMemMalloc(size_t size) {
    if (gMalloc) return gMalloc(gUserData, size);
    return std::malloc(size);
}

void QVMemFree(void* block) {
    if (!block) return;
    if (gFree)
        gFree(gUserData, block);
    else
        std::free(block);
}

void* QVMemNew(size_t size) {
    void* block = QVMemMalloc(size);
    if (!block) throw PLErrOutOfMemory;
    return block;
}

void* QVMemRealloc(void* block, size_t newSize, size_t oldSize) {
    if (!block) return QVMemNew(newSize);
    void* grown = QVMemNew(newSize);  // on failure the old block stays as it was
    std::memcpy(grown, block, newSize < oldSize ? newSize : oldSize);
    QVMemFree(block);
    return grown;
}
