// The pixel-format module: the closed set of element types, the one place
// where a run-time pixel type (and channel count) becomes a compile-time one,
// and the per-element rules every kernel family loads and stores with.
//
// PLPixel<Code> is the traits type of pixel type Code: the element in memory,
// its size, its value as a float and the writer of the image record's table.
// The three types of the plug-in's path (uchar, ushort, float) also carry a
// white point and the named store rules. The rules differ on purpose, and
// each family keeps the one it was written with:
//   Truncate             the conversion: truncate to 32 bits, keep the low bits, no clamp.
//   Round                add 0.5, truncate, no clamp (out of range wraps).
//   RoundClamp           add 0.5, clamp to 0..white, truncate; NaN stores 0.
//   RoundClampNaNToWhite the same clamps taken high first; NaN stores white.
//   ClampRound           clamp to 0..white first, then add 0.5 and truncate.
//   RoundInDouble        add 0.5 in double precision, truncate, no clamp.
// For float, Round and RoundClamp add 0.0 (a negative zero comes out positive,
// as the integer paths give) and clamp nothing.
//
// Kernels are templates over a pixel traits type and a channel count; the
// visits below choose the instantiation once per call. A faster variant of a
// row body for another instruction set is one more instantiation of the same
// template in a translation unit built for that set: the visit picks the
// member, a table chosen at load picks the variant.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "image/plconvert.h"
#include "image/plimage.h"

// Host rows carry no alignment promise, so elements move through memcpy,
// which compiles to a plain load or store.
template <typename T>
inline T PLLoadElement(const void* at) {
    T v;
    std::memcpy(&v, at, sizeof v);
    return v;
}

template <typename T>
inline void PLStoreElement(void* at, T v) {
    std::memcpy(at, &v, sizeof v);
}

template <int32_t Code>
struct PLPixel;

namespace pldetail {

// What every element type has: its memory form and size in the record's table.
template <typename T, int32_t Code, int32_t TableBytes = static_cast<int32_t>(sizeof(T))>
struct Storage {
    using Element = T;
    static constexpr int32_t kPixelType = Code;
    static constexpr int32_t kBytes = TableBytes;
    static T Load(const void* at) { return PLLoadElement<T>(at); }
    static void Store(void* at, T v) { PLStoreElement<T>(at, v); }
};

// An integer type of the plug-in's path: unsigned, white at its largest value.
template <typename T, int32_t Code>
struct PathInteger : Storage<T, Code> {
    static constexpr bool kIsFloat = false;
    static constexpr float kWhite = static_cast<float>(static_cast<T>(~T(0)));

    static float ToFloat(T v) { return static_cast<float>(v); }
    static float LoadFloat(const void* at) { return ToFloat(PLLoadElement<T>(at)); }
    static T Truncate(float v) { return static_cast<T>(PLTruncI32(v)); }
    static T Round(float v) { return static_cast<T>(PLTruncI32(v + 0.5f)); }
    static T RoundClamp(float v, float white = kWhite) {
        v = v + 0.5f;
        if (v <= 0.0f) v = 0.0f;
        if (v > white) v = white;
        return static_cast<T>(PLTruncI32(v));
    }
    static T RoundClampNaNToWhite(float v, float white = kWhite) {
        v = v + 0.5f;
        v = v <= white ? v : white;
        v = v >= 0.0f ? v : 0.0f;
        return static_cast<T>(PLTruncI32(v));
    }
    static T ClampRound(float v, float white = kWhite) {
        if (v < 0.0f) v = 0.0f;
        if (v > white) v = white;
        return static_cast<T>(PLTruncI32(v + 0.5f));
    }
    static T RoundInDouble(float v) { return static_cast<T>(PLTruncI32(static_cast<double>(v) + 0.5)); }
    // 255 - v and 65535 - v.
    static T Complement(T v) { return static_cast<T>(~v); }
};

// A type outside the plug-in's path: only read and written by the image record.
template <typename T, int32_t Code, int32_t TableBytes = static_cast<int32_t>(sizeof(T))>
struct OtherInteger : Storage<T, Code, TableBytes> {
    static float ToFloat(T v) { return static_cast<float>(v); }
    static T Truncate(float v) { return static_cast<T>(PLTruncI32(v)); }
};

}  // namespace pldetail

template <>
struct PLPixel<PLPixelUChar> : pldetail::PathInteger<uint8_t, PLPixelUChar> {
    static constexpr float kInverseWhite = 0.003921569f;  // 1/255 rounded to a float
    static constexpr double kFillRounding = 0.5;
};

template <>
struct PLPixel<PLPixelUShort> : pldetail::PathInteger<uint16_t, PLPixelUShort> {
    static constexpr float kInverseWhite = 1.5259022e-05f;  // 1/65535 rounded to a float
    // Deliberately not 0.5: 65535.499 must still truncate to 65535.
    static constexpr double kFillRounding = 0.499;
};

template <>
struct PLPixel<PLPixelFloat> : pldetail::Storage<float, PLPixelFloat> {
    static constexpr bool kIsFloat = true;
    static constexpr float kWhite = 1.0f;

    static float ToFloat(float v) { return v; }
    static float LoadFloat(const void* at) { return PLLoadElement<float>(at); }
    static float Truncate(float v) { return v; }
    static float Round(float v) { return v + 0.0f; }
    static float RoundClamp(float v) { return v + 0.0f; }
    static float Complement(float v) { return 1.0f - v; }
};

template <>
struct PLPixel<PLPixelChar> : pldetail::OtherInteger<int8_t, PLPixelChar> {};

template <>
struct PLPixel<PLPixelShort> : pldetail::OtherInteger<int16_t, PLPixelShort> {};

// The fractions scale by 2^-16 when read. The signed type's writer multiplies
// by 2^-16 too, where the unsigned one has the reciprocal: kept as it has always been.
template <>
struct PLPixel<PLPixelFractionShort> : pldetail::Storage<int16_t, PLPixelFractionShort> {
    static float ToFloat(int16_t v) { return static_cast<float>(v) * (1.0f / 65536.0f); }
    static int16_t Truncate(float v) { return static_cast<int16_t>(PLTruncI32(v * (1.0f / 65536.0f))); }
};

template <>
struct PLPixel<PLPixelFractionUShort> : pldetail::Storage<uint16_t, PLPixelFractionUShort> {
    static float ToFloat(uint16_t v) { return static_cast<float>(v) * (1.0f / 65536.0f); }
    static uint16_t Truncate(float v) { return static_cast<uint16_t>(PLTruncI32(v * 65536.0f)); }
};

template <>
struct PLPixel<PLPixelDouble> : pldetail::Storage<double, PLPixelDouble> {
    static float ToFloat(double v) { return static_cast<float>(v); }
    static double Truncate(float v) { return static_cast<double>(v); }
};

// Listed as 4 bytes in the record's table although its reader and writer move
// 8: neighbouring elements of such an image overlap.
template <>
struct PLPixel<PLPixelLong> : pldetail::Storage<int64_t, PLPixelLong, 4> {
    static float ToFloat(int64_t v) { return static_cast<float>(v); }
    static int64_t Truncate(float v) { return PLTruncI64(v); }
};

// A pixel traits type and a channel count, as the format visit hands them out.
template <typename Pixel, int Channels>
struct PLFormat {
    using Traits = Pixel;
    using Element = typename Pixel::Element;
    static constexpr int kChannels = Channels;
};

constexpr int32_t PLPathTypeCount = 3;   // uchar, ushort, float: codes 0 to 2
constexpr int32_t PLPixelTypeCount = 9;  // every code of the record, 0 to 8
constexpr int32_t PLMaxChannels = 4;

inline bool PLIsPathType(int32_t pixelType) {
    return pixelType >= 0 && pixelType < PLPathTypeCount;
}

namespace pldetail {

template <typename Fn, int32_t... Codes>
bool VisitCodes(int32_t code, Fn& fn, std::integer_sequence<int32_t, Codes...>) {
    return ((code == Codes ? (fn(PLPixel<Codes>{}), true) : false) || ...);
}

template <typename Fn, size_t... I>
bool VisitFormats(size_t index, Fn& fn, std::index_sequence<I...>) {
    constexpr size_t kTypes = PLPathTypeCount;
    return (
        (index == I
             ? (fn(PLFormat<PLPixel<static_cast<int32_t>(I % kTypes)>, static_cast<int>(I / kTypes) + 1>{}),
                true)
             : false) ||
        ...);
}

}  // namespace pldetail

// Calls fn(PLPixel<Code>{}) for the pixel types of the plug-in's path. Returns
// false, without calling, for any other type.
template <typename Fn>
bool PLVisitPixelType(int32_t pixelType, Fn&& fn) {
    return pldetail::VisitCodes(pixelType, fn, std::make_integer_sequence<int32_t, PLPathTypeCount>());
}

// The same over every pixel type the image record knows, 0 to 8.
template <typename Fn>
bool PLVisitAnyPixelType(int32_t pixelType, Fn&& fn) {
    return pldetail::VisitCodes(pixelType, fn, std::make_integer_sequence<int32_t, PLPixelTypeCount>());
}

// Calls fn(PLFormat<PLPixel<Code>, C>{}) for a path type with 1 to 4
// channels. Returns false, without calling, for anything else.
template <typename Fn>
bool PLVisitFormat(int32_t pixelType, int32_t numChannels, Fn&& fn) {
    if (!PLIsPathType(pixelType) || numChannels < 1 || numChannels > PLMaxChannels) return false;
    const size_t index =
        static_cast<size_t>(numChannels - 1) * PLPathTypeCount + static_cast<size_t>(pixelType);
    return pldetail::VisitFormats(index, fn, std::make_index_sequence<PLPathTypeCount * PLMaxChannels>());
}

// One element carried to another type as the channel copies do: the same type
// bit for bit (NaN payloads included); otherwise the value as a float, stored
// by the destination's Truncate, which for integers keeps the low bits.
template <typename DstPixel, typename SrcPixel>
inline void PLConvertElement(void* dst, const void* src) {
    using D = typename DstPixel::Element;
    using S = typename SrcPixel::Element;
    if constexpr (std::is_same_v<DstPixel, SrcPixel>) {
        std::memcpy(dst, src, sizeof(D));
    } else if constexpr (!std::is_same_v<D, float> && !std::is_same_v<S, float>) {
        // Between integers the value is exact in a float; the cast says so plainly.
        DstPixel::Store(dst, static_cast<D>(SrcPixel::Load(src)));
    } else {
        DstPixel::Store(dst, DstPixel::Truncate(SrcPixel::ToFloat(SrcPixel::Load(src))));
    }
}
