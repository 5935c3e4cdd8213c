// Element access shared by every kernel family. Host rows carry no alignment
// promise, so elements move through memcpy, which compiles to a plain load or
// store. PLPixelTraits gives the three element types of the plug-in's path the
// usual kernel store: rounded by adding 0.5 and truncated for the integer
// types (no clamp: out of range wraps), 0.0 added for float.
#pragma once

#include <cstdint>
#include <cstring>
#include <tuple>

#include "plconvert.h"
#include "plimage.h"

template <typename T>
inline T PLLoadElement(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
inline void PLStoreElement(void* p, T v) {
    std::memcpy(p, &v, sizeof v);
}

template <typename T>
struct PLPixelTraits;

template <>
struct PLPixelTraits<uint8_t> {
    static constexpr int32_t type = PLPixelUChar;
    static float Load(const uint8_t* p) { return static_cast<float>(p[0]); }
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

// The element types in the order of their pixel type codes 0, 1, 2.
using PLPathElements = std::tuple<uint8_t, uint16_t, float>;

template <int32_t PixelType>
using PLElementOf = std::tuple_element_t<PixelType, PLPathElements>;
