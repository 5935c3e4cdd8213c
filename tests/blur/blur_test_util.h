// Helpers shared by the blur tests: typed images, element access, the twelve
// pixel formats as a type list, and a progress parent that counts reports.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "plimage.h"
#include "progress.h"

template <typename T>
constexpr int32_t PixelTypeOf() {
    if constexpr (std::is_same_v<T, uint8_t>) return PLPixelUChar;
    if constexpr (std::is_same_v<T, uint16_t>) return PLPixelUShort;
    return PLPixelFloat;
}

template <typename T>
constexpr float WhiteOf() {
    if constexpr (std::is_same_v<T, uint8_t>) return 255.0f;
    if constexpr (std::is_same_v<T, uint16_t>) return 65535.0f;
    return 1.0f;
}

using ImagePtr = std::unique_ptr<PLImage>;

inline ImagePtr MakeImage(int32_t width, int32_t height, int32_t channels, int32_t pixelType,
                          int32_t flipped = 0) {
    return ImagePtr(new PLImage(width, height, channels, pixelType, flipped));
}

template <typename T>
T& At(PLImage& image, int32_t x, int32_t y, int32_t c = 0) {
    return reinterpret_cast<T*>(image.Row(y) + x * image.pixelStride)[c];
}

template <typename T>
T At(const PLImage& image, int32_t x, int32_t y, int32_t c = 0) {
    return reinterpret_cast<const T*>(image.Row(y) + x * image.pixelStride)[c];
}

inline void FillBytes(PLImage& image, uint8_t byte) {
    for (int32_t y = 0; y < image.height; ++y)
        std::memset(image.Row(y), byte, image.width * image.pixelStride);
}

// A flow image holding one vector everywhere.
inline ImagePtr UniformFlow(int32_t width, int32_t height, float u, float v) {
    ImagePtr flow = MakeImage(width, height, 2, PLPixelFloat);
    for (int32_t y = 0; y < height; ++y)
        for (int32_t x = 0; x < width; ++x) {
            At<float>(*flow, x, y, 0) = u;
            At<float>(*flow, x, y, 1) = v;
        }
    return flow;
}

// Logical rows of an image as bytes (width * pixelStride each), for bit-exact comparison.
inline std::vector<uint8_t> RowBytes(const PLImage& image) {
    std::vector<uint8_t> bytes;
    for (int32_t y = 0; y < image.height; ++y) {
        const uint8_t* row = image.Row(y);
        bytes.insert(bytes.end(), row, row + image.width * image.pixelStride);
    }
    return bytes;
}

// Top of a progress chain that counts the reports reaching it and throws
// PLErrAborted at the report numbered abortAt (1-based; 0 never aborts).
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

template <typename T, int C>
struct Fmt {
    using Element = T;
    static constexpr int kChannels = C;
};

using AllFormats = ::testing::Types<Fmt<uint8_t, 1>, Fmt<uint16_t, 1>, Fmt<float, 1>, Fmt<uint8_t, 2>,
                                    Fmt<uint16_t, 2>, Fmt<float, 2>, Fmt<uint8_t, 3>, Fmt<uint16_t, 3>,
                                    Fmt<float, 3>, Fmt<uint8_t, 4>, Fmt<uint16_t, 4>, Fmt<float, 4>>;
