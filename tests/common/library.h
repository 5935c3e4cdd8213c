// What the library's tests share: images made, filled and read by position,
// outside memory that shows a stray write, the twelve formats for typed tests.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <vector>

#include "common/threads.h"
#include "image/pixel_format.h"
#include "image/plimage.h"

using ImagePtr = std::unique_ptr<PLImage>;

inline ImagePtr MakeImage(int32_t w, int32_t h, int32_t channels, int32_t type, int32_t flipped = 0) {
    return ImagePtr(new PLImage(w, h, channels, type, flipped));
}

template <typename T>
T Get(const PLImage& im, int32_t x, int32_t y, int32_t c = 0) {
    T v;
    std::memcpy(&v, im.Row(y) + PLOffset(x, im.pixelStride) + c * static_cast<int32_t>(sizeof(T)), sizeof v);
    return v;
}

template <typename T>
void Set(PLImage& im, int32_t x, int32_t y, int32_t c, T v) {
    std::memcpy(im.Row(y) + PLOffset(x, im.pixelStride) + c * static_cast<int32_t>(sizeof(T)), &v, sizeof v);
}

// The first values.size() elements of pixel (x, y).
template <typename T>
void Put(PLImage& im, int32_t x, int32_t y, std::initializer_list<T> values) {
    std::memcpy(im.Row(y) + PLOffset(x, im.pixelStride), values.begin(), values.size() * sizeof(T));
}

template <typename T>
void FillAll(PLImage& im, T v) {
    for (int32_t y = 0; y < im.height; ++y)
        for (int32_t x = 0; x < im.width; ++x)
            for (int32_t c = 0; c < im.numChannels; ++c) Set<T>(im, x, y, c, v);
}

// Element (x, y, c) of any pixel type as a float.
inline float Value(const PLImage& im, int32_t x, int32_t y, int32_t c = 0) {
    float v = 0.0f;
    im.GetChannel(x, y, &v, c);
    return v;
}

// Every element set from value(x, y, c) by the record's writer (truncating).
template <typename F>
void FillWith(PLImage& im, F value) {
    for (int32_t y = 0; y < im.height; ++y)
        for (int32_t x = 0; x < im.width; ++x)
            for (int32_t c = 0; c < im.numChannels; ++c)
                PLFloatToElement(im.pixelType,
                                 im.Row(y) + PLOffset(x, im.pixelStride) + c * im.bytesPerElement,
                                 static_cast<float>(value(x, y, c)));
}

template <typename F>
ImagePtr Pattern(int32_t w, int32_t h, int32_t channels, int32_t type, F value, int32_t flipped = 0) {
    ImagePtr im = MakeImage(w, h, channels, type, flipped);
    FillWith(*im, value);
    return im;
}

inline ImagePtr UniformFlow(int32_t w, int32_t h, float u, float v) {
    return Pattern(w, h, 2, PLPixelFloat, [=](int32_t, int32_t, int32_t c) { return c ? v : u; });
}

inline void FillBytes(PLImage& im, uint8_t byte) {
    for (int32_t y = 0; y < im.height; ++y)
        std::memset(im.Row(y), byte, static_cast<size_t>(im.width) * im.pixelStride);
}

// A deterministic pseudo-random float in [0, 1).
inline float Noise(uint32_t& state) {
    state = state * 1664525u + 1013904223u;
    return static_cast<float>(state >> 8) / 16777216.0f;
}

// Every stored byte of the pixels from the generator.
inline void Scribble(PLImage& im, uint32_t seed) {
    for (int32_t y = 0; y < im.height; ++y)
        for (int32_t i = 0; i < im.width * im.pixelStride; ++i)
            im.Row(y)[i] = static_cast<uint8_t>(Noise(seed) * 256);
}

// The blocked filters' store: integers add a half and wrap, floats lose -0.
inline void StoreRounded(PLImage& im, int32_t x, int32_t y, int32_t c, float v) {
    if (im.pixelType == PLPixelUChar) Set<uint8_t>(im, x, y, c, PLPixel<PLPixelUChar>::Round(v));
    if (im.pixelType == PLPixelUShort) Set<uint16_t>(im, x, y, c, PLPixel<PLPixelUShort>::Round(v));
    if (im.pixelType == PLPixelFloat) Set<float>(im, x, y, c, v + 0.0f);
}

// Noise over the type's range; floats also get negative zeros and infinities.
inline void FillNoise(PLImage& im, uint32_t seed) {
    const float inf = std::numeric_limits<float>::infinity();
    for (int32_t y = 0; y < im.height; ++y)
        for (int32_t x = 0; x < im.width; ++x)
            for (int32_t c = 0; c < im.numChannels; ++c) {
                const float v = Noise(seed), pick = Noise(seed);
                if (im.pixelType != PLPixelFloat)
                    StoreRounded(im, x, y, c,
                                 std::floor(v * (im.pixelType == PLPixelUChar ? 256.0f : 65536.0f)));
                else
                    Set<float>(im, x, y, c,
                               pick < 0.02f   ? -0.0f
                               : pick < 0.03f ? (x % 2 ? inf : -inf)
                                              : v * 200 - 100);
            }
}

// A one-row float image holding `values`, and its row read back.
inline ImagePtr Line(const std::vector<float>& values) {
    ImagePtr im = MakeImage(static_cast<int32_t>(values.size()), 1, 1, PLPixelFloat);
    for (size_t i = 0; i < values.size(); ++i) Set<float>(*im, static_cast<int32_t>(i), 0, 0, values[i]);
    return im;
}

inline std::vector<float> Row0(const PLImage& im) {
    std::vector<float> out;
    for (int32_t x = 0; x < im.width; ++x) out.push_back(Get<float>(im, x, 0, 0));
    return out;
}

// Logical rows as bytes (width * pixelStride each), for bit-exact comparison.
inline std::vector<uint8_t> RowBytes(const PLImage& im) {
    std::vector<uint8_t> bytes;
    for (int32_t y = 0; y < im.height; ++y)
        bytes.insert(bytes.end(), im.Row(y), im.Row(y) + static_cast<size_t>(im.width) * im.pixelStride);
    return bytes;
}

inline ImagePtr CopyOf(const PLImage& im) {
    ImagePtr copy = MakeImage(im.width, im.height, im.numChannels, im.pixelType, im.flipped);
    for (int32_t y = 0; y < im.height; ++y)
        std::memcpy(copy->Row(y), im.Row(y), static_cast<size_t>(im.width) * im.pixelStride);
    return copy;
}

inline uint32_t Bits(float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

// A NaN whose bits no computation here produces, to show an untouched element.
inline float Sentinel() {
    const uint32_t bits = 0x7fc0dead;
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

// Outside memory: rows padded by an odd count (unaligned floats) between
// guard rows, 0x5a everywhere outside the pixels.
struct OutsideImage {
    OutsideImage(int32_t w, int32_t h, int32_t channels, int32_t type, int32_t flipped = 0,
                 int32_t padding = 13)
        : rowBytes(w * channels * PLElementSize(type) + padding),
          bytes(static_cast<size_t>(rowBytes) * (h + 2), 0x5a),
          image(bytes.data() + rowBytes, w, h, rowBytes, channels, type, flipped) {}
    bool GuardsIntact() const {
        const size_t used = static_cast<size_t>(image.width) * image.pixelStride;
        for (size_t i = 0; i < bytes.size(); ++i) {
            const size_t row = i / static_cast<size_t>(rowBytes);
            const bool pixel = row >= 1 && row <= static_cast<size_t>(image.height) && i % rowBytes < used;
            if (!pixel && bytes[i] != 0x5a) return false;
        }
        return true;
    }
    int32_t rowBytes;
    std::vector<uint8_t> bytes;
    PLImage image;
};

// The twelve formats of the plug-in's path, for typed tests.
template <typename F>
class EveryFormat : public ::testing::Test {};
using AllFormats =
    ::testing::Types<PLFormat<PLPixel<0>, 1>, PLFormat<PLPixel<1>, 1>, PLFormat<PLPixel<2>, 1>,
                     PLFormat<PLPixel<0>, 2>, PLFormat<PLPixel<1>, 2>, PLFormat<PLPixel<2>, 2>,
                     PLFormat<PLPixel<0>, 3>, PLFormat<PLPixel<1>, 3>, PLFormat<PLPixel<2>, 3>,
                     PLFormat<PLPixel<0>, 4>, PLFormat<PLPixel<1>, 4>, PLFormat<PLPixel<2>, 4>>;
