// The separable filter with its kernel makers, and the bilinear resampler.
// Both resolve pixel type, channel count and direction once per call and run
// one loop per combination, each instantiated from a single template.
#include "resample.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <utility>

#include "pixel_access.h"

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
// Interior outputs summed together in registers, tap by tap; a multiple of 4.
constexpr int32_t kInteriorBlock = 16;

// Frees a block from QVMemNew on every way out of the scope.
class ScopedBlock {
  public:
    explicit ScopedBlock(size_t bytes) : block_(static_cast<float*>(QVMemNew(bytes))) {}
    ~ScopedBlock() { QVMemFree(block_); }
    ScopedBlock(const ScopedBlock&) = delete;
    ScopedBlock& operator=(const ScopedBlock&) = delete;
    float* get() const { return block_; }

  private:
    float* block_;
};

// Floats in each of a thread's two line buffers: room for a row, or for a
// block of up to kColumnLanes interleaved columns, each with its slack.
size_t LineBufferFloats(const PLImage* image, int32_t r) {
    const size_t width = static_cast<size_t>(image->width);
    const size_t height = static_cast<size_t>(image->height);
    const size_t line = (width > height ? width : height) + kLineSlack + 2 * static_cast<size_t>(r);
    const size_t lanes = width < kColumnLanes ? width : kColumnLanes;
    const size_t block = lanes * (height + kLineSlack);
    return line > block ? line : block;
}

// One renormalised edge output of every lane: taps j from `first` to `last`
// (either way), in that order, with tap index r + j - i.
void FilterEdge(const float* in, float* out, int32_t lanes, const float* w, int32_t r, int32_t i,
                int32_t first, int32_t last) {
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

// Four adjacent floats, multiplied and added lane by lane: each lane does
// exactly the scalar operation (SSE on x86-64, no contraction).
using Float4 = float __attribute__((vector_size(16)));

// Interior outputs m to m + kInteriorBlock - 1 of interleaved lines: each
// sums its taps from 0 in tap order, without a division, in registers.
void FilterInteriorBlock(const float* in, float* out, ptrdiff_t m, int32_t lanes, const float* w,
                         int32_t taps, int32_t r) {
    constexpr int32_t kVectors = kInteriorBlock / 4;
    Float4 sum[kVectors];
    for (Float4& v : sum) v = Float4{0.0f, 0.0f, 0.0f, 0.0f};
    const float* p = in + m - static_cast<ptrdiff_t>(r) * lanes;
    for (int32_t t = 0; t < taps; ++t, p += lanes) {
        const float wt = w[t];
        for (int32_t q = 0; q < kVectors; ++q) {
            Float4 v;
            std::memcpy(&v, p + 4 * q, sizeof v);
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
void FilterLine(const float* in, float* out, int32_t n, int32_t lanes, const float* w, int32_t taps,
                int32_t r) {
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
    for (; end - m >= kInteriorBlock; m += kInteriorBlock) FilterInteriorBlock(in, out, m, lanes, w, taps, r);
    for (; m < end; ++m) {
        float sum = 0.0f;
        const float* p = in + m - static_cast<ptrdiff_t>(r) * lanes;
        for (int32_t t = 0; t < taps; ++t, p += lanes) sum += *p * w[t];
        out[m] = sum;
    }
}

// One pass over rows (Columns false) or columns of one channel, through this
// thread's pair of line buffers. The column pass takes up to kColumnLanes
// adjacent columns at a time, interleaved, so that it reads along rows.
// Packed images (one channel) have adjacent elements along a row, which lets
// the moves between image and buffer vectorise.
template <typename T, bool Columns, bool Packed>
void FilterLines(int32_t threadIndex, bool, int32_t firstLine, int32_t lastLine, kqmp_args* args) {
    const PLImage* image = args->next<PLImage*>();
    const float* kernel = args->next<const float*>();
    const int32_t taps = args->next<int32_t>();
    const int32_t r = args->next<int32_t>();
    const int32_t channel = args->next<int32_t>();
    float* buffers = args->next<float*>();

    const size_t bufferFloats = LineBufferFloats(image, r);
    float* in = buffers + 2 * bufferFloats * static_cast<size_t>(threadIndex);
    float* out = in + bufferFloats;
    const int32_t n = Columns ? image->height : image->width;
    const ptrdiff_t pixel = Packed ? static_cast<ptrdiff_t>(sizeof(T)) : image->pixelStride;
    const int32_t pastLine = taps - (2 * r + 1);
    const size_t offset = static_cast<size_t>(channel) * sizeof(T);
    // Sample i of a line, from the line's first sample; a column's rows honour `flipped`.
    auto along = [=](int32_t i) -> ptrdiff_t {
        return Columns ? PLOffset(i, image->rowStep) : static_cast<ptrdiff_t>(i) * pixel;
    };
    for (int32_t line = firstLine; line <= lastLine;) {
        const int32_t remaining = lastLine - line + 1;
        const int32_t lanes = !Columns ? 1 : remaining < kColumnLanes ? remaining : kColumnLanes;
        uint8_t* start =
            (Columns ? image->Row(0) + PLOffset(line, image->pixelStride) : image->Row(line)) + offset;
        for (int32_t i = 0; i < n; ++i) {
            const uint8_t* from = start + along(i);
            float* to = in + static_cast<ptrdiff_t>(i) * lanes;
            for (int32_t k = 0; k < lanes; ++k) to[k] = PLPixelTraits<T>::Load(from + k * pixel);
        }
        for (ptrdiff_t m = 0; m < static_cast<ptrdiff_t>(pastLine) * lanes; ++m)
            in[static_cast<ptrdiff_t>(n) * lanes + m] = 0.0f;
        FilterLine(in, out, n, lanes, kernel, taps, r);
        for (int32_t i = 0; i < n; ++i) {
            uint8_t* to = start + along(i);
            const float* from = out + static_cast<ptrdiff_t>(i) * lanes;
            for (int32_t k = 0; k < lanes; ++k) PLPixelTraits<T>::Store(to + k * pixel, from[k]);
        }
        line += lanes;
    }
}

template <typename T, bool Columns>
kqmp_worker* LinePass(const PLImage* image) {
    return image->pixelStride == static_cast<int32_t>(sizeof(T)) ? FilterLines<T, Columns, true>
                                                                 : FilterLines<T, Columns, false>;
}

template <typename T>
void FilterChannels(PLImage* image, const float* kernel, int32_t taps, int32_t r, int32_t axes,
                    float* buffers) {
    const bool rows = axes == 0 || axes == 2;
    const bool columns = axes != 1 && axes != 2;
    for (int32_t c = 0; c < image->numChannels; ++c) {
        if (rows) PLRunRows(image->height, LinePass<T, false>(image), image, kernel, taps, r, c, buffers);
        if (columns) PLRunRows(image->width, LinePass<T, true>(image), image, kernel, taps, r, c, buffers);
    }
}

// Builds a kernel of 2r + 1 taps from weight(d) for d = |i - r|, normalised by its
// float sum taken in tap order, and runs the filter with it.
template <typename Weight>
void NormalisedBlur(float radius, int32_t r, PLImage* image, int32_t axes, Weight weight) {
    const int32_t taps = 2 * r + 1;
    ScopedBlock kernel(static_cast<size_t>(taps) * sizeof(float));
    float* k = kernel.get();
    for (int32_t i = 0; i < taps; ++i) k[i] = weight(i > r ? i - r : r - i);
    float sum = 0.0f;
    for (int32_t i = 0; i < taps; ++i) sum += k[i];
    for (int32_t i = 0; i < taps; ++i) k[i] = k[i] / sum;
    PLSeparableFilter(radius, image, taps, k, axes);
}

// Truncated radius of a maker, or -1 below the threshold or for a radius too
// large (or NaN) to index.
int32_t MakerRadius(float radius) {
    if (radius < 0.001f) return -1;
    const int32_t r = PLTruncI32(radius);
    return r >= 0 && r <= kMaxRadius ? r : -1;
}

// Source position of one destination coordinate: the sample, whether its
// neighbour is the next one (1) or itself (0), and the fraction between them.
struct SourceTap {
    int32_t index;
    int32_t next;
    float fraction;
};

inline SourceTap MapCoordinate(int32_t x, float step, int32_t last) {
    const float u = static_cast<float>(x) * step;
    int32_t i = PLTruncI32(u);
    float f = u - static_cast<float>(i);
    if (i >= last) {
        i = last - 1;
        f = 1.0f;
    }
    // A source one sample wide has no neighbour: both taps read its only sample,
    // which gives that sample. So does a position that isn't a number.
    if (i < 0) return {0, 0, f};
    return {i, 1, f};
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
template <typename D, int C, typename S, bool Scaled>
void ResampleRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
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
            const SourceTap tx = MapCoordinate(first + x, stepX, src->lastColumn);
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
                    const float a = PLPixelTraits<S>::Load(at + columns[x].left + e);
                    const float b = PLPixelTraits<S>::Load(at + columns[x].right + e);
                    across[s][x * C + c] = (b - a) * columns[x].fraction + a;
                }
            held[s] = row;
            return across[s];
        };
        for (int32_t y = firstRow; y <= lastRow; ++y) {
            const SourceTap ty = MapCoordinate(y, stepY, src->lastRow);
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
                        const float a = PLPixelTraits<S>::Load(upper + columns[x].left + e);
                        const float b = PLPixelTraits<S>::Load(upper + columns[x].right + e);
                        const float cl = PLPixelTraits<S>::Load(lower + columns[x].left + e);
                        const float d = PLPixelTraits<S>::Load(lower + columns[x].right + e);
                        float value = a * wa + b * wb + cl * wc + d * wd;
                        if constexpr (Scaled) value = value * ratio;
                        PLPixelTraits<D>::Store(out + static_cast<size_t>(c) * sizeof(D), value);
                    }
                }
            } else {
                const int32_t lowerRow = ty.index + ty.next;
                const float* top = interpolated(ty.index, upper, lowerRow);
                const float* bottom = interpolated(lowerRow, lower, ty.index);
                for (int32_t m = 0; m < span * C; ++m) {
                    float value = (bottom[m] - top[m]) * fy + top[m];
                    if constexpr (Scaled) value = value * ratio;
                    PLPixelTraits<D>::Store(
                        out + static_cast<ptrdiff_t>(m) * static_cast<ptrdiff_t>(sizeof(D)), value);
                }
            }
        }
    }
}

// Every member of the resampler: destination type x channel count x source
// type x (equal, different white points), at index
// ((dstType * 4 + channels - 1) * 3 + srcType) * 2 + scaled.
template <size_t I>
constexpr kqmp_worker* ResampleMember() {
    using D = std::tuple_element_t<I / 24, PLPathElements>;
    using S = std::tuple_element_t<(I / 2) % 3, PLPathElements>;
    return &ResampleRows<D, static_cast<int>((I / 6) % 4) + 1, S, I % 2 == 1>;
}

template <size_t... I>
constexpr std::array<kqmp_worker*, sizeof...(I)> ResampleMembers(std::index_sequence<I...>) {
    return {ResampleMember<I>()...};
}

constexpr std::array<kqmp_worker*, 72> kResampleMembers = ResampleMembers(std::make_index_sequence<72>());

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
    const int32_t columnThreads = kqmp_threadsfor(image->width);
    const int32_t threads = rowThreads > columnThreads ? rowThreads : columnThreads;
    ScopedBlock buffers(2 * static_cast<size_t>(threads) * LineBufferFloats(image, r) * sizeof(float));

    switch (image->pixelType) {
        case PLPixelUChar:
            FilterChannels<uint8_t>(image, kernel, taps, r, axes, buffers.get());
            break;
        case PLPixelUShort:
            FilterChannels<uint16_t>(image, kernel, taps, r, axes, buffers.get());
            break;
        default:
            FilterChannels<float>(image, kernel, taps, r, axes, buffers.get());
            break;
    }
}

void PLGaussianBlur(float radius, PLImage* image, int32_t axes) {
    const int32_t r = MakerRadius(radius);
    if (r < 0) return;
    const float s = radius / 3.0f;
    NormalisedBlur(radius, r, image, axes, [s](int32_t d) {
        const float q = static_cast<float>(-static_cast<int64_t>(d) * d) / (s * s);
        return static_cast<float>(std::pow(2.0, static_cast<double>(q)));
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
    ScopedBlock kernel(static_cast<size_t>(taps) * sizeof(float));
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
    static const float kernel[5] = {1.0f / 16.0f, 0.25f, 0.375f, 0.25f, 1.0f / 16.0f};
    PLSeparableFilter(2.0f, image, 5, kernel, axes);
}

void PLResampleWithSteps(PLImage* dst, const PLImage* src, float stepX, float stepY) {
    if (!dst || !src || !PLIsPathType(dst->pixelType) || !PLIsPathType(src->pixelType)) return;
    if (dst->numChannels < 1 || dst->numChannels > 4 || dst->numChannels != src->numChannels) return;
    if (src->width < 1 || src->height < 1 || dst->width < 1) return;
    const bool scaled = src->whitePoint != dst->whitePoint;
    const float factors[3] = {stepX, stepY, dst->whitePoint / src->whitePoint};
    const size_t member =
        ((static_cast<size_t>(dst->pixelType) * 4 + static_cast<size_t>(dst->numChannels - 1)) * 3 +
         static_cast<size_t>(src->pixelType)) *
            2 +
        (scaled ? 1 : 0);
    PLRunRows(dst->height, kResampleMembers[member], dst, src, static_cast<const float*>(factors));
}

void PLResample(PLImage* dst, const PLImage* src) {
    if (!dst || !src) return;
    if (dst->numChannels != src->numChannels) throw PLErrFailed;
    // Corner pixels meet corner pixels. A destination one pixel wide has no
    // span to divide by; its only column takes the source's first.
    const float stepX =
        dst->width == 1 ? 0.0f : static_cast<float>(src->width - 1) / static_cast<float>(dst->width - 1);
    const float stepY =
        dst->height == 1 ? 0.0f : static_cast<float>(src->height - 1) / static_cast<float>(dst->height - 1);
    PLResampleWithSteps(dst, src, stepX, stepY);
}
