// The three element types of the blur's images and the one place where a
// run-time pixel type and channel count become compile-time ones. Kernels are
// written once as templates over (element, channel count); per-type code lives
// only in PLElement, at the load and store edge.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "plelement.h"
#include "plimage.h"

namespace plblur {

template <typename T>
struct PLElement;

template <>
struct PLElement<uint8_t> {
    static constexpr float kWhite = 255.0f;
};

template <>
struct PLElement<uint16_t> {
    static constexpr float kWhite = 65535.0f;
};

template <>
struct PLElement<float> {
    static constexpr float kWhite = 1.0f;
};

template <typename T>
inline float PLLoadAsFloat(const uint8_t* at) {
    return static_cast<float>(PLLoadElement<T>(at));
}

// An integer element from a float that may be NaN or out of range: truncated
// through the defined helper, low bits kept.
template <typename T>
inline T PLTruncToElement(float v) {
    return static_cast<T>(PLTruncI32(v));
}

template <typename T, int C>
struct PLFormat {
    using Element = T;
    static constexpr int kChannels = C;
};

// Calls fn(PLFormat<T, 0>{}) by pixel type alone, for code whose channel layout
// is fixed. Returns false, without calling, for a type other than the three.
template <typename Fn>
bool PLVisitElement(int32_t pixelType, Fn&& fn) {
    switch (pixelType) {
        case PLPixelUChar:
            fn(PLFormat<uint8_t, 0>{});
            return true;
        case PLPixelUShort:
            fn(PLFormat<uint16_t, 0>{});
            return true;
        case PLPixelFloat:
            fn(PLFormat<float, 0>{});
            return true;
        default:
            return false;
    }
}

// Calls fn(PLFormat<T, C>{}) for pixel types uchar, ushort and float with one
// to four channels. Returns false, without calling, for anything else.
template <typename Fn>
bool PLVisitFormat(int32_t numChannels, int32_t pixelType, Fn&& fn) {
    if (numChannels < 1 || numChannels > 4 || pixelType < PLPixelUChar || pixelType > PLPixelFloat)
        return false;
    switch ((numChannels - 1) * 3 + pixelType) {
        case 0:
            fn(PLFormat<uint8_t, 1>{});
            break;
        case 1:
            fn(PLFormat<uint16_t, 1>{});
            break;
        case 2:
            fn(PLFormat<float, 1>{});
            break;
        case 3:
            fn(PLFormat<uint8_t, 2>{});
            break;
        case 4:
            fn(PLFormat<uint16_t, 2>{});
            break;
        case 5:
            fn(PLFormat<float, 2>{});
            break;
        case 6:
            fn(PLFormat<uint8_t, 3>{});
            break;
        case 7:
            fn(PLFormat<uint16_t, 3>{});
            break;
        case 8:
            fn(PLFormat<float, 3>{});
            break;
        case 9:
            fn(PLFormat<uint8_t, 4>{});
            break;
        case 10:
            fn(PLFormat<uint16_t, 4>{});
            break;
        default:
            fn(PLFormat<float, 4>{});
            break;
    }
    return true;
}

}  // namespace plblur
