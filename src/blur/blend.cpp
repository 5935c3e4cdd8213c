// Blending two images of one layout: first = second + (first - second) * t, in
// place in first. The engine uses it with a negative t to extrapolate from the
// blurred frame back through the source, which sharpens along the motion.
// PLBlendMP is the row-parallel four-channel blend; PLBlend is the older
// single-threaded one, kept for three channels and interlaced fields.
#include <cstdio>
#include <cstring>

#include "base/qvmem.h"
#include "blur/motion_blur.h"
#include "image/pixel_format.h"

namespace {

constexpr int kRgba = 4;

// c = s + (f - s) * t. For integer elements the difference is an integer,
// converted to float before the product.
template <typename P>
inline float Extrapolate(const uint8_t* f, const uint8_t* s, float t) {
    if constexpr (P::kIsFloat) {
        const float fv = P::Load(f);
        const float sv = P::Load(s);
        return (fv - sv) * t + sv;
    } else {
        const int32_t difference = static_cast<int32_t>(P::Load(f)) - static_cast<int32_t>(P::Load(s));
        return P::LoadFloat(s) + static_cast<float>(difference) * t;
    }
}

template <typename P>
inline void ClearPixel(uint8_t* f, int channels) {
    std::memset(f, 0, static_cast<size_t>(channels) * sizeof(typename P::Element));
}

template <typename P>
void BlendRowRgba(uint8_t* f, const uint8_t* s, int32_t width, float t, float white) {
    constexpr int32_t kE = static_cast<int32_t>(sizeof(typename P::Element));
    constexpr int32_t kPixelBytes = kRgba * kE;
    for (int32_t x = 0; x < width; ++x, f += kPixelBytes, s += kPixelBytes) {
        const float a = Extrapolate<P>(f + 3 * kE, s + 3 * kE, t);
        if (a < 0.0f) {
            ClearPixel<P>(f, kRgba);
            continue;
        }
        const float m = a <= white ? a : white;
        if (m <= 0.0f) {
            ClearPixel<P>(f, kRgba);
            continue;
        }
        float colour[3];
        for (int c = 0; c < 3; ++c) colour[c] = Extrapolate<P>(f + c * kE, s + c * kE, t);
        if constexpr (P::kIsFloat) {
            for (int c = 0; c < 3; ++c) P::Store(f + c * kE, colour[c]);
            P::Store(f + 3 * kE, m);
        } else {
            for (int c = 0; c < 3; ++c) P::Store(f + c * kE, P::RoundClampNaNToWhite(colour[c], white));
            // Alpha is truncated without the half that the colours get.
            P::Store(f + 3 * kE, P::Truncate(m));
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
template <typename P>
void LegacyBlendRowRgba(uint8_t* f, const uint8_t* s, int32_t width, float t, float white) {
    using T = typename P::Element;
    constexpr int32_t kE = static_cast<int32_t>(sizeof(T));
    constexpr int32_t kPixelBytes = kRgba * kE;
    for (int32_t x = 0; x < width; ++x, f += kPixelBytes, s += kPixelBytes) {
        float colour[3];
        for (int c = 0; c < 3; ++c) colour[c] = Extrapolate<P>(f + c * kE, s + c * kE, t);
        const float a = Extrapolate<P>(f + 3 * kE, s + 3 * kE, t);
        const float ratio = a / white;
        if (!(ratio > 0.0f)) {
            ClearPixel<P>(f, kRgba);
            continue;
        }
        if (ratio > 1.0f) {
            for (float& c : colour) c = c / ratio;
        }
        if constexpr (P::kIsFloat) {
            for (int c = 0; c < 3; ++c) P::Store(f + c * kE, colour[c]);
            P::Store(f + 3 * kE, ratio > 1.0f ? white : a);
        } else {
            const T alpha = P::ClampRound(a, white);
            for (int c = 0; c < 3; ++c) {
                const T v = P::ClampRound(colour[c], white);
                P::Store(f + c * kE, v > alpha ? alpha : v);
            }
            P::Store(f + 3 * kE, alpha);
        }
    }
}

// Three channels: i * (1 - t) + j * t with i from second and j from first,
// rounded for integers and clamped when t extrapolates.
template <typename P>
inline typename P::Element LegacyMix(float i, float j, float t, float oneMinusT, bool extrapolating,
                                     float white) {
    if constexpr (P::kIsFloat) {
        return i * oneMinusT + j * t;
    } else {
        const float mix = i * oneMinusT + j * t;
        return extrapolating ? P::RoundClamp(mix, white) : P::Round(mix);
    }
}

// Eight-bit three-channel pixels go through a table of all 256 x 256 results,
// built per call so that concurrent callers with different t don't share it.
void LegacyBlendRgbUChar(PLImage* first, const PLImage* second, float t, const FieldRows& rows) {
    QVMemBlock<uint8_t> block(256 * 256);
    uint8_t* table = block.get();
    const float oneMinusT = 1.0f - t;
    const bool extrapolating = t < 0.0f || t > 1.0f;
    for (int i = 0; i < 256; ++i)
        for (int j = 0; j < 256; ++j)
            table[i * 256 + j] = LegacyMix<PLPixel<PLPixelUChar>>(
                static_cast<float>(i), static_cast<float>(j), t, oneMinusT, extrapolating, 255.0f);
    const int32_t elements = first->width * 3;
    for (int32_t y = rows.start; y < first->height; y += rows.step) {
        uint8_t* f = first->Row(y);
        const uint8_t* s = second->Row(y);
        for (int32_t e = 0; e < elements; ++e) f[e] = table[s[e] * 256 + f[e]];
    }
}

template <typename P>
void LegacyBlendRgb(PLImage* first, const PLImage* second, float t, const FieldRows& rows) {
    constexpr int32_t kE = static_cast<int32_t>(sizeof(typename P::Element));
    const float oneMinusT = 1.0f - t;
    const bool extrapolating = t < 0.0f || t > 1.0f;
    const float white = second->whitePoint;
    const int32_t elements = first->width * 3;
    for (int32_t y = rows.start; y < first->height; y += rows.step) {
        uint8_t* f = first->Row(y);
        const uint8_t* s = second->Row(y);
        for (int32_t e = 0; e < elements; ++e) {
            const float i = P::LoadFloat(s + e * kE);
            const float j = P::LoadFloat(f + e * kE);
            P::Store(f + e * kE, LegacyMix<P>(i, j, t, oneMinusT, extrapolating, white));
        }
    }
}

}  // namespace

void PLBlendRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    PLImage* first = args->next<PLImage*>();
    const PLImage* second = args->next<const PLImage*>();
    const float t = *args->next<const float*>();
    const float white = second->whitePoint;
    PLVisitPixelType(first->pixelType, [&](auto pixel) {
        for (int32_t y = firstRow; y <= lastRow; ++y)
            BlendRowRgba<decltype(pixel)>(first->Row(y), second->Row(y), first->width, t, white);
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
    const bool known = PLVisitFormat(first->pixelType, first->numChannels, [&](auto format) {
        using Format = decltype(format);
        using P = typename Format::Traits;
        if constexpr (Format::kChannels == kRgba) {
            const float white = second->whitePoint;
            for (int32_t y = rows.start; y < first->height; y += rows.step)
                LegacyBlendRowRgba<P>(first->Row(y), second->Row(y), first->width, t, white);
        } else if constexpr (Format::kChannels == 3) {
            if constexpr (P::kPixelType == PLPixelUChar) {
                LegacyBlendRgbUChar(first, second, t, rows);
            } else {
                LegacyBlendRgb<P>(first, second, t, rows);
            }
        }
    });
    return known ? 1 : 0;
}
