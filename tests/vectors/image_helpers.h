// Small helpers of the vector-field tests: typed element access by logical
// position, bit views, and a scoped thread limit.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>

#include "image/plimage.h"
#include "mp/kqmp.h"

using ImagePtr = std::unique_ptr<PLImage>;

inline ImagePtr MakeImage(int32_t w, int32_t h, int32_t channels, int32_t type, int32_t flipped = 0) {
    return ImagePtr(new PLImage(w, h, channels, type, flipped));
}

template <typename T>
T Get(const PLImage* im, int32_t x, int32_t y, int32_t c) {
    T v;
    std::memcpy(&v,
                im->Row(y) + static_cast<size_t>(x) * im->pixelStride + static_cast<size_t>(c) * sizeof(T),
                sizeof v);
    return v;
}

template <typename T>
void Set(PLImage* im, int32_t x, int32_t y, int32_t c, T v) {
    std::memcpy(im->Row(y) + static_cast<size_t>(x) * im->pixelStride + static_cast<size_t>(c) * sizeof(T),
                &v, sizeof v);
}

template <typename T>
void FillAll(PLImage* im, T v) {
    for (int32_t y = 0; y < im->height; ++y)
        for (int32_t x = 0; x < im->width; ++x)
            for (int32_t c = 0; c < im->numChannels; ++c) Set<T>(im, x, y, c, v);
}

inline bool SameBytes(const PLImage* a, const PLImage* b) {
    return a->rowBytes == b->rowBytes && a->height == b->height &&
           std::memcmp(a->data, b->data, static_cast<size_t>(a->rowBytes) * a->height) == 0;
}

inline ImagePtr CopyOf(const PLImage* im) {
    ImagePtr copy = MakeImage(im->width, im->height, im->numChannels, im->pixelType, im->flipped);
    std::memcpy(copy->data, im->data, static_cast<size_t>(im->rowBytes) * im->height);
    return copy;
}

inline uint32_t Bits(float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

// A NaN whose bits no computation here produces, to show an untouched element.
constexpr uint32_t kSentinelBits = 0x7fc0dead;
inline float Sentinel() {
    float v;
    std::memcpy(&v, &kSentinelBits, sizeof v);
    return v;
}

// Sets the thread limit for one scope and puts the processor count back after.
struct ThreadLimit {
    explicit ThreadLimit(int32_t count) { setThreadCount(count); }
    ~ThreadLimit() { setThreadCount(0); }
};

// A deterministic pseudo-random float in [0, 1).
inline float Noise(uint32_t& state) {
    state = state * 1664525u + 1013904223u;
    return static_cast<float>(state >> 8) / 16777216.0f;
}
