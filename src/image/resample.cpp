// The bilinear resampler: one image written from another of any size, pixel
// type and white point, corners meeting corners. It resolves the formats once
// per call and runs one loop per combination, each instantiated from a single
// template.
#include "image/resample.h"

#include <cstddef>

#include "image/bilinear.h"
#include "image/pixel_format.h"
#include "mp/isa_rows.h"
#include "mp/kqmp.h"

namespace {

// Source position of destination coordinate x at `step` source samples per
// destination sample. A source one sample wide, or a position that isn't a
// number, reads its first sample for both taps, which gives that sample.
inline PLCellTap MapCoordinate(int32_t x, float step, int32_t last) {
    return PLLastCellTap<PLBeforeFirst::kRepeatFirst>(static_cast<float>(x) * step, last);
}

// Destination columns a resampling worker maps at a time: their source taps
// and the interpolation of two source rows across them fit on the stack.
constexpr int32_t kResampleSpan = 128;

// Byte offsets of a destination column's two source samples in a source row,
// and the fraction between them.
struct ColumnTap {
    ptrdiff_t left;
    ptrdiff_t right;
    float fraction;
};

// Walks the destination a span of columns at a time, mapping each column
// once for all rows. Below four channels the horizontal step is
// (b - a) * fx + a on a source row, so each source row is interpolated once
// and kept while consecutive destination rows share it; the vertical step
// then runs across the row. Four channels weight the corners directly.
template <typename DstPixel, int C, typename SrcPixel, bool Scaled>
PL_INLINE_HOT void ResampleRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    using D = typename DstPixel::Element;
    using S = typename SrcPixel::Element;
    const PLImage* dst = args->next<PLImage*>();
    const PLImage* src = args->next<const PLImage*>();
    const float* factors = args->next<const float*>();
    const float stepX = factors[0];
    const float stepY = factors[1];
    const float ratio = factors[2];
    constexpr int32_t srcPixel = C * static_cast<int32_t>(sizeof(S));
    for (int32_t first = 0; first < dst->width; first += kResampleSpan) {
        const int32_t span = dst->width - first < kResampleSpan ? dst->width - first : kResampleSpan;
        ColumnTap columns[kResampleSpan];
        for (int32_t x = 0; x < span; ++x) {
            const PLCellTap tx = MapCoordinate(first + x, stepX, src->lastColumn);
            const ptrdiff_t left = PLOffset(tx.index, srcPixel);
            columns[x] = {left, left + tx.next * srcPixel, tx.fraction};
        }
        const ptrdiff_t outOffset = static_cast<ptrdiff_t>(first) * C * static_cast<ptrdiff_t>(sizeof(D));
        float across[2][kResampleSpan * C];
        int32_t held[2] = {-1, -1};
        // Source row `row` (at `at`) interpolated across the span, evicting
        // the slot that does not hold `keep`.
        auto interpolated = [&](int32_t row, const uint8_t* at, int32_t keep) -> const float* {
            for (int32_t s = 0; s < 2; ++s)
                if (held[s] == row) return across[s];
            const int32_t s = held[0] == keep ? 1 : 0;
            for (int32_t x = 0; x < span; ++x)
                for (int32_t c = 0; c < C; ++c) {
                    const size_t e = static_cast<size_t>(c) * sizeof(S);
                    const float a = SrcPixel::LoadFloat(at + columns[x].left + e);
                    const float b = SrcPixel::LoadFloat(at + columns[x].right + e);
                    across[s][x * C + c] = (b - a) * columns[x].fraction + a;
                }
            held[s] = row;
            return across[s];
        };
        for (int32_t y = firstRow; y <= lastRow; ++y) {
            const PLCellTap ty = MapCoordinate(y, stepY, src->lastRow);
            const float fy = ty.fraction;
            const uint8_t* upper = src->Row(ty.index);
            const uint8_t* lower = upper + (ty.next ? src->rowStep : 0);
            uint8_t* out = dst->Row(y) + outOffset;
            if constexpr (C == 4) {
                for (int32_t x = 0; x < span; ++x, out += C * sizeof(D)) {
                    const float fx = columns[x].fraction;
                    const float wa = (1.0f - fx) - fy + fx * fy;
                    const float wb = fx - fx * fy;
                    const float wc = fy - fx * fy;
                    const float wd = fx * fy;
                    for (int32_t c = 0; c < C; ++c) {
                        const size_t e = static_cast<size_t>(c) * sizeof(S);
                        const float a = SrcPixel::LoadFloat(upper + columns[x].left + e);
                        const float b = SrcPixel::LoadFloat(upper + columns[x].right + e);
                        const float cl = SrcPixel::LoadFloat(lower + columns[x].left + e);
                        const float d = SrcPixel::LoadFloat(lower + columns[x].right + e);
                        float value = a * wa + b * wb + cl * wc + d * wd;
                        if constexpr (Scaled) value = value * ratio;
                        DstPixel::Store(out + static_cast<size_t>(c) * sizeof(D), DstPixel::Round(value));
                    }
                }
            } else {
                const int32_t lowerRow = ty.index + ty.next;
                const float* top = interpolated(ty.index, upper, lowerRow);
                const float* bottom = interpolated(lowerRow, lower, ty.index);
                for (int32_t m = 0; m < span * C; ++m) {
                    float value = (bottom[m] - top[m]) * fy + top[m];
                    if constexpr (Scaled) value = value * ratio;
                    DstPixel::Store(out + static_cast<ptrdiff_t>(m) * static_cast<ptrdiff_t>(sizeof(D)),
                                    DstPixel::Round(value));
                }
            }
        }
    }
}

}  // namespace

void PLResampleWithSteps(PLImage* dst, const PLImage* src, float stepX, float stepY) {
    if (!dst || !src || !PLIsPathType(dst->pixelType) || !PLIsPathType(src->pixelType)) return;
    if (dst->numChannels < 1 || dst->numChannels > 4 || dst->numChannels != src->numChannels) return;
    if (src->width < 1 || src->height < 1 || dst->width < 1) return;
    const bool scaled = src->whitePoint != dst->whitePoint;
    const float factors[3] = {stepX, stepY, dst->whitePoint / src->whitePoint};
    // Every member: destination format x source type x (equal, different white points).
    PLVisitFormat(dst->pixelType, dst->numChannels, [&](auto dstFormat) {
        using DstFormat = decltype(dstFormat);
        PLVisitPixelType(src->pixelType, [&](auto srcPixel) {
            using DstPixel = typename DstFormat::Traits;
            constexpr int C = DstFormat::kChannels;
            using SrcPixel = decltype(srcPixel);
            kqmp_worker* const worker = scaled ? kqmp_forisa<ResampleRows<DstPixel, C, SrcPixel, true>>()
                                               : kqmp_forisa<ResampleRows<DstPixel, C, SrcPixel, false>>();
            kqmp_runrows(dst->height, worker, dst, src, static_cast<const float*>(factors));
        });
    });
}

void PLResample(PLImage* dst, const PLImage* src) {
    if (!dst || !src) return;
    if (dst->numChannels != src->numChannels) throw PLErrFailed;
    PLResampleWithSteps(dst, src, PLCornerStep(dst->width, src->width),
                        PLCornerStep(dst->height, src->height));
}

float PLCornerStep(int32_t dst, int32_t src) {
    // A destination one pixel long has no span to divide by; its only pixel
    // takes the source's first.
    return dst == 1 ? 0.0f : static_cast<float>(src - 1) / static_cast<float>(dst - 1);
}
