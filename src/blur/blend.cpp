// Blending two images of one layout: first = second + (first - second) * t, in
// place in first. The engine uses it with a negative t to extrapolate from the
// blurred frame back through the source, which sharpens along the motion.
// PLBlendMP is the row-parallel four-channel blend; PLBlend is the older
// single-threaded one, kept for three channels and interlaced fields.
#include <cstdio>
#include <cstring>
#include <memory>

#include "motion_blur.h"
#include "pixel_format.h"
#include "qvmem.h"

namespace {

using namespace plblur;

constexpr int kRgba = 4;

// c = s + (f - s) * t. For integer elements the difference is an integer,
// converted to float before the product.
template <typename T>
inline float Extrapolate(const uint8_t* f, const uint8_t* s, float t) {
    if constexpr (std::is_same_v<T, float>) {
        const float fv = PLLoadElement<float>(f);
        const float sv = PLLoadElement<float>(s);
        return (fv - sv) * t + sv;
    } else {
        const int32_t difference =
            static_cast<int32_t>(PLLoadElement<T>(f)) - static_cast<int32_t>(PLLoadElement<T>(s));
        return static_cast<float>(PLLoadElement<T>(s)) + static_cast<float>(difference) * t;
    }
}

template <typename T>
inline void ClearPixel(uint8_t* f, int channels) {
    std::memset(f, 0, static_cast<size_t>(channels) * sizeof(T));
}

template <typename T>
void BlendRowRgba(uint8_t* f, const uint8_t* s, int32_t width, float t, float white) {
    constexpr int32_t kE = static_cast<int32_t>(sizeof(T));
    constexpr int32_t kPixelBytes = kRgba * kE;
    for (int32_t x = 0; x < width; ++x, f += kPixelBytes, s += kPixelBytes) {
        const float a = Extrapolate<T>(f + 3 * kE, s + 3 * kE, t);
        if (a < 0.0f) {
            ClearPixel<T>(f, kRgba);
            continue;
        }
        const float m = a <= white ? a : white;
        if (m <= 0.0f) {
            ClearPixel<T>(f, kRgba);
            continue;
        }
        float colour[3];
        for (int c = 0; c < 3; ++c) colour[c] = Extrapolate<T>(f + c * kE, s + c * kE, t);
        if constexpr (std::is_same_v<T, float>) {
            for (int c = 0; c < 3; ++c) PLStoreElement<float>(f + c * kE, colour[c]);
            PLStoreElement<float>(f + 3 * kE, m);
        } else {
            for (int c = 0; c < 3; ++c) {
                float v = colour[c] + 0.5f;
                v = v <= white ? v : white;
                v = v >= 0.0f ? v : 0.0f;
                PLStoreElement<T>(f + c * kE, PLTruncToElement<T>(v));
            }
            // Alpha is truncated without the half that the colours get.
            PLStoreElement<T>(f + 3 * kE, PLTruncToElement<T>(m));
        }
    }
}

// Rows that PLBlend works on: every row for fieldMode 1, else one field.
struct FieldRows {
    explicit FieldRows(int32_t fieldMode)
        : start(fieldMode == 1 ? 0 : (fieldMode == 3 ? 1 : 0)), step(fieldMode == 1 ? 1 : 2) {}
    int32_t start;
    int32_t step;
};

void CopyRows(PLImage* first, const PLImage* second, int32_t start, int32_t step) {
    const size_t bytes = static_cast<size_t>(first->width) * static_cast<size_t>(first->pixelStride);
    for (int32_t y = start; y < first->height; y += step) std::memmove(first->Row(y), second->Row(y), bytes);
}

// The older four-channel blend: alpha relative to white decides, an excess
// above white is divided out of the colours, integer colours never exceed the
// stored alpha.
template <typename T>
void LegacyBlendRowRgba(uint8_t* f, const uint8_t* s, int32_t width, float t, float white) {
    constexpr int32_t kE = static_cast<int32_t>(sizeof(T));
    constexpr int32_t kPixelBytes = kRgba * kE;
    for (int32_t x = 0; x < width; ++x, f += kPixelBytes, s += kPixelBytes) {
        float colour[3];
        for (int c = 0; c < 3; ++c) colour[c] = Extrapolate<T>(f + c * kE, s + c * kE, t);
        const float a = Extrapolate<T>(f + 3 * kE, s + 3 * kE, t);
        const float ratio = a / white;
        if (!(ratio > 0.0f)) {
            ClearPixel<T>(f, kRgba);
            continue;
        }
        if (ratio > 1.0f) {
            for (float& c : colour) c = c / ratio;
        }
        if constexpr (std::is_same_v<T, float>) {
            for (int c = 0; c < 3; ++c) PLStoreElement<float>(f + c * kE, colour[c]);
            PLStoreElement<float>(f + 3 * kE, ratio > 1.0f ? white : a);
        } else {
            auto toElement = [white](float v) {
                if (v < 0.0f) v = 0.0f;
                if (v > white) v = white;
                return PLTruncToElement<T>(v + 0.5f);
            };
            const T alpha = toElement(a);
            for (int c = 0; c < 3; ++c) {
                const T v = toElement(colour[c]);
                PLStoreElement<T>(f + c * kE, v > alpha ? alpha : v);
            }
            PLStoreElement<T>(f + 3 * kE, alpha);
        }
    }
}

// Three channels: i * (1 - t) + j * t with i from second and j from first,
// rounded for integers and clamped when t extrapolates.
template <typename T>
inline T LegacyMix(float i, float j, float t, float oneMinusT, bool extrapolating, float white) {
    if constexpr (std::is_same_v<T, float>) {
        return i * oneMinusT + j * t;
    } else {
        float v = i * oneMinusT + j * t + 0.5f;
        if (extrapolating) {
            if (v < 0.0f) v = 0.0f;
            if (v > white) v = white;
        }
        return PLTruncToElement<T>(v);
    }
}

struct QVMemDeleter {
    void operator()(void* block) const { QVMemFree(block); }
};

// Eight-bit three-channel pixels go through a table of all 256 x 256 results,
// built per call so that concurrent callers with different t don't share it.
void LegacyBlendRgbUChar(PLImage* first, const PLImage* second, float t, const FieldRows& rows) {
    std::unique_ptr<uint8_t, QVMemDeleter> block(static_cast<uint8_t*>(QVMemNew(256 * 256)));
    uint8_t* table = block.get();
    const float oneMinusT = 1.0f - t;
    const bool extrapolating = t < 0.0f || t > 1.0f;
    for (int i = 0; i < 256; ++i)
        for (int j = 0; j < 256; ++j)
            table[i * 256 + j] = LegacyMix<uint8_t>(static_cast<float>(i), static_cast<float>(j), t,
                                                    oneMinusT, extrapolating, 255.0f);
    const int32_t elements = first->width * 3;
    for (int32_t y = rows.start; y < first->height; y += rows.step) {
        uint8_t* f = first->Row(y);
        const uint8_t* s = second->Row(y);
        for (int32_t e = 0; e < elements; ++e) f[e] = table[s[e] * 256 + f[e]];
    }
}

template <typename T>
void LegacyBlendRgb(PLImage* first, const PLImage* second, float t, const FieldRows& rows) {
    constexpr int32_t kE = static_cast<int32_t>(sizeof(T));
    const float oneMinusT = 1.0f - t;
    const bool extrapolating = t < 0.0f || t > 1.0f;
    const float white = second->whitePoint;
    const int32_t elements = first->width * 3;
    for (int32_t y = rows.start; y < first->height; y += rows.step) {
        uint8_t* f = first->Row(y);
        const uint8_t* s = second->Row(y);
        for (int32_t e = 0; e < elements; ++e) {
            const float i = PLLoadAsFloat<T>(s + e * kE);
            const float j = PLLoadAsFloat<T>(f + e * kE);
            PLStoreElement<T>(f + e * kE, LegacyMix<T>(i, j, t, oneMinusT, extrapolating, white));
        }
    }
}

}  // namespace

void PLBlendRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    PLImage* first = args->next<PLImage*>();
    const PLImage* second = args->next<const PLImage*>();
    const float t = *args->next<const float*>();
    const float white = second->whitePoint;
    PLVisitElement(first->pixelType, [&](auto format) {
        using T = typename decltype(format)::Element;
        for (int32_t y = firstRow; y <= lastRow; ++y)
            BlendRowRgba<T>(first->Row(y), second->Row(y), first->width, t, white);
    });
}

int32_t PLBlendCompatible(const PLImage* first, const PLImage* second) {
    if (!first || !second) return 0;
    const bool agree = first->width == second->width && first->height == second->height &&
                       first->numChannels == second->numChannels &&
                       first->bytesPerElement == second->bytesPerElement &&
                       first->flipped == second->flipped && first->pixelType == second->pixelType;
    return agree && (first->numChannels == 3 || first->numChannels == 4) ? 1 : 0;
}

bool PLBlendMP(float t, PLImage* first, const PLImage* second) {
    if (!first || !second) return false;
    if (first->numChannels != kRgba) return PLBlend(t, first, second, 1) != 0;
    int32_t rows = 0;
    int32_t threads = 0;
    try {
        if (second->numChannels != kRgba) {
            PLBlend(t, first, second, 1);
            return true;
        }
        if (PLImagesDiffer(first, second)) return true;
        rows = first->height;
        threads = kqmp_threadsfor(rows);
        if (!PLBlendCompatible(first, second)) return true;
        if (t == 1.0f) return true;
        // Nothing to dispatch for an image without rows.
        if (rows < 1) return true;
        if (t == 0.0f) {
            CopyRows(first, second, 0, 1);
            return true;
        }
    } catch (PLErr e) {
        return e == PLErrNone;
    }
    try {
        kqmp_dispatch(threads, rows, PLBlendRows, first, second, &t);
    } catch (PLErr e) {
        if (e != PLErrNone) throw;
    }
    return true;
}

int32_t PLBlend(float t, PLImage* first, const PLImage* second, int32_t fieldMode) {
    if (!PLBlendCompatible(first, second)) return 0;
    if (t == 1.0f) return 1;
    const FieldRows rows(fieldMode);
    if (t == 0.0f) {
        CopyRows(first, second, rows.start, rows.step);
        return 1;
    }
    if (first->pixelType == PLPixelFloat && (first->whitePoint != 1.0f || second->whitePoint != 1.0f)) {
        std::fprintf(stderr, "PLBlend: float image doesn't have 1.0 for white point\n");
        return 0;
    }
    return PLVisitFormat(first->numChannels, first->pixelType,
                         [&](auto format) {
                             using Format = decltype(format);
                             using T = typename Format::Element;
                             if constexpr (Format::kChannels == kRgba) {
                                 const float white = second->whitePoint;
                                 for (int32_t y = rows.start; y < first->height; y += rows.step)
                                     LegacyBlendRowRgba<T>(first->Row(y), second->Row(y), first->width, t,
                                                           white);
                             } else if constexpr (Format::kChannels == 3) {
                                 if constexpr (std::is_same_v<T, uint8_t>) {
                                     LegacyBlendRgbUChar(first, second, t, rows);
                                 } else {
                                     LegacyBlendRgb<T>(first, second, t, rows);
                                 }
                             }
                         })
               ? 1
               : 0;
}
