// The separable filter with its kernel makers, and the bilinear resampler.
// Both resolve pixel type, channel count and direction once per call and run
// one loop per combination, each instantiated from a single template.
#include "resample.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <utility>

#include "pixel_access.h"

namespace {

// Floats past the end of a line in each buffer: the interior sum of a kernel
// with more than 2r + 1 taps (the box of a fractional radius) reads beyond the
// line, and finds zeros there.
constexpr int32_t kLineSlack = 20;
// Largest radius whose tap count and buffer arithmetic stay inside int32.
constexpr int32_t kMaxRadius = (INT32_MAX - 2 * kLineSlack - 3) / 2;

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

// Convolves n samples with taps weights centred by r. Taps that fall off the
// line are dropped and the rest renormalised; the interior needs no division
// because the kernels are normalised.
void FilterLine(const float* in, float* out, int32_t n, const float* w, int32_t taps, int32_t r) {
    for (int32_t i = 0; i < r && i < n; ++i) {
        float sum = 0.0f;
        float norm = 0.0f;
        for (int32_t j = 0; j <= i + r && j < n; ++j) {
            const float wt = w[r - i + j];
            norm += wt;
            sum += in[j] * wt;
        }
        out[i] = sum / norm;
    }
    for (int32_t i = n - r; i <= n - 1; ++i) {
        if (i < 0) break;
        float sum = 0.0f;
        float norm = 0.0f;
        const int32_t low = i - r > 0 ? i - r : 0;
        for (int32_t j = n - 1; j >= low; --j) {
            const float wt = w[r + j - i];
            norm += wt;
            sum += in[j] * wt;
        }
        out[i] = sum / norm;
    }
    for (int32_t i = r; i < n - r; ++i) {
        const float* p = in + (i - r);
        float sum = 0.0f;
        for (int32_t t = 0; t < taps; ++t) sum += p[t] * w[t];
        out[i] = sum;
    }
}

// One pass over rows (Columns false) or columns of one channel, through this
// thread's pair of line buffers.
template <typename T, bool Columns>
void FilterLines(int32_t threadIndex, bool, int32_t firstLine, int32_t lastLine, kqmp_args* args) {
    const PLImage* image = args->next<PLImage*>();
    const float* kernel = args->next<const float*>();
    const int32_t taps = args->next<int32_t>();
    const int32_t r = args->next<int32_t>();
    const int32_t channel = args->next<int32_t>();
    float* buffers = args->next<float*>();
    const int32_t length = args->next<int32_t>();

    float* in = buffers + 2 * static_cast<size_t>(length) * static_cast<size_t>(threadIndex);
    float* out = in + length;
    const int32_t n = Columns ? image->height : image->width;
    const int32_t step = Columns ? image->rowStep : image->pixelStride;
    const int32_t pastLine = taps - (2 * r + 1);
    for (int32_t line = firstLine; line <= lastLine; ++line) {
        uint8_t* start = Columns ? image->Row(0) + PLMul32(line, image->pixelStride) : image->Row(line);
        start += static_cast<size_t>(channel) * sizeof(T);
        for (int32_t i = 0; i < n; ++i) in[i] = PLPixelTraits<T>::Load(start + PLMul32(i, step));
        for (int32_t i = 0; i < pastLine; ++i) in[n + i] = 0.0f;
        FilterLine(in, out, n, kernel, taps, r);
        for (int32_t i = 0; i < n; ++i) PLPixelTraits<T>::Store(start + PLMul32(i, step), out[i]);
    }
}

template <typename T>
void FilterChannels(PLImage* image, const float* kernel, int32_t taps, int32_t r, int32_t axes,
                    float* buffers, int32_t length) {
    const bool rows = axes == 0 || axes == 2;
    const bool columns = axes != 1 && axes != 2;
    for (int32_t c = 0; c < image->numChannels; ++c) {
        if (rows) PLRunRows(image->height, FilterLines<T, false>, image, kernel, taps, r, c, buffers, length);
        if (columns)
            PLRunRows(image->width, FilterLines<T, true>, image, kernel, taps, r, c, buffers, length);
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

template <typename D, int C, typename S, bool Scaled>
void ResampleRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const PLImage* dst = args->next<PLImage*>();
    const PLImage* src = args->next<const PLImage*>();
    const float* factors = args->next<const float*>();
    const float stepX = factors[0];
    const float stepY = factors[1];
    const float ratio = factors[2];
    constexpr int32_t srcPixel = C * static_cast<int32_t>(sizeof(S));
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        const SourceTap ty = MapCoordinate(y, stepY, src->lastRow);
        const float fy = ty.fraction;
        const uint8_t* upper = src->Row(ty.index);
        const uint8_t* lower = upper + (ty.next ? src->rowStep : 0);
        uint8_t* out = dst->Row(y);
        for (int32_t x = 0; x < dst->width; ++x, out += C * sizeof(D)) {
            const SourceTap tx = MapCoordinate(x, stepX, src->lastColumn);
            const float fx = tx.fraction;
            const int32_t left = PLMul32(tx.index, srcPixel);
            const int32_t right = left + tx.next * srcPixel;
            float wa = 0.0f, wb = 0.0f, wc = 0.0f, wd = 0.0f;
            if constexpr (C == 4) {
                wa = (1.0f - fx) - fy + fx * fy;
                wb = fx - fx * fy;
                wc = fy - fx * fy;
                wd = fx * fy;
            }
            for (int32_t c = 0; c < C; ++c) {
                const size_t e = static_cast<size_t>(c) * sizeof(S);
                const float a = PLPixelTraits<S>::Load(upper + left + e);
                const float b = PLPixelTraits<S>::Load(upper + right + e);
                const float cl = PLPixelTraits<S>::Load(lower + left + e);
                const float d = PLPixelTraits<S>::Load(lower + right + e);
                float value;
                if constexpr (C == 4) {
                    value = a * wa + b * wb + cl * wc + d * wd;
                } else {
                    const float top = (b - a) * fx + a;
                    const float bottom = (d - cl) * fx + cl;
                    value = (bottom - top) * fy + top;
                }
                if constexpr (Scaled) value = value * ratio;
                PLPixelTraits<D>::Store(out + static_cast<size_t>(c) * sizeof(D), value);
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
    const int64_t length = longest + kLineSlack + 2 * static_cast<int64_t>(r);
    if (length > INT32_MAX) throw PLErrOutOfMemory;
    const int32_t rowThreads = kqmp_threadsfor(image->height);
    const int32_t columnThreads = kqmp_threadsfor(image->width);
    const int32_t threads = rowThreads > columnThreads ? rowThreads : columnThreads;
    ScopedBlock buffers(2 * static_cast<size_t>(threads) * static_cast<size_t>(length) * sizeof(float));

    const int32_t lineLength = static_cast<int32_t>(length);
    switch (image->pixelType) {
        case PLPixelUChar:
            FilterChannels<uint8_t>(image, kernel, taps, r, axes, buffers.get(), lineLength);
            break;
        case PLPixelUShort:
            FilterChannels<uint16_t>(image, kernel, taps, r, axes, buffers.get(), lineLength);
            break;
        default:
            FilterChannels<float>(image, kernel, taps, r, axes, buffers.get(), lineLength);
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
