// Helpers shared by the blur tests: images filled from a formula, element
// access, the twelve pixel formats as a type list, and a progress parent that
// counts reports and can abort.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "image/plimage.h"
#include "mp/kqmp.h"
#include "mp/progress.h"

template <typename T>
constexpr int32_t PixelTypeOf() {
    return std::is_same_v<T, uint8_t>    ? PLPixelUChar
           : std::is_same_v<T, uint16_t> ? PLPixelUShort
                                         : PLPixelFloat;
}

using ImagePtr = std::unique_ptr<PLImage>;

inline ImagePtr MakeImage(int32_t width, int32_t height, int32_t channels, int32_t pixelType,
                          int32_t flipped = 0) {
    return ImagePtr(new PLImage(width, height, channels, pixelType, flipped));
}

template <typename T>
T& At(const PLImage& image, int32_t x, int32_t y, int32_t c = 0) {
    return reinterpret_cast<T*>(image.Row(y) + x * image.pixelStride)[c];
}

// An image whose element (x, y, c) is value(x, y, c), stored by a plain cast.
template <typename F>
ImagePtr Pattern(int32_t w, int32_t h, int32_t channels, int32_t type, F value) {
    ImagePtr image = MakeImage(w, h, channels, type);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int32_t c = 0; c < channels; ++c) {
                const float v = value(x, y, c);
                if (type == PLPixelUChar)
                    At<uint8_t>(*image, x, y, c) = static_cast<uint8_t>(v);
                else if (type == PLPixelUShort)
                    At<uint16_t>(*image, x, y, c) = static_cast<uint16_t>(v);
                else
                    At<float>(*image, x, y, c) = v;
            }
    return image;
}

inline ImagePtr UniformFlow(int32_t width, int32_t height, float u, float v) {
    return Pattern(width, height, 2, PLPixelFloat, [=](int32_t, int32_t, int32_t c) { return c ? v : u; });
}

inline void FillBytes(PLImage& image, uint8_t byte) {
    for (int32_t y = 0; y < image.height; ++y)
        std::memset(image.Row(y), byte, image.width * image.pixelStride);
}

// Logical rows as bytes (width * pixelStride each), for bit-exact comparison.
inline std::vector<uint8_t> RowBytes(const PLImage& image) {
    std::vector<uint8_t> bytes;
    for (int32_t y = 0; y < image.height; ++y)
        bytes.insert(bytes.end(), image.Row(y), image.Row(y) + image.width * image.pixelStride);
    return bytes;
}

// Counts the reports reaching the top of a chain; throws PLErrAborted from the
// report numbered abortAt on (1-based; 0 never).
class CountingProgress : public QVIdleAndProgressClass {
  public:
    explicit CountingProgress(int abortAtReport = 0)
        : QVIdleAndProgressClass(nullptr), abortAt(abortAtReport) {}
    void ProgressIdle(float fraction) override {
        ++reports;
        last = fraction;
        if (abortAt != 0 && reports >= abortAt) throw PLErrAborted;
    }
    int abortAt;
    int reports = 0;
    float last = -1.0f;
};

// Sets the pool's thread limit for a scope, then back to the processor count.
struct ThreadLimit {
    explicit ThreadLimit(int32_t count) { setThreadCount(count); }
    ~ThreadLimit() { setThreadCount(0); }
};

template <typename T, int C>
struct Fmt {
    using Element = T;
    static constexpr int kChannels = C;
};
using AllFormats = ::testing::Types<Fmt<uint8_t, 1>, Fmt<uint16_t, 1>, Fmt<float, 1>, Fmt<uint8_t, 2>,
                                    Fmt<uint16_t, 2>, Fmt<float, 2>, Fmt<uint8_t, 3>, Fmt<uint16_t, 3>,
                                    Fmt<float, 3>, Fmt<uint8_t, 4>, Fmt<uint16_t, 4>, Fmt<float, 4>>;
