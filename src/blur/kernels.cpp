// The blur along the vectors: the region driver, its row worker and the family
// of row bodies. One template defines every body; the element type and channel
// count come from the format visit of the pixel-format module, the sampling mode and
// the edge rule are chosen once per call, so no pixel loop branches on any of
// them. The float arithmetic follows a fixed order and must not be rearranged:
// results are compared bit for bit.
#include <cmath>
#include <cstring>
#include <utility>
#if defined(__x86_64__)
// GCC 12's AVX-512 header leaves a pass-through operand undefined on purpose.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

#include "base/isa.h"
#include "blur/motion_blur.h"
#include "image/bilinear.h"
#include "image/lanes.h"

namespace {

// The count after `remaining` more additions of 1.0f: exact up to 2^24, where
// float addition of one stops changing it.
inline float AddOnes(float count, int32_t remaining) {
    const int64_t total = static_cast<int64_t>(count) + remaining;
    return total < 16777216 ? static_cast<float>(total) : 16777216.0f;
}

// Integer elements round and clamp to their range; float ones only lose a negative zero.
template <typename P>
inline void StoreAverage(uint8_t* at, float sum, float inv) {
    P::Store(at, P::RoundClamp(sum * inv));
}

struct BlurCall {
    PLImage* output;
    const PLImage* source;
    const PLImage* flow;
    float amount;
    int32_t x0;
    int32_t x1;
    int32_t first;  // absolute rows, inclusive
    int32_t last;
    QVIdleAndProgressClass* progress;
};

// a + b keeping a's NaN where both are NaN. Left to itself the compiler picks
// either operand order, differently from one build to another, and the sign
// of a NaN output with it; the wide paths keep the same rule.
inline PLLanes AddKeepingFirstNaN(PLLanes a, PLLanes b) {
#if defined(__SSE__)
    asm("addps %2, %0" : "=x"(a) : "0"(a), "x"(b));
    return a;
#else
    return a + b;
#endif
}

// Everything one body needs about the source while walking.
template <typename P, int C>
struct SourceView {
    using T = typename P::Element;
    explicit SourceView(const PLImage& image)
        : row0(image.Row(0)),
          rowStep(image.rowStep),
          right(image.lastColumn > 0 ? kPixelBytes : 0),
          down(image.lastRow > 0 ? image.rowStep : 0),
          width(image.width),
          height(image.height),
          lastColumn(image.lastColumn),
          lastRow(image.lastRow),
          fWidth(static_cast<float>(image.width)),
          fHeight(static_cast<float>(image.height)) {}

    static constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(T));
    const uint8_t* row0;
    int32_t rowStep;
    int32_t right;
    int32_t down;
    int32_t width;
    int32_t height;
    int32_t lastColumn;
    int32_t lastRow;
    float fWidth;
    float fHeight;
};

// The bilinear read with the last-cell rule (PLBilinearReader's, for a
// position inside the source), its additions in a fixed operand order.
template <typename P, int C>
inline PLLanes ReadInside(const SourceView<P, C>& src, float px, float py) {
    using T = typename P::Element;
    const PLCellTap tx = PLLastCellTap<PLBeforeFirst::kKeepFraction, true>(px, src.lastColumn);
    const PLCellTap ty = PLLastCellTap<PLBeforeFirst::kKeepFraction, true>(py, src.lastRow);
    const uint8_t* p = src.row0 + PLOffset(ty.index, src.rowStep) + PLOffset(tx.index, src.kPixelBytes);
    const uint8_t* q = p + src.down;
    const PLLanes p0 = PLLoadLanes<T, C>(p);
    const PLLanes q0 = PLLoadLanes<T, C>(q);
    const PLLanes a = AddKeepingFirstNaN((PLLoadLanes<T, C>(p + src.right) - p0) * tx.fraction, p0);
    const PLLanes b = AddKeepingFirstNaN((PLLoadLanes<T, C>(q + src.right) - q0) * tx.fraction, q0);
    return AddKeepingFirstNaN((b - a) * ty.fraction, a);
}

// Up to m samples from (px, py), advancing by repeated addition. A straight
// walk that has left the source never comes back (each coordinate moves
// monotonically and the inside is an interval on each axis), so the first
// outside sample ends it: under the stop-at-edge rule nothing more is taken,
// under the count-outside rule the samples left are all counted as empty. This
// keeps an absurd n bounded by the size of the image.
template <typename P, int C, bool kBilinear, bool kCountOutside>
inline void Walk(const SourceView<P, C>& src, float px, float py, float stepX, float stepY, int32_t m,
                 PLLanes& sums, float& count) {
    for (int32_t k = 0; k < m; ++k) {
        if constexpr (kBilinear) {
            if (!(0.0f <= px && px < src.fWidth && 0.0f <= py && py < src.fHeight)) {
                if constexpr (kCountOutside) count = AddOnes(count, m - k);
                return;
            }
            sums = AddKeepingFirstNaN(sums, ReadInside(src, px, py) + 0.0f);
        } else {
            const int32_t ix = PLTruncI32(px);
            const int32_t iy = PLTruncI32(py);
            if (!(0 <= ix && ix < src.width && 0 <= iy && iy < src.height)) {
                if constexpr (kCountOutside) count = AddOnes(count, m - k);
                return;
            }
            const uint8_t* at =
                src.row0 + PLOffset(iy, src.rowStep) + PLOffset(ix, SourceView<P, C>::kPixelBytes);
            sums = AddKeepingFirstNaN(sums, PLLoadLanes<typename P::Element, C>(at));
        }
        count += 1.0f;
        px += stepX;
        py += stepY;
    }
}

// From the flow's grid to the source's and back, and the amount's half-step.
struct Scales {
    Scales(const PLImage& source, const PLImage& flow, float amount) {
        const float sx = static_cast<float>(source.lastColumn) / static_cast<float>(flow.lastColumn);
        const float sy = static_cast<float>(source.lastRow) / static_cast<float>(flow.lastRow);
        kx = sx * amount * 0.5f;
        ky = sy * amount * 0.5f;
        invX = 1.0f / sx;
        invY = 1.0f / sy;
    }
    float kx, ky, invX, invY;
};

using FlowReader = PLBilinearReader<PLPixel<PLPixelFloat>, 2, PLBeforeFirst::kKeepFraction>;

// What one output pixel does: copy its source pixel (still), or walk n
// samples forward and n - 1 back by (stepX, stepY).
struct PixelPlan {
    bool still;
    int32_t n;
    float stepX;
    float stepY;
};

template <bool kBilinear>
PL_INLINE_HOT PixelPlan Plan(const FlowReader& flowReader, float fx, float fy, float kx, float ky) {
    const PLLanes vector = flowReader.template Read<false>(fx, fy) + 0.0f;
    const float du = kx * vector[0];
    const float dv = ky * vector[1];
    const float d2 = du * du + dv * dv;
    bool still;
    if constexpr (kBilinear) {
        still = static_cast<double>(d2) < 1e-06;
    } else {
        still = d2 < 1.0f;
    }
    if (still) return {true, 0, 0.0f, 0.0f};
    const float len = std::sqrt(d2);
    const int32_t n = PLTruncI32(len + 1.0f);
    if (n < 2) return {false, 2, du, dv};
    return {false, n, du / static_cast<float>(n - 1), dv / static_cast<float>(n - 1)};
}

template <typename P, int C, bool kBilinear, bool kCountOutside>
void BlurRows(const BlurCall& call) {
    using T = typename P::Element;
    const PLImage& source = *call.source;
    const PLImage& flow = *call.flow;
    const Scales scales(source, flow, call.amount);
    const float kx = scales.kx, ky = scales.ky, invX = scales.invX, invY = scales.invY;
    QVIdleAndProgressClass rowProgress(call.progress);

    constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(T));
    const SourceView<P, C> src(source);
    const FlowReader flowReader(flow);
    const int32_t span = call.last - call.first;

    // Float counters drive the arithmetic; the integer ones address memory and
    // bound the loops, so a counter that stops growing can't hang.
    float y = static_cast<float>(call.first);
    for (int32_t row = call.first; row <= call.last; ++row, y += 1.0f) {
        if (span > 0)
            rowProgress.ProgressIdle((y - static_cast<float>(call.first)) / static_cast<float>(span));
        uint8_t* out = call.output->Row(row) + PLOffset(call.x0, call.output->pixelStride);
        const uint8_t* sourceRow = source.Row(row);
        const float fy = y * invY;
        float x = static_cast<float>(call.x0);
        for (int32_t column = call.x0; column <= call.x1; ++column, x += 1.0f, out += kPixelBytes) {
            const PixelPlan plan = Plan<kBilinear>(flowReader, invX * x, fy, kx, ky);
            if (plan.still) {
                std::memcpy(out, sourceRow + PLOffset(column, kPixelBytes), kPixelBytes);
                continue;
            }
            const int32_t n = plan.n;
            const float stepX = plan.stepX;
            const float stepY = plan.stepY;
            PLLanes sums = {};
            float count = 0.0f;
            if constexpr (kBilinear) {
                Walk<P, C, true, kCountOutside>(src, x, y, stepX, stepY, n, sums, count);
                Walk<P, C, true, kCountOutside>(src, x - stepX, y - stepY, -stepX, -stepY, n - 1, sums,
                                                count);
            } else {
                Walk<P, C, false, kCountOutside>(src, x + 0.5f, y + 0.5f, stepX, stepY, n, sums, count);
                Walk<P, C, false, kCountOutside>(src, x + -stepX + 0.5f, y + -stepY + 0.5f, -stepX, -stepY,
                                                 n - 1, sums, count);
            }
            const float inv = 1.0f / count;
            for (int c = 0; c < C; ++c)
                StoreAverage<P>(out + c * static_cast<int32_t>(sizeof(T)), sums[c], inv);
        }
    }
}

// The smallest float above 1e-6: a float is below the double 1e-6 exactly
// when it is below this.
float StillBelow() {
    const float nearest = static_cast<float>(1e-06);
    return static_cast<double>(nearest) > 1e-06 ? nearest : std::nextafter(nearest, 1.0f);
}

// The wide walk (blur/wide_walk.h), once for each instruction-set path, in a
// region compiled for that path. Every helper in it is inlined, so no vector
// crosses a call, and GCC's note on how one would is moot.
#if defined(__x86_64__)
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC diagnostic ignored "-Wpsabi"
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace avx2 {
constexpr int kPixels = 2;
constexpr int kGroups = 4;
#include "blur/wide_walk.h"
}  // namespace avx2
#if defined(__clang__)
#pragma clang attribute pop
#pragma clang attribute push(__attribute__((target("avx2,avx512f,avx512vl,avx512bw,avx512dq"))), \
                             apply_to = function)
#else
#pragma GCC pop_options
#pragma GCC push_options
#pragma GCC target("avx2,avx512f,avx512vl,avx512bw,avx512dq")
#endif
namespace avx512 {
constexpr int kPixels = 4;
constexpr int kGroups = 4;
#include "blur/wide_walk.h"
// Float sources walk in strips, with the helpers above.
#include "blur/strip_walk.h"
}  // namespace avx512
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

// The wide walk addresses pixels in 32 bits and loads each with its right
// neighbour, so the source must fit and be two pixels wide.
bool WalksWide(const PLImage& image) {
    if (image.lastColumn < 1) return false;
    const int64_t pixelBytes = 4 * static_cast<int64_t>(image.bytesPerElement);
    const int64_t rowStep = image.rowStep < 0 ? -static_cast<int64_t>(image.rowStep) : image.rowStep;
    return static_cast<int64_t>(image.lastRow) * rowStep +
               static_cast<int64_t>(image.lastColumn) * pixelBytes <=
           INT32_MAX;
}
#endif

// One member of the family: its four bodies, chosen by edge rule then mode.
template <typename P, int C>
void BlurMember(const BlurCall& call, bool countOutside, bool bilinear) {
#if defined(__x86_64__)
    if constexpr (C == 4) {
        if (bilinear && !countOutside && WalksWide(*call.source)) {
            switch (PLActiveIsa()) {
                case PLIsaAvx512:
                    if constexpr (std::is_same_v<typename P::Element, float>)
                        return avx512::StripRows<P>(call);
                    else
                        return avx512::BlurRows<P>(call);
                case PLIsaAvx2:
                    return avx2::BlurRows<P>(call);
                default:
                    break;
            }
        }
    }
#endif
    if (countOutside) {
        if (bilinear) {
            BlurRows<P, C, true, true>(call);
        } else {
            BlurRows<P, C, false, true>(call);
        }
    } else {
        if (bilinear) {
            BlurRows<P, C, true, false>(call);
        } else {
            BlurRows<P, C, false, false>(call);
        }
    }
}

}  // namespace

void PLMotionBlurRows(int32_t, bool isFirstWorker, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    PLImage* output = args->next<PLImage*>();
    const PLImage* source = args->next<const PLImage*>();
    const PLImage* flow = args->next<const PLImage*>();
    const float* amount = args->next<const float*>();
    const int32_t* mode = args->next<const int32_t*>();
    QVIdleAndProgressClass* parent = args->next<QVIdleAndProgressClass*>();
    int32_t* status = args->next<int32_t*>();
    int32_t* interrupted = args->next<int32_t*>();
    const uint8_t* countOutside = args->next<const uint8_t*>();
    const int32_t* x0 = args->next<const int32_t*>();
    const int32_t* x1 = args->next<const int32_t*>();
    const int32_t* y0 = args->next<const int32_t*>();

    QVIldeAndProgressMPInterruptible progress(parent, isFirstWorker, interrupted);
    const BlurCall call{output, source, flow, *amount, *x0, *x1, firstRow + *y0, lastRow + *y0, &progress};
    const bool count = *countOutside != 0;
    const bool bilinear = *mode == PLBlurBilinear;
    // A pool thread has no handler above this one.
    try {
        PLVisitFormat(source->pixelType, source->numChannels, [&](auto format) {
            using Format = decltype(format);
            BlurMember<typename Format::Traits, Format::kChannels>(call, count, bilinear);
        });
    } catch (PLErr e) {
        __atomic_store_n(status, static_cast<int32_t>(e), __ATOMIC_RELAXED);
    }
}

void PLMotionBlurRegion(PLImage* output, const PLImage* source, const PLImage* flow, float amount,
                        int32_t mode, QVIdleAndProgressClass* progress, bool countOutside, int32_t x0,
                        int32_t x1, int32_t y0, int32_t y1) {
    if (!output || !source || !flow) throw PLErrFailed;
    if (!PLIsPathType(source->pixelType)) throw PLErrFailed;
    if (output->numChannels != source->numChannels || output->width != source->width ||
        output->height != source->height || output->pixelType != source->pixelType)
        throw PLErrFailed;
    if (flow->numChannels != 2 || flow->pixelType != PLPixelFloat) throw PLErrFailed;
    // An empty flow has nothing to read, and a region outside the images would
    // write outside them.
    if (flow->width < 1 || flow->height < 1 || !flow->data) throw PLErrFailed;
    if (x0 > x1 || y0 > y1) return;
    if (x0 < 0 || x1 > source->lastColumn || y0 < 0 || y1 > source->lastRow) throw PLErrFailed;

    int32_t status = 0;
    int32_t interrupted = 0;
    QVIdleAndProgressClass child(progress);
    const uint8_t countOutsideFlag = countOutside ? 1 : 0;
    const int32_t rowCount = y1 - y0 + 1;
    kqmp_dispatch(kqmp_threadsfor(rowCount), rowCount, PLMotionBlurRows, output, source, flow, &amount, &mode,
                  static_cast<QVIdleAndProgressClass*>(&child), &status, &interrupted, &countOutsideFlag, &x0,
                  &x1, &y0);
    const int32_t code = __atomic_load_n(&status, __ATOMIC_RELAXED);
    if (code != 0) throw static_cast<PLErr>(code);
}

void PLMotionBlur(PLImage* output, const PLImage* source, const PLImage* flow, int32_t mode, int32_t,
                  QVIdleAndProgressClass* progress, bool countOutside, float amount) {
    if (!source) throw PLErrFailed;
    PLMotionBlurRegion(output, source, flow, amount, mode, progress, countOutside, 0, source->lastColumn, 0,
                       source->lastRow);
}
