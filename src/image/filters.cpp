// The separable filter and its kernel makers. The filter resolves pixel type
// and direction once per call and runs one loop per combination, each
// instantiated from a single template; lines go through per-thread float
// buffers, so the convolution runs on contiguous floats whatever the layout.
#include "image/filters.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "base/isa.h"
#include "base/qvmem.h"
#include "image/bilinear.h"
#include "image/pixel_format.h"
#include "image/resample.h"
#include "mp/kqmp.h"

namespace {

// Floats past the end of a line in each buffer: the interior sum of a kernel
// with more than 2r + 1 taps (the box of a fractional radius) reads beyond the
// line, and finds zeros there.
constexpr int32_t kLineSlack = 20;
// Largest radius whose tap count and buffer arithmetic stay inside int32.
constexpr int32_t kMaxRadius = (INT32_MAX - 2 * kLineSlack - 3) / 2;
// Adjacent columns the column pass filters together: a row of the block is
// read from one or two cache lines instead of one line per column.
constexpr int32_t kColumnLanes = 16;
// Registers of interior outputs summed together, tap by tap: four chains of
// additions under way at once rather than one waiting on the last.
constexpr int32_t kInteriorVectors = 4;

// Floats in each of a thread's two line buffers: room for a row of all
// channels, or for a block of up to kColumnLanes interleaved element columns,
// each with its slack.
size_t LineBufferFloats(const PLImage* image, int32_t r) {
    const size_t channels = static_cast<size_t>(image->numChannels);
    const size_t width = static_cast<size_t>(image->width);
    const size_t height = static_cast<size_t>(image->height);
    const size_t line =
        ((width > height ? width : height) + kLineSlack + 2 * static_cast<size_t>(r)) * channels;
    const size_t lanes = width * channels < kColumnLanes ? width * channels : kColumnLanes;
    const size_t block = lanes * (height + kLineSlack);
    return line > block ? line : block;
}

// One renormalised edge output of every lane: taps j from `first` to `last`
// (either way), in that order, with tap index r + j - i.
PL_INLINE_HOT void FilterEdge(const float* in, float* out, int32_t lanes, const float* w, int32_t r,
                              int32_t i, int32_t first, int32_t last) {
    float sum[kColumnLanes];
    for (int32_t k = 0; k < lanes; ++k) sum[k] = 0.0f;
    float norm = 0.0f;
    const int32_t step = first <= last ? 1 : -1;
    for (int32_t j = first;; j += step) {
        const float wt = w[r + j - i];
        norm += wt;
        const float* p = in + static_cast<ptrdiff_t>(j) * lanes;
        for (int32_t k = 0; k < lanes; ++k) sum[k] += p[k] * wt;
        if (j == last) break;
    }
    float* o = out + static_cast<ptrdiff_t>(i) * lanes;
    for (int32_t k = 0; k < lanes; ++k) o[k] = sum[k] / norm;
}

// W adjacent floats (4, 8 or 16: one SSE, AVX2 or AVX-512 register),
// multiplied and added lane by lane: each lane does exactly the scalar
// operation (no contraction).
// (An alias template would drop the attribute: the size depends on W.)
template <int32_t W>
struct FloatVectorOf;
template <>
struct FloatVectorOf<4> {
    using Type = float __attribute__((vector_size(16)));
};
template <>
struct FloatVectorOf<8> {
    using Type = float __attribute__((vector_size(32)));
};
template <>
struct FloatVectorOf<16> {
    using Type = float __attribute__((vector_size(64)));
};
template <int32_t W>
using FloatVector = typename FloatVectorOf<W>::Type;

// Interior outputs m to m + kVectors * W - 1 of interleaved lines: each
// sums its taps from 0 in tap order, without a division, in registers.
template <int32_t W, int32_t kVectors>
PL_INLINE_HOT void FilterInteriorBlock(const float* in, float* out, ptrdiff_t m, int32_t lanes,
                                       const float* w, int32_t taps, int32_t r) {
    static_assert(sizeof(FloatVector<W>) == W * sizeof(float), "whole registers");
    FloatVector<W> sum[kVectors];
    for (FloatVector<W>& v : sum) v = FloatVector<W>{};
    const float* p = in + m - static_cast<ptrdiff_t>(r) * lanes;
    for (int32_t t = 0; t < taps; ++t, p += lanes) {
        const float wt = w[t];
        for (int32_t q = 0; q < kVectors; ++q) {
            FloatVector<W> v;
            std::memcpy(&v, p + W * q, sizeof v);
            sum[q] += v * wt;
        }
    }
    std::memcpy(out + m, sum, sizeof sum);
}

// Convolves `lanes` interleaved lines of n samples (sample i of lane k at
// i * lanes + k) with taps weights centred by r. Taps that fall off the line
// are dropped and the rest renormalised; the interior needs no division
// because the kernels are normalised. Every output is the same sum in the
// same tap order whatever the lane count.
template <int32_t W>
PL_INLINE_HOT void FilterLine(const float* in, float* out, int32_t n, int32_t lanes, const float* w,
                              int32_t taps, int32_t r) {
    for (int32_t i = 0; i < r && i < n; ++i)
        FilterEdge(in, out, lanes, w, r, i, 0, i + r < n ? i + r : n - 1);
    // A line shorter than r has no right edge: its loop starts below 0 and stops.
    if (n - r >= 0)
        for (int32_t i = n - r; i <= n - 1; ++i)
            FilterEdge(in, out, lanes, w, r, i, n - 1, i - r > 0 ? i - r : 0);
    // Blocks of neighbouring outputs (along the line or across lanes alike)
    // keep their sums in registers and vectorise.
    const ptrdiff_t end = static_cast<ptrdiff_t>(n - r) * lanes;
    ptrdiff_t m = static_cast<ptrdiff_t>(r) * lanes;
    for (; end - m >= kInteriorVectors * W; m += kInteriorVectors * W)
        FilterInteriorBlock<W, kInteriorVectors>(in, out, m, lanes, w, taps, r);
    for (; end - m >= W; m += W) FilterInteriorBlock<W, 1>(in, out, m, lanes, w, taps, r);
    for (; m < end; ++m) {
        float sum = 0.0f;
        const float* p = in + m - static_cast<ptrdiff_t>(r) * lanes;
        for (int32_t t = 0; t < taps; ++t, p += lanes) sum += *p * w[t];
        out[m] = sum;
    }
}

// One pass over rows (Columns false) or columns, through this thread's pair of
// line buffers. A row's channels are filtered together, as interleaved lines;
// the column pass runs on a one-channel view of the image (every element its
// own column) and takes up to kColumnLanes adjacent columns at a time,
// interleaved, so that it reads along rows. Every element is the same sum in
// the same order as when each channel is filtered alone. Packed images (one
// channel) have adjacent elements along a row, which lets the moves between
// image and buffer vectorise.
template <typename P, bool Columns, bool Packed, int32_t W>
PL_INLINE_HOT void FilterLines(int32_t threadIndex, int32_t firstLine, int32_t lastLine, kqmp_args* args) {
    using T = typename P::Element;
    const PLImage* image = args->next<PLImage*>();
    const float* kernel = args->next<const float*>();
    const int32_t taps = args->next<int32_t>();
    const int32_t r = args->next<int32_t>();
    const size_t bufferFloats = *args->next<const size_t*>();
    float* buffers = args->next<float*>();

    float* in = buffers + 2 * bufferFloats * static_cast<size_t>(threadIndex);
    float* out = in + bufferFloats;
    const int32_t n = Columns ? image->height : image->width;
    const ptrdiff_t pixel = Packed ? static_cast<ptrdiff_t>(sizeof(T)) : image->pixelStride;
    const int32_t pastLine = taps - (2 * r + 1);
    // Lanes of a block: a row's channels, or neighbouring columns.
    const ptrdiff_t laneStep = Columns ? pixel : static_cast<ptrdiff_t>(sizeof(T));
    // Sample i of a line, from the line's first sample; a column's rows honour `flipped`.
    auto along = [=](int32_t i) -> ptrdiff_t {
        return Columns ? PLOffset(i, image->rowStep) : static_cast<ptrdiff_t>(i) * pixel;
    };
    auto lineStart = [=](int32_t line) -> uint8_t* {
        return Columns ? image->Row(0) + PLOffset(line, image->pixelStride) : image->Row(line);
    };
    for (int32_t line = firstLine; line <= lastLine;) {
        const int32_t remaining = lastLine - line + 1;
        const int32_t lanes = !Columns                   ? image->numChannels
                              : remaining < kColumnLanes ? remaining
                                                         : kColumnLanes;
        // A dense row, or a full block of columns, moves in runs of adjacent
        // elements whose length the compiler knows, so the moves vectorise.
        const bool denseRow = !Columns && pixel == lanes * static_cast<ptrdiff_t>(sizeof(T));
        const bool fullBlock = Columns && Packed && lanes == kColumnLanes;
        const uint8_t* read = lineStart(line);
        if (denseRow) {
            for (ptrdiff_t m = 0; m < static_cast<ptrdiff_t>(n) * lanes; ++m)
                in[m] = P::LoadFloat(read + m * static_cast<ptrdiff_t>(sizeof(T)));
        } else if (fullBlock) {
            for (int32_t i = 0; i < n; ++i) {
                const uint8_t* from = read + along(i);
                float* to = in + static_cast<ptrdiff_t>(i) * kColumnLanes;
                for (int32_t k = 0; k < kColumnLanes; ++k) to[k] = P::LoadFloat(from + k * sizeof(T));
            }
        } else {
            for (int32_t i = 0; i < n; ++i) {
                const uint8_t* from = read + along(i);
                float* to = in + static_cast<ptrdiff_t>(i) * lanes;
                for (int32_t k = 0; k < lanes; ++k) to[k] = P::LoadFloat(from + k * laneStep);
            }
        }
        for (ptrdiff_t m = 0; m < static_cast<ptrdiff_t>(pastLine) * lanes; ++m)
            in[static_cast<ptrdiff_t>(n) * lanes + m] = 0.0f;
        FilterLine<W>(in, out, n, lanes, kernel, taps, r);
        uint8_t* start = lineStart(line);
        if (denseRow) {
            for (ptrdiff_t m = 0; m < static_cast<ptrdiff_t>(n) * lanes; ++m)
                P::Store(start + m * static_cast<ptrdiff_t>(sizeof(T)), P::Round(out[m]));
        } else if (fullBlock) {
            for (int32_t i = 0; i < n; ++i) {
                uint8_t* to = start + along(i);
                const float* from = out + static_cast<ptrdiff_t>(i) * kColumnLanes;
                for (int32_t k = 0; k < kColumnLanes; ++k) P::Store(to + k * sizeof(T), P::Round(from[k]));
            }
        } else {
            for (int32_t i = 0; i < n; ++i) {
                uint8_t* to = start + along(i);
                const float* from = out + static_cast<ptrdiff_t>(i) * lanes;
                for (int32_t k = 0; k < lanes; ++k) P::Store(to + k * laneStep, P::Round(from[k]));
            }
        }
        line += Columns ? lanes : 1;  // a row pass's lanes are channels of one row
    }
}

// Every pass is built for each path from one body, Pass::Run<W> with W
// floats to a register: 4 (SSE2), 8 (AVX2) or 16 (AVX-512). Run is inlined,
// so it compiles for the path of the function it is built into.
template <typename Pass>
void OnBaseline(int32_t threadIndex, bool, int32_t first, int32_t last, kqmp_args* args) {
    Pass::template Run<4>(threadIndex, first, last, args);
}
template <typename Pass>
PL_TARGET_AVX2 void OnAvx2(int32_t threadIndex, bool, int32_t first, int32_t last, kqmp_args* args) {
    Pass::template Run<8>(threadIndex, first, last, args);
}
template <typename Pass>
PL_TARGET_AVX512 void OnAvx512(int32_t threadIndex, bool, int32_t first, int32_t last, kqmp_args* args) {
    Pass::template Run<16>(threadIndex, first, last, args);
}

template <typename Pass>
kqmp_worker* ForPath() {
    switch (PLActiveIsa()) {
        case PLIsaAvx512:
            return OnAvx512<Pass>;
        case PLIsaAvx2:
            return OnAvx2<Pass>;
        default:
            return OnBaseline<Pass>;
    }
}

template <typename P, bool Columns, bool Packed>
struct LinePassOf {
    template <int32_t W>
    PL_INLINE_HOT static void Run(int32_t threadIndex, int32_t first, int32_t last, kqmp_args* args) {
        FilterLines<P, Columns, Packed, W>(threadIndex, first, last, args);
    }
};

template <typename P, bool Columns>
kqmp_worker* LinePass(const PLImage* image) {
    return image->pixelStride == static_cast<int32_t>(sizeof(typename P::Element))
               ? ForPath<LinePassOf<P, Columns, true>>()
               : ForPath<LinePassOf<P, Columns, false>>();
}

// The hole smoothing's two passes (PLGaussianBlurHoles) on float images, a
// pixel known where its weight is non-zero and then worth value / weight.
// The row pass leaves each known pixel's quotient in the image and the rows
// filtered in `values`; the column pass then runs along rows, reading the
// filtered rows around each output row, and writes only the holes. Every
// image is read and written in row order.
struct HoleJob {
    PLImage* image;
    PLImage* values;
    const PLImage* weights;
    const float* kernel;
    int32_t taps;
    int32_t r;
};

// The quotient is taken by 1 where the weight is zero and thrown away, so
// that the loops vectorise without a branch.
PL_INLINE_HOT float KnownOr(float weight, float value, float otherwise) {
    const bool known = weight != 0.0f;
    const float quotient = value / (known ? weight : 1.0f);
    return known ? quotient : otherwise;
}

using Lanes = FloatVector<kColumnLanes>;
using PixelWeights = FloatVector<kColumnLanes / 2>;

// KnownOr of kColumnLanes / 2 two-channel pixels whose weights are at `w`.
// (Vectors stay in memory operands: an AVX-512 vector returned by value
// changes the ABI.)
PL_INLINE_HOT void KnownOrPairs(const float* w, const float* value, const float* otherwise, float* to) {
    PixelWeights pixels;
    std::memcpy(&pixels, w, sizeof pixels);
    const Lanes weight =
        __builtin_shufflevector(pixels, pixels, 0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7);
    Lanes v, o;
    std::memcpy(&v, value, sizeof v);
    std::memcpy(&o, otherwise, sizeof o);
    const auto known = weight != 0.0f;
    const Lanes quotient = v / (known ? weight : Lanes{} + 1.0f);
    const Lanes result = known ? quotient : o;
    std::memcpy(to, &result, sizeof result);
}

template <int32_t W>
PL_INLINE_HOT void HoleRows(int32_t, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const HoleJob& at = *args->next<const HoleJob*>();
    const float* kernel = at.kernel;
    const int32_t taps = at.taps;
    const int32_t r = at.r;

    const int32_t n = at.image->width;
    const int32_t lanes = at.image->numChannels;
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        float* f = reinterpret_cast<float*>(at.image->Row(y));
        float* v = reinterpret_cast<float*>(at.values->Row(y));
        const float* w = reinterpret_cast<const float*>(at.weights->Row(y));
        int32_t x = 0;
        if (lanes == 2)
            for (; x + kColumnLanes / 2 <= n; x += kColumnLanes / 2)
                KnownOrPairs(w + x, v + 2 * x, f + 2 * x, f + 2 * x);
        for (; x < n; ++x)
            for (int32_t c = 0; c < lanes; ++c) {
                const ptrdiff_t m = static_cast<ptrdiff_t>(x) * lanes + c;
                f[m] = KnownOr(w[x], v[m], f[m]);
            }
        // The row's values are read; its filtered row goes in their place.
        FilterLine<W>(f, v, n, lanes, kernel, taps, r);
    }
}

// The taps of output i of a column of n filtered rows, as FilterLine takes
// them: add(row, weight) for each. An edge output (true), whose taps are
// summed from the line's end inward and the right edge winning over the
// left, is then divided by `norm`; the interior sums its taps from 0 in tap
// order and is not divided.
template <typename Add>
PL_INLINE_HOT bool ColumnTaps(int32_t n, int32_t i, const float* kernel, int32_t taps, int32_t r, float& norm,
                              Add add) {
    norm = 0.0f;
    const bool right = n - r >= 0 && i >= n - r;
    if (!right && i >= r) {
        for (int32_t t = 0; t < taps; ++t) add(i - r + t, kernel[t]);
        return false;
    }
    const int32_t first = right ? n - 1 : 0;
    const int32_t last = right ? (i - r > 0 ? i - r : 0) : (i + r < n ? i + r : n - 1);
    const int32_t step = right ? -1 : 1;
    for (int32_t j = first;; j += step) {
        norm += kernel[r + j - i];
        add(j, kernel[r + j - i]);
        if (j == last) break;
    }
    return true;
}

// Output row i of kLanes elements from element `e` of the n filtered
// rows rowOf(j), as FilterLine gives it along a column: the right edge,
// summed from the far end, wins over the left; the interior sums its taps
// from 0 in tap order.
template <int32_t W, int32_t kLanes = kColumnLanes, typename RowOf>
PL_INLINE_HOT void ColumnOutputs(RowOf rowOf, int32_t n, ptrdiff_t e, int32_t i, const float* kernel,
                                 int32_t taps, int32_t r, float* out) {
    constexpr int32_t kVectors = kLanes / W;
    FloatVector<W> sum[kVectors];
    for (FloatVector<W>& v : sum) v = FloatVector<W>{};
    float norm;
    const bool edge =
        ColumnTaps(n, i, kernel, taps, r, norm, [&](int32_t row, float weight) PL_LAMBDA_INLINE {
            const float* p = rowOf(row) + e;
            for (int32_t q = 0; q < kVectors; ++q) {
                FloatVector<W> v;
                std::memcpy(&v, p + W * q, sizeof v);
                sum[q] += v * weight;
            }
        });
    if (edge)
        for (FloatVector<W>& v : sum) v = v / norm;
    std::memcpy(out, sum, sizeof sum);
}

// The same for one element, the tail of a row.
template <typename RowOf>
PL_INLINE_HOT float ColumnOutput(RowOf rowOf, int32_t n, ptrdiff_t e, int32_t i, const float* kernel,
                                 int32_t taps, int32_t r) {
    float sum = 0.0f;
    float norm;
    const bool edge =
        ColumnTaps(n, i, kernel, taps, r, norm,
                   [&](int32_t row, float weight) PL_LAMBDA_INLINE { sum += rowOf(row)[e] * weight; });
    return edge ? sum / norm : sum;
}

// Whether any of kColumnLanes / 2 pixels is a hole, through whole words:
// the compiler would take the comparison apart lane by lane.
PL_INLINE_HOT bool AnyHole(const PixelWeights& pixels) {
    const auto zero = pixels == 0.0f;
    uint64_t words[sizeof zero / sizeof(uint64_t)];
    std::memcpy(words, &zero, sizeof words);
    uint64_t any = 0;
    for (uint64_t word : words) any |= word;
    return any != 0;
}

// Columns, one output row at a time: runs of kColumnLanes elements that hold
// no hole are skipped, as known pixels already hold their quotient. The
// filtered row the next rows will need first is fetched ahead: the runs read
// are too scattered for the hardware to see a stream.
template <int32_t W>
PL_INLINE_HOT void HoleColumns(int32_t, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const HoleJob& at = *args->next<const HoleJob*>();
    const float* kernel = at.kernel;
    const int32_t taps = at.taps;
    const int32_t r = at.r;

    const int32_t width = at.image->width;
    const int32_t channels = at.image->numChannels;
    const ptrdiff_t elements = static_cast<ptrdiff_t>(width) * channels;
    constexpr int32_t kAhead = 2;
    const int32_t n = at.values->height;
    auto rowOf = [&](int32_t row)
                     PL_LAMBDA_INLINE { return reinterpret_cast<const float*>(at.values->Row(row)); };
    for (int32_t i = firstRow; i <= lastRow; ++i) {
        float* f = reinterpret_cast<float*>(at.image->Row(i));
        const float* w = reinterpret_cast<const float*>(at.weights->Row(i));
        const int32_t fetched = i + r + kAhead;
        const float* ahead =
            fetched < at.values->height ? reinterpret_cast<const float*>(at.values->Row(fetched)) : nullptr;
        ptrdiff_t e = 0;
        for (; e + kColumnLanes <= elements; e += kColumnLanes) {
            if (ahead) __builtin_prefetch(ahead + e);
            float sums[kColumnLanes];
            if (channels == 2) {
                PixelWeights pixels;
                std::memcpy(&pixels, w + e / 2, sizeof pixels);
                if (!AnyHole(pixels)) continue;
                ColumnOutputs<W>(rowOf, n, e, i, kernel, taps, r, sums);
                const Lanes weight =
                    __builtin_shufflevector(pixels, pixels, 0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7);
                Lanes kept, smoothed;
                std::memcpy(&kept, f + e, sizeof kept);
                std::memcpy(&smoothed, sums, sizeof smoothed);
                const Lanes result = weight == 0.0f ? smoothed : kept;
                std::memcpy(f + e, &result, sizeof result);
                continue;
            }
            const int32_t firstPixel = static_cast<int32_t>(e / channels);
            const int32_t lastPixel = static_cast<int32_t>((e + kColumnLanes - 1) / channels);
            bool hole = false;
            for (int32_t x = firstPixel; x <= lastPixel; ++x) hole |= w[x] == 0.0f;
            if (!hole) continue;
            ColumnOutputs<W>(rowOf, n, e, i, kernel, taps, r, sums);
            for (int32_t k = 0; k < kColumnLanes; ++k)
                if (w[(e + k) / channels] == 0.0f) f[e + k] = sums[k];
        }
        for (; e < elements; ++e)
            if (w[e / channels] == 0.0f) f[e] = ColumnOutput(rowOf, n, e, i, kernel, taps, r);
    }
}

// The reduce (PLBinomial5Reduce): each worker walks its destination rows
// down. Source rows are row-filtered once each into a ring of the 2r + 1 the
// column filter reads, the column filter makes each source row the resampler
// reads when it first needs it, and the resampler's two steps follow, as
// PLResample takes them for fewer than four channels. No full-size image is
// written between the steps.
constexpr int32_t kReduceRadius = 2;
constexpr int32_t kReduceTaps = 2 * kReduceRadius + 1;

struct ReduceJob {
    PLImage* to;
    const PLImage* from;
    const PLCellTap* columns;  // the resampler's horizontal taps, one per destination column
    const float* fractions;    // their fractions again, side by side, with a register's slack
    const int32_t* evenTo;     // the last column of the run of taps two pixels apart that each starts
    float stepY;
    bool scaled;
    float ratio;
    const float* kernel;  // kReduceTaps taps
    size_t threadFloats;
    float* scratch;
};

PL_INLINE_HOT float StoredFloat(float v) {
    return PLPixel<PLPixelFloat>::Round(v);
}

// Source row `blurred` interpolated across into `line` at the resampler's
// horizontal taps, C channels a pixel. Where W / C taps in a row read pixels
// two apart, as a halving mostly does, they take two registers of the row
// and sort them into the left and right pixels.
template <int32_t W, int32_t C, size_t... I>
PL_INLINE_HOT void InterpolateRun(const float* from, const float* fractions, float* to,
                                  std::index_sequence<I...>) {
    FloatVector<W> first, second, fraction;
    std::memcpy(&first, from, sizeof first);
    std::memcpy(&second, from + W, sizeof second);
    std::memcpy(&fraction, fractions, sizeof fraction);
    FloatVector<W> a, b, f;
    if constexpr (C == 1) {
        a = __builtin_shufflevector(first, second, (2 * I)...);
        b = __builtin_shufflevector(first, second, (2 * I + 1)...);
        f = fraction;
    } else {
        a = __builtin_shufflevector(first, second, (4 * (I / 2) + I % 2)...);
        b = __builtin_shufflevector(first, second, (4 * (I / 2) + 2 + I % 2)...);
        f = __builtin_shufflevector(fraction, fraction, (I / 2)...);
    }
    const FloatVector<W> result = (b - a) * f + a;
    std::memcpy(to, &result, sizeof result);
}

template <int32_t W, int32_t C>
PL_INLINE_HOT void InterpolateAcross(const float* blurred, const ReduceJob& job, int32_t width, float* line) {
    constexpr int32_t kRun = W / C;
    int32_t x = 0;
    while (x < width) {
        if constexpr (C <= 2) {
            if (job.evenTo[x] - x >= kRun - 1) {
                InterpolateRun<W, C>(blurred + static_cast<ptrdiff_t>(job.columns[x].index) * C,
                                     job.fractions + x, line + static_cast<ptrdiff_t>(x) * C,
                                     std::make_index_sequence<W>());
                x += kRun;
                continue;
            }
        }
        const PLCellTap& tx = job.columns[x];
        const float* a = blurred + static_cast<ptrdiff_t>(tx.index) * C;
        const float* b = a + static_cast<ptrdiff_t>(tx.next) * C;
        for (int32_t c = 0; c < C; ++c)
            line[static_cast<ptrdiff_t>(x) * C + c] = (b[c] - a[c]) * tx.fraction + a[c];
        ++x;
    }
}

template <int32_t W>
PL_INLINE_HOT void ReduceRows(int32_t threadIndex, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const ReduceJob& job = *args->next<const ReduceJob*>();
    const PLImage& from = *job.from;
    const PLImage& to = *job.to;
    const int32_t channels = from.numChannels;
    const int32_t n = from.width;
    const int32_t rows = from.height;
    constexpr int32_t r = kReduceRadius;
    constexpr int32_t taps = kReduceTaps;  // also the rows of the ring
    const ptrdiff_t elements = static_cast<ptrdiff_t>(n) * channels;
    const ptrdiff_t outElements = static_cast<ptrdiff_t>(to.width) * channels;

    float* ring = job.scratch + job.threadFloats * static_cast<size_t>(threadIndex);
    float* blurred = ring + taps * elements;
    float* across[2] = {blurred + elements, blurred + elements + outElements};

    int32_t filteredTo = -1;  // the last source row in the ring
    auto filterRows = [&](int32_t lo, int32_t hi) PL_LAMBDA_INLINE {
        for (int32_t j = filteredTo + 1 > lo ? filteredTo + 1 : lo; j <= hi; ++j) {
            // Five taps for radius 2 read no further than the line. The blur
            // stores each sum plus 0, which is left out here and below: a sum
            // that starts from +0 never comes out -0.
            FilterLine<W>(reinterpret_cast<const float*>(from.Row(j)), ring + (j % taps) * elements, n,
                          channels, job.kernel, taps, r);
        }
        if (hi > filteredTo) filteredTo = hi;
    };
    int32_t held[2] = {-1, -1};
    // Source row `row` blurred and interpolated across, evicting the slot
    // that does not hold `keep`.
    auto interpolated = [&](int32_t row, int32_t keep) PL_LAMBDA_INLINE -> const float* {
        for (int32_t slot = 0; slot < 2; ++slot)
            if (held[slot] == row) return across[slot];
        filterRows(row - r > 0 ? row - r : 0, row + r < rows ? row + r : rows - 1);
        // The ring rows around `row`, found once rather than per run of lanes.
        const float* near[taps];
        for (int32_t k = 0; k < taps; ++k) {
            const int32_t j = row - r + k;
            near[k] = j >= 0 && j < rows ? ring + (j % taps) * elements : nullptr;
        }
        auto ringRow = [&](int32_t j) PL_LAMBDA_INLINE -> const float* { return near[j - row + r]; };
        ptrdiff_t e = 0;
        // Several registers at once: their chains of additions overlap.
        for (; e + kInteriorVectors * W <= elements; e += kInteriorVectors * W)
            ColumnOutputs<W, kInteriorVectors * W>(ringRow, rows, e, row, job.kernel, taps, r, blurred + e);
        for (; e + kColumnLanes <= elements; e += kColumnLanes)
            ColumnOutputs<W>(ringRow, rows, e, row, job.kernel, taps, r, blurred + e);
        for (; e < elements; ++e) blurred[e] = ColumnOutput(ringRow, rows, e, row, job.kernel, taps, r);
        const int32_t slot = held[0] == keep ? 1 : 0;
        float* line = across[slot];
        if (channels == 2)
            InterpolateAcross<W, 2>(blurred, job, to.width, line);
        else if (channels == 1)
            InterpolateAcross<W, 1>(blurred, job, to.width, line);
        else
            InterpolateAcross<W, 3>(blurred, job, to.width, line);
        held[slot] = row;
        return line;
    };
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        const PLCellTap ty =
            PLLastCellTap<PLBeforeFirst::kRepeatFirst>(static_cast<float>(y) * job.stepY, from.lastRow);
        const int32_t lowerRow = ty.index + ty.next;
        const float* top = interpolated(ty.index, lowerRow);
        const float* bottom = interpolated(lowerRow, ty.index);
        float* out = reinterpret_cast<float*>(to.Row(y));
        for (ptrdiff_t m = 0; m < outElements; ++m) {
            float value = (bottom[m] - top[m]) * ty.fraction + top[m];
            if (job.scaled) value = value * job.ratio;
            out[m] = StoredFloat(value);
        }
    }
}

struct ReducePass {
    template <int32_t W>
    PL_INLINE_HOT static void Run(int32_t threadIndex, int32_t first, int32_t last, kqmp_args* args) {
        ReduceRows<W>(threadIndex, first, last, args);
    }
};

struct HoleRowPass {
    template <int32_t W>
    PL_INLINE_HOT static void Run(int32_t threadIndex, int32_t first, int32_t last, kqmp_args* args) {
        HoleRows<W>(threadIndex, first, last, args);
    }
};
struct HoleColumnPass {
    template <int32_t W>
    PL_INLINE_HOT static void Run(int32_t threadIndex, int32_t first, int32_t last, kqmp_args* args) {
        HoleColumns<W>(threadIndex, first, last, args);
    }
};

template <typename P>
void FilterChannels(PLImage* image, const float* kernel, int32_t taps, int32_t r, int32_t axes,
                    size_t bufferFloats, float* buffers) {
    const bool rows = axes == 0 || axes == 2;
    const bool columns = axes != 1 && axes != 2;
    if (rows)
        kqmp_runrows(image->height, LinePass<P, false>(image), image, kernel, taps, r, &bufferFloats,
                     buffers);
    if (columns) {
        // Channels are adjacent in a pixel, so the elements of a row are one channel's row.
        PLImage view(image->data, image->width * image->numChannels, image->height, image->rowBytes, 1,
                     image->pixelType, image->flipped);
        kqmp_runrows(view.width, LinePass<P, true>(&view), &view, kernel, taps, r, &bufferFloats, buffers);
    }
}

// Builds a kernel of 2r + 1 taps from weight(d) for d = |i - r|, normalised by its
// float sum taken in tap order, and hands it to apply(kernel, taps).
template <typename Weight, typename Apply>
void WithNormalisedKernel(int32_t r, Weight weight, Apply apply) {
    const int32_t taps = 2 * r + 1;
    QVMemBlock<float> kernel(static_cast<size_t>(taps));
    float* k = kernel.get();
    for (int32_t i = 0; i < taps; ++i) k[i] = weight(i > r ? i - r : r - i);
    float sum = 0.0f;
    for (int32_t i = 0; i < taps; ++i) sum += k[i];
    for (int32_t i = 0; i < taps; ++i) k[i] = k[i] / sum;
    apply(k, taps);
}

template <typename Weight>
void NormalisedBlur(float radius, int32_t r, PLImage* image, int32_t axes, Weight weight) {
    WithNormalisedKernel(
        r, weight, [&](const float* k, int32_t taps) { PLSeparableFilter(radius, image, taps, k, axes); });
}

// The Gaussian's weights: 2^(-d^2 / s^2) for s a third of the radius.
auto GaussianWeight(float radius) {
    const float s = radius / 3.0f;
    return [s](int32_t d) {
        const float q = static_cast<float>(-static_cast<int64_t>(d) * d) / (s * s);
        return static_cast<float>(std::pow(2.0, static_cast<double>(q)));
    };
}

// Truncated radius of a maker, or -1 below the threshold or for a radius too
// large (or NaN) to index.
int32_t MakerRadius(float radius) {
    if (radius < 0.001f) return -1;
    const int32_t r = PLTruncI32(radius);
    return r >= 0 && r <= kMaxRadius ? r : -1;
}

}  // namespace

namespace {

// Float pixels without gaps between them, as the fill's own passes take them.
bool DenseFloats(const PLImage* image) {
    return image->pixelType == PLPixelFloat &&
           image->pixelStride == image->numChannels * static_cast<int32_t>(sizeof(float));
}

const float kBinomial5[5] = {1.0f / 16.0f, 0.25f, 0.375f, 0.25f, 1.0f / 16.0f};

}  // namespace

void PLSeparableFilter(float radius, PLImage* image, int32_t taps, const float* kernel, int32_t axes) {
    if (radius < 0.001f) return;
    const int32_t r = PLTruncI32(radius);
    // A kernel must cover the 2r + 1 taps the edges index, and may reach at
    // most the slack past the line; anything else (or a NaN radius) is refused.
    if (r < 0 || r > kMaxRadius || taps < 2 * r + 1 || taps > 2 * r + 1 + kLineSlack) return;
    if (!image || !kernel || image->width < 1 || image->height < 1 || !PLIsPathType(image->pixelType)) return;

    const int64_t longest = image->width > image->height ? image->width : image->height;
    if (longest + kLineSlack + 2 * static_cast<int64_t>(r) > INT32_MAX) throw PLErrOutOfMemory;
    const int32_t rowThreads = kqmp_threadsfor(image->height);
    // The column pass runs over every element of a row.
    const int64_t elements = static_cast<int64_t>(image->width) * image->numChannels;
    if (elements > INT32_MAX) throw PLErrOutOfMemory;
    const int32_t columnThreads = kqmp_threadsfor(static_cast<int32_t>(elements));
    const int32_t threads = rowThreads > columnThreads ? rowThreads : columnThreads;
    const size_t bufferFloats = LineBufferFloats(image, r);
    QVMemBlock<float> buffers(2 * static_cast<size_t>(threads) * bufferFloats);

    PLVisitPixelType(image->pixelType, [&](auto pixel) {
        FilterChannels<decltype(pixel)>(image, kernel, taps, r, axes, bufferFloats, buffers.get());
    });
}

void PLGaussianBlur(float radius, PLImage* image, int32_t axes) {
    const int32_t r = MakerRadius(radius);
    if (r < 0) return;
    NormalisedBlur(radius, r, image, axes, GaussianWeight(radius));
}

void PLGaussianBlurHoles(float radius, PLImage* image, PLImage* values, const PLImage* weights) {
    if (!image || !values || !weights) return;
    if (PLDimensionsDiffer(image, values) || PLDimensionsDiffer(image, weights) || !DenseFloats(image) ||
        !DenseFloats(values) || !DenseFloats(weights) || values->numChannels != image->numChannels ||
        weights->numChannels != 1 || image->width < 1 || image->height < 1)
        throw PLErrFailed;
    const int32_t r = MakerRadius(radius);
    if (r < 0) throw PLErrFailed;
    WithNormalisedKernel(r, GaussianWeight(radius), [&](const float* kernel, int32_t taps) {
        const HoleJob at{image, values, weights, kernel, taps, r};
        // 2r + 1 taps read no further than the line: each row is filtered where it lies.
        kqmp_runrows(image->height, ForPath<HoleRowPass>(), &at);
        kqmp_runrows(image->height, ForPath<HoleColumnPass>(), &at);
    });
}

void PLCosineBlur(float radius, PLImage* image, int32_t axes) {
    const int32_t r = MakerRadius(radius);
    if (r < 0) return;
    NormalisedBlur(radius, r, image, axes, [radius](int32_t d) {
        return static_cast<float>(
            std::cos(static_cast<double>(d) * 1.570796826795 / static_cast<double>(radius)));
    });
}

void PLBoxBlur(float radius, PLImage* image, int32_t axes) {
    if (MakerRadius(radius) < 0) return;
    const int32_t r = PLTruncI32(std::ceil(radius));
    if (r > kMaxRadius) return;
    const int32_t taps = 2 * r + 1;
    QVMemBlock<float> kernel(static_cast<size_t>(taps));
    float* k = kernel.get();
    for (int32_t i = 0; i < taps; ++i) k[i] = 1.0f;
    // A fractional radius weights the outer taps by the fraction but keeps the
    // tap count as divisor, so the kernel sums to less than one.
    const float fraction = radius - static_cast<float>(PLTruncI32(radius));
    if (fraction > 0.0f) {
        k[0] = fraction;
        k[taps - 1] = fraction;
    }
    const float count = static_cast<float>(taps);
    for (int32_t i = 0; i < taps; ++i) k[i] = k[i] / count;
    PLSeparableFilter(radius, image, taps, k, axes);
}

void PLBinomial3Blur(PLImage* image, int32_t axes) {
    static const float kernel[3] = {0.25f, 0.5f, 0.25f};
    PLSeparableFilter(1.0f, image, 3, kernel, axes);
}

void PLBinomial5Blur(PLImage* image, int32_t axes) {
    PLSeparableFilter(2.0f, image, 5, kBinomial5, axes);
}

namespace {

// The reduce's work space: the resampler's column taps, then for each thread
// its ring, its blurred row and two interpolated rows.
struct ReduceLayout {
    size_t threadFloats;
    size_t columnBytes;
    size_t bytes;
};

ReduceLayout ReduceLayoutOf(const PLImage* to, const PLImage* from) {
    ReduceLayout layout;
    const size_t channels = static_cast<size_t>(from->numChannels);
    const size_t elements = static_cast<size_t>(from->width) * channels;
    layout.threadFloats = kReduceTaps * elements + elements + 2 * static_cast<size_t>(to->width) * channels;
    // Each column's tap, fraction and run end, with a register of slack after the fractions.
    layout.columnBytes =
        (static_cast<size_t>(to->width) * (sizeof(PLCellTap) + sizeof(float) + sizeof(int32_t)) +
         kColumnLanes * sizeof(float) + 63) /
        64 * 64;
    layout.bytes = layout.columnBytes +
                   static_cast<size_t>(kqmp_threadsfor(to->height)) * layout.threadFloats * sizeof(float);
    return layout;
}

}  // namespace

size_t PLBinomial5ReduceBytes(const PLImage* to, const PLImage* from) {
    if (!to || !from) return 0;
    return ReduceLayoutOf(to, from).bytes;
}

void PLBinomial5Reduce(PLImage* to, const PLImage* from, uint8_t* work, size_t workBytes) {
    if (!to || !from) return;
    if (!DenseFloats(to) || !DenseFloats(from) || to->numChannels != from->numChannels ||
        from->numChannels > 3 || to->width < 1 || to->height < 1 || from->width < 1 || from->height < 1)
        throw PLErrFailed;
    const int32_t r = kReduceRadius;
    if (from->width + int64_t{kLineSlack} + 2 * r > INT32_MAX) throw PLErrOutOfMemory;
    const ReduceLayout layout = ReduceLayoutOf(to, from);
    std::optional<QVMemBlock<uint8_t>> own;
    if (!work || workBytes < layout.bytes) {
        own.emplace(layout.bytes);
        work = own->get();
    }
    const float stepX = PLCornerStep(to->width, from->width);
    const float stepY = PLCornerStep(to->height, from->height);
    const int32_t width = to->width;
    PLCellTap* columns = reinterpret_cast<PLCellTap*>(work);
    float* fractions = reinterpret_cast<float*>(columns + width);
    int32_t* evenTo = reinterpret_cast<int32_t*>(fractions + width + kColumnLanes);
    for (int32_t x = 0; x < width; ++x) {
        new (columns + x) PLCellTap(
            PLLastCellTap<PLBeforeFirst::kRepeatFirst>(static_cast<float>(x) * stepX, from->lastColumn));
        fractions[x] = columns[x].fraction;
    }
    for (int32_t k = 0; k < kColumnLanes; ++k) fractions[width + k] = 0.0f;
    // A tap whose right pixel is itself starts no run (evenTo x - 1).
    for (int32_t x = width - 1; x >= 0; --x) {
        const bool chained =
            x + 1 < width && columns[x + 1].next == 1 && columns[x + 1].index == columns[x].index + 2;
        evenTo[x] = columns[x].next != 1 ? x - 1 : chained ? evenTo[x + 1] : x;
    }
    const ReduceJob job{to,
                        from,
                        columns,
                        fractions,
                        evenTo,
                        stepY,
                        to->whitePoint != from->whitePoint,
                        to->whitePoint / from->whitePoint,
                        kBinomial5,
                        layout.threadFloats,
                        reinterpret_cast<float*>(work + layout.columnBytes)};
    kqmp_runrows(to->height, ForPath<ReducePass>(), &job);
}
