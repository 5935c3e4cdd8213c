// The bilinear read with the last-cell rule, shared by the blur, the mesh warp
// and the resampler. A coordinate u on an axis of samples 0..last is split
// into an index (u truncated) and a fraction; in the cell one short of the
// end, and past it, the index becomes last - 1 and the fraction 1.0, so the
// last sample comes out exact while the read stays inside the image.
//
// Below the first sample (a negative or NaN coordinate, or an axis one sample
// long) the three families have always differed, each guarding input its
// callers never give; the rule is named so that each keeps its own.
#pragma once

#include <cstdint>

#include "image/lanes.h"
#include "image/pixel_format.h"
#include "image/plconvert.h"
#include "image/plimage.h"

enum class PLBeforeFirst {
    kKeepFraction,  // index 0 with the fraction as computed (the blur)
    kFirstSample,   // index 0 with fraction 0: the first sample itself (the mesh warp)
    kRepeatFirst,   // index 0 whose neighbour is itself (the resampler)
};

// One axis of a read: the sample, whether its neighbour is the next sample
// (1) or itself (0), and the fraction between the two.
struct PLCellTap {
    int32_t index;
    int32_t next;
    float fraction;
};

// kInside: the caller has found 0 <= u < last + 1, so the plain conversion is
// defined. Elsewhere u may be NaN or out of the int32 range.
template <PLBeforeFirst Rule, bool kInside = false>
inline PLCellTap PLLastCellTap(float u, int32_t last) {
    int32_t i;
    if constexpr (kInside)
        i = static_cast<int32_t>(u);
    else
        i = PLTruncI32(u);
    float f = u - static_cast<float>(i);
    if (i >= last) {
        i = last - 1;
        f = 1.0f;
    }
    // An axis of one sample gives -1 above, a NaN coordinate INT_MIN.
    const int32_t next = last > 0 ? 1 : 0;
    if (i < 0) {
        if constexpr (Rule == PLBeforeFirst::kFirstSample) return {0, next, 0.0f};
        if constexpr (Rule == PLBeforeFirst::kRepeatFirst) return {0, 0, f};
        return {0, next, f};
    }
    return {i, next, f};
}

// Bilinear reads of the first C channels of an image of pixel traits P, all
// channels at once in lanes: per channel, top = (right - left) * fx + left on
// the upper row, bottom likewise, value = (bottom - top) * fy + top. Pixels
// lie C elements apart, a constant the compiler folds into the addressing,
// unless kImageStride asks for the image's own pixel stride (a flow of more
// than two channels read for its first two).
template <typename P, int C, PLBeforeFirst Rule, bool kImageStride = false>
class PLBilinearReader {
  public:
    explicit PLBilinearReader(const PLImage& image)
        : row0_(image.Row(0)),
          rowStep_(image.rowStep),
          stride_(kImageStride ? image.pixelStride : kPixelBytes),
          lastColumn_(image.lastColumn),
          lastRow_(image.lastRow),
          right_(image.lastColumn > 0 ? Stride() : 0),
          down_(image.lastRow > 0 ? image.rowStep : 0) {}

    template <bool kInside = false>
    PLLanes Read(float fx, float fy) const {
        const PLCellTap tx = PLLastCellTap<Rule, kInside>(fx, lastColumn_);
        const PLCellTap ty = PLLastCellTap<Rule, kInside>(fy, lastRow_);
        const uint8_t* p = row0_ + PLOffset(ty.index, rowStep_) + PLOffset(tx.index, Stride());
        const uint8_t* q = p + down_;
        const PLLanes p0 = PLLoadLanes<Element, C>(p);
        const PLLanes q0 = PLLoadLanes<Element, C>(q);
        const PLLanes a = (PLLoadLanes<Element, C>(p + right_) - p0) * tx.fraction + p0;
        const PLLanes b = (PLLoadLanes<Element, C>(q + right_) - q0) * tx.fraction + q0;
        return (b - a) * ty.fraction + a;
    }

  private:
    using Element = typename P::Element;
    static constexpr int32_t kPixelBytes = C * static_cast<int32_t>(sizeof(Element));
    int32_t Stride() const {
        if constexpr (kImageStride)
            return stride_;
        else
            return kPixelBytes;
    }
    const uint8_t* row0_;
    int32_t rowStep_;
    int32_t stride_;
    int32_t lastColumn_;
    int32_t lastRow_;
    int32_t right_;
    int32_t down_;
};
