// Element access and row jobs shared by the vector-field kernels. Loads and
// stores go through memcpy so that a host buffer with odd row bytes is still
// read without misaligned access; the compiler turns them into plain moves.
#pragma once

#include <cstdint>
#include <cstring>

#include "kqmp.h"
#include "plelement.h"
#include "plimage.h"

inline bool PLIsPathType(int32_t pixelType) {
    return pixelType == PLPixelUChar || pixelType == PLPixelUShort || pixelType == PLPixelFloat;
}

// Runs a row job over `rows` rows with the thread count the layer picks for them.
// An image without rows is not dispatched: the pool would run the previous
// job's share for a thread count of 0.
template <typename... Args>
void PLRunRows(int32_t rows, kqmp_worker* worker, Args... args) {
    if (rows < 1) return;
    kqmp_dispatch(kqmp_threadsfor(rows), rows, worker, args...);
}
