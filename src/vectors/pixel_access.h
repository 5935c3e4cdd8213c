// Element access and row jobs shared by the vector-field kernels. Loads and
// stores go through memcpy so that a host buffer with odd row bytes is still
// read without misaligned access; the compiler turns them into plain moves.
#pragma once

#include <cstdint>
#include <cstring>
#include <tuple>

#include "kqmp.h"
#include "plconvert.h"
#include "plimage.h"

template <typename T>
inline T PLLoadElement(const uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
inline void PLStoreElement(uint8_t* p, T v) {
    std::memcpy(p, &v, sizeof v);
}

// The three element types of the plug-in's path, keyed by C++ type.
template <typename T>
struct PLPixelTraits;

template <>
struct PLPixelTraits<uint8_t> {
    static constexpr int32_t type = PLPixelUChar;
    static float Load(const uint8_t* p) { return static_cast<float>(p[0]); }
    // Rounded by adding 0.5 and truncating; out of range wraps, no clamp.
    static void Store(uint8_t* p, float v) { p[0] = static_cast<uint8_t>(PLTruncI32(v + 0.5f)); }
};

template <>
struct PLPixelTraits<uint16_t> {
    static constexpr int32_t type = PLPixelUShort;
    static float Load(const uint8_t* p) { return static_cast<float>(PLLoadElement<uint16_t>(p)); }
    static void Store(uint8_t* p, float v) {
        PLStoreElement<uint16_t>(p, static_cast<uint16_t>(PLTruncI32(v + 0.5f)));
    }
};

template <>
struct PLPixelTraits<float> {
    static constexpr int32_t type = PLPixelFloat;
    static float Load(const uint8_t* p) { return PLLoadElement<float>(p); }
    // Adding 0.0 turns a negative zero into a positive one, as the integer paths would.
    static void Store(uint8_t* p, float v) { PLStoreElement<float>(p, v + 0.0f); }
};

// The element types in the order of their pixel type codes 0, 1, 2, for
// building tables of kernel members indexed by pixel type.
using PLPathElements = std::tuple<uint8_t, uint16_t, float>;

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
