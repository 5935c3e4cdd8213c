// Several pixels' walks at once, for the plug-in's body (four channels,
// bilinear, stop at the edge): kPixels pixels in one register of 4 kPixels
// lanes, every per-pixel value (position, fraction, count) repeated in its
// pixel's four lanes, so each lane does exactly its channel's operations of
// the one-pixel body. A lane stops where its own walk would; the group goes on
// while any lane walks.
//
// Included once per instruction-set path by kernels.cpp, inside a namespace
// that defines kPixels and kGroups, in a region compiled for the path: GCC
// lowers vector operations in each function before inlining it, so every
// helper here must be compiled for the path itself. No include guard, no
// includes.

using F = float __attribute__((vector_size(16 * kPixels)));
using I = int32_t __attribute__((vector_size(16 * kPixels)));

// a + b keeping a's NaN where both are NaN, as the one-pixel body's build
// does; left to itself the compiler may swap the operands, and the sign of
// a NaN output with them.
PL_INLINE_HOT F AddKeepingFirstNaN(const F& a, const F& b) {
    F sum;
    asm("vaddps %2, %1, %0" : "=x"(sum) : "x"(a), "x"(b));
    return sum;
}

// Pixels' lanes side by side.
template <int N = kPixels>
PL_INLINE_HOT auto Join(const PLLanes (&pixels)[N]) {
    if constexpr (N == 2) {
        return __builtin_shufflevector(pixels[0], pixels[1], 0, 1, 2, 3, 4, 5, 6, 7);
    } else {
        const auto low = __builtin_shufflevector(pixels[0], pixels[1], 0, 1, 2, 3, 4, 5, 6, 7);
        const auto high = __builtin_shufflevector(pixels[2], pixels[3], 0, 1, 2, 3, 4, 5, 6, 7);
        return __builtin_shufflevector(low, high, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    }
}

// Each pixel at `at` and its right neighbour, in one load per pixel, split
// into the pixels' lanes (first) and the neighbours' (second). Integer
// elements are widened by the path's own instruction: GCC takes a generic
// widening of bytes apart lane by lane. (Templates returning the
// instructions' own types, so that only the branch for T and N is compiled.)
template <typename T, int N = kPixels>
PL_INLINE_HOT auto PairsOf(const uint8_t* const (&at)[N]) {
    if constexpr (std::is_same_v<T, float>) {
        if constexpr (N == 2) {
            const __m256 l0 = _mm256_loadu_ps(reinterpret_cast<const float*>(at[0]));
            const __m256 l1 = _mm256_loadu_ps(reinterpret_cast<const float*>(at[1]));
            return std::make_pair(_mm256_permute2f128_ps(l0, l1, 0x20), _mm256_permute2f128_ps(l0, l1, 0x31));
        } else {
            auto load = [&](int j) { return _mm256_loadu_ps(reinterpret_cast<const float*>(at[j])); };
            const __m512 z01 = _mm512_insertf32x8(_mm512_castps256_ps512(load(0)), load(1), 1);
            const __m512 z23 = _mm512_insertf32x8(_mm512_castps256_ps512(load(2)), load(3), 1);
            return std::make_pair(_mm512_shuffle_f32x4(z01, z23, _MM_SHUFFLE(2, 0, 2, 0)),
                                  _mm512_shuffle_f32x4(z01, z23, _MM_SHUFFLE(3, 1, 3, 1)));
        }
    } else if constexpr (sizeof(T) == 1) {
        long long words[4] = {};
        for (int j = 0; j < N; ++j) std::memcpy(&words[j], at[j], sizeof words[j]);
        const __m128 x01 = _mm_castsi128_ps(_mm_set_epi64x(words[1], words[0]));
        const __m128 x23 = _mm_castsi128_ps(_mm_set_epi64x(words[3], words[2]));
        const __m128i first = _mm_castps_si128(_mm_shuffle_ps(x01, x23, _MM_SHUFFLE(2, 0, 2, 0)));
        const __m128i second = _mm_castps_si128(_mm_shuffle_ps(x01, x23, _MM_SHUFFLE(3, 1, 3, 1)));
        if constexpr (N == 2) {
            return std::make_pair(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(first)),
                                  _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(second)));
        } else {
            return std::make_pair(_mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(first)),
                                  _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(second)));
        }
    } else {
        auto load = [&](int j) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at[j])); };
        if constexpr (N == 2) {
            const __m128i l0 = load(0), l1 = load(1);
            return std::make_pair(_mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm_unpacklo_epi64(l0, l1))),
                                  _mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(_mm_unpackhi_epi64(l0, l1))));
        } else {
            const __m256i y02 = _mm256_setr_m128i(load(0), load(2));
            const __m256i y13 = _mm256_setr_m128i(load(1), load(3));
            return std::make_pair(_mm512_cvtepi32_ps(_mm512_cvtepu16_epi32(_mm256_unpacklo_epi64(y02, y13))),
                                  _mm512_cvtepi32_ps(_mm512_cvtepu16_epi32(_mm256_unpackhi_epi64(y02, y13))));
        }
    }
}

template <typename T>
PL_INLINE_HOT void LoadPairs(const uint8_t* const (&at)[kPixels], F& first, F& second) {
    const auto pairs = PairsOf<T>(at);
    first = reinterpret_cast<F>(pairs.first);
    second = reinterpret_cast<F>(pairs.second);
}

// Whether any lane is set, by folding halves: through memory the compiler
// would take the mask apart into scalars.
template <int N = kPixels>
PL_INLINE_HOT bool Any(const I& mask) {
    const auto half = [](const auto& v) {
        if constexpr (sizeof(v) == 64) {
            return __builtin_shufflevector(v, v, 0, 1, 2, 3, 4, 5, 6, 7) |
                   __builtin_shufflevector(v, v, 8, 9, 10, 11, 12, 13, 14, 15);
        } else {
            return __builtin_shufflevector(v, v, 0, 1, 2, 3) | __builtin_shufflevector(v, v, 4, 5, 6, 7);
        }
    };
    auto folded = half(mask);
    if constexpr (N == 4) {
        const auto quarter = half(folded);
        return (quarter[0] | quarter[1] | quarter[2] | quarter[3]) != 0;
    } else {
        return (folded[0] | folded[1] | folded[2] | folded[3]) != 0;
    }
}

// Truncation with the hardware's answer, INT32_MIN, for NaN and values
// outside int32, which is PLTruncI32's; and the correctly rounded root.
// (Templates on the operand, so that only the branch for its width is compiled.)
template <typename V>
PL_INLINE_HOT auto TruncateOf(const V& v) {
    if constexpr (sizeof(V) == 32) {
        return _mm256_cvttps_epi32(reinterpret_cast<__m256>(v));
    } else {
        return _mm512_cvttps_epi32(reinterpret_cast<__m512>(v));
    }
}
template <typename V>
PL_INLINE_HOT auto SquareRootOf(const V& v) {
    if constexpr (sizeof(V) == 32) {
        return _mm256_sqrt_ps(reinterpret_cast<__m256>(v));
    } else {
        return _mm512_sqrt_ps(reinterpret_cast<__m512>(v));
    }
}
PL_INLINE_HOT I Truncate(const F& v) {
    return reinterpret_cast<I>(TruncateOf(v));
}
PL_INLINE_HOT F SquareRoot(const F& v) {
    return reinterpret_cast<F>(SquareRootOf(v));
}

// Each pixel's value in its four lanes.
template <typename V, typename T>
PL_INLINE_HOT V Spread(const T (&values)[kPixels]) {
    V v;
    for (int lane = 0; lane < 4 * kPixels; ++lane) v[lane] = values[lane / 4];
    return v;
}

// The index and fraction of one axis of a bilinear read, lane by lane as
// PLLastCellTap takes them (index 0 with the fraction as computed below the
// first sample). Any coordinate gives an index inside the axis, so lanes
// that have stopped may pass theirs.
PL_INLINE_HOT void Tap(const F& u, int32_t last, I& index, F& fraction) {
    index = Truncate(u);
    fraction = u - __builtin_convertvector(index, F);
    const I past = index >= last;
    index = past ? (I{} + (last - 1)) : index;
    fraction = past ? (F{} + 1.0f) : fraction;
    index = index < 0 ? I{} : index;  // an axis of one sample
}

// One group's walk in one direction: where it starts, how it steps, how many
// samples it may take, and what it has taken.
struct Walker {
    F px, py, stepX, stepY;
    I m;
    F sums, count;
};

// kGroups groups walk together, so that one group's chain of dependent
// operations overlaps the other's, and a walk's end costs once for both.
// Pixels are addressed by 32-bit offsets from row 0, which the caller has
// checked the source fits.
template <typename P>
PL_INLINE_HOT void Walk(const SourceView<P, 4>& src, Walker (&groups)[kGroups]) {
    using T = typename P::Element;
    I alive[kGroups];
    F px[kGroups], py[kGroups];
    for (int g = 0; g < kGroups; ++g) {
        alive[g] = groups[g].m > 0;
        px[g] = groups[g].px;
        py[g] = groups[g].py;
    }
    for (int32_t k = 0;; ++k) {
        I any = {};
        for (int g = 0; g < kGroups; ++g) {
            const Walker& w = groups[g];
            alive[g] &= (I{} + k) < w.m;
            alive[g] &= (px[g] >= 0.0f) & (px[g] < src.fWidth) & (py[g] >= 0.0f) & (py[g] < src.fHeight);
            any |= alive[g];
        }
        if (!Any(any)) return;
        for (int g = 0; g < kGroups; ++g) {
            Walker& w = groups[g];
            // Lanes that have stopped read a pixel inside, and throw it away.
            I ix, iy;
            F fx, fy;
            Tap(px[g], src.lastColumn, ix, fx);
            Tap(py[g], src.lastRow, iy, fy);
            const I offset = iy * src.rowStep + ix * src.kPixelBytes;
            const uint8_t *upper[kPixels], *lower[kPixels];
            for (int j = 0; j < kPixels; ++j) {
                upper[j] = src.row0 + offset[4 * j];
                lower[j] = upper[j] + src.down;
            }
            F top, topRight, bottom, bottomRight;
            LoadPairs<T>(upper, top, topRight);
            LoadPairs<T>(lower, bottom, bottomRight);
            const F a = AddKeepingFirstNaN((topRight - top) * fx, top);
            const F b = AddKeepingFirstNaN((bottomRight - bottom) * fx, bottom);
            const F sample = AddKeepingFirstNaN((b - a) * fy, a) + 0.0f;
            w.sums = alive[g] ? AddKeepingFirstNaN(w.sums, sample) : w.sums;
            w.count = alive[g] ? w.count + 1.0f : w.count;
            px[g] += w.stepX;
            py[g] += w.stepY;
        }
    }
}

// Lane `Lane` of each pixel in all four of its lanes.
template <int Lane, int N = kPixels>
PL_INLINE_HOT auto EachPixels(const F& v) {
    constexpr int c = Lane;
    if constexpr (N == 2) {
        return __builtin_shufflevector(v, v, c, c, c, c, 4 + c, 4 + c, 4 + c, 4 + c);
    } else {
        return __builtin_shufflevector(v, v, c, c, c, c, 4 + c, 4 + c, 4 + c, 4 + c, 8 + c, 8 + c, 8 + c,
                                       8 + c, 12 + c, 12 + c, 12 + c, 12 + c);
    }
}

// The flow as the wide plan reads it: a row's vertical tap is shared by all
// its pixels, so only the horizontal one goes lane by lane.
struct FlowRow {
    const uint8_t* row;  // the upper row of the tap
    int32_t down;
    int32_t right;
    int32_t lastColumn;
    float fraction;
};

FlowRow FlowRowAt(const PLImage& flow, float fy) {
    const PLCellTap ty = PLLastCellTap<PLBeforeFirst::kKeepFraction>(fy, flow.lastRow);
    return {flow.Row(0) + PLOffset(ty.index, flow.rowStep), flow.lastRow > 0 ? flow.rowStep : 0,
            flow.lastColumn > 0 ? 2 * static_cast<int32_t>(sizeof(float)) : 0, flow.lastColumn, ty.fraction};
}

// Plan (the one-pixel body's) for every pixel of a group at once: n is 0 for
// a still pixel, else the samples forward, with the steps.
PL_INLINE_HOT void PlanGroup(const FlowRow& flow, const F& fx, float kx, float ky, float stillBelow, I& n,
                             F& stepX, F& stepY) {
    I ix;
    F f;
    Tap(fx, flow.lastColumn, ix, f);
    PLLanes p0[kPixels], p1[kPixels], q0[kPixels], q1[kPixels];
    for (int j = 0; j < kPixels; ++j) {
        const uint8_t* p = flow.row + static_cast<ptrdiff_t>(ix[4 * j]) * (2 * sizeof(float));
        p0[j] = PLLoadLanes<float, 2>(p);
        p1[j] = PLLoadLanes<float, 2>(p + flow.right);
        q0[j] = PLLoadLanes<float, 2>(p + flow.down);
        q1[j] = PLLoadLanes<float, 2>(p + flow.down + flow.right);
    }
    const F top = Join(p0);
    const F bottom = Join(q0);
    // A NaN vector walks one sample whatever its sign, so these additions may
    // take their operands in either order.
    const F a = (Join(p1) - top) * f + top;
    const F b = (Join(q1) - bottom) * f + bottom;
    const F vector = ((b - a) * flow.fraction + a) + 0.0f;
    const F du = EachPixels<0>(vector) * kx;
    const F dv = EachPixels<1>(vector) * ky;
    const F d2 = du * du + dv * dv;
    const I still = d2 < stillBelow;
    const I whole = Truncate(SquareRoot(d2) + 1.0f);
    const I one = whole < 2;
    n = one ? (I{} + 2) : whole;
    stepX = one ? du : du / __builtin_convertvector(n - 1, F);
    stepY = one ? dv : dv / __builtin_convertvector(n - 1, F);
    n = still ? I{} : n;
}

template <typename P>
void BlurRows(const BlurCall& call) {
    using T = typename P::Element;
    const PLImage& source = *call.source;
    const Scales scales(source, *call.flow, call.amount);
    QVIdleAndProgressClass rowProgress(call.progress);
    const SourceView<P, 4> src(source);
    constexpr int32_t kPixelBytes = SourceView<P, 4>::kPixelBytes;
    const int32_t span = call.last - call.first;
    const float stillBelow = StillBelow();

    float y = static_cast<float>(call.first);
    for (int32_t row = call.first; row <= call.last; ++row, y += 1.0f) {
        if (span > 0)
            rowProgress.ProgressIdle((y - static_cast<float>(call.first)) / static_cast<float>(span));
        uint8_t* out = call.output->Row(row) + PLOffset(call.x0, call.output->pixelStride);
        const uint8_t* sourceRow = source.Row(row) + PLOffset(call.x0, kPixelBytes);
        const float fy = y * scales.invY;
        const FlowRow flow = FlowRowAt(*call.flow, fy);
        float x = static_cast<float>(call.x0);
        for (int32_t column = call.x0; column <= call.x1; column += kGroups * kPixels) {
            Walker groups[kGroups];
            int32_t pixels[kGroups];
            bool walks = false;
            for (int g = 0; g < kGroups; ++g) {
                const int32_t left = call.x1 - column - g * kPixels + 1;
                pixels[g] = left < 0 ? 0 : left < kPixels ? left : kPixels;
                float xs[kPixels];
                for (int j = 0; j < kPixels; ++j, x += 1.0f) xs[j] = x;
                Walker& w = groups[g];
                w.px = Spread<F>(xs);
                w.py = F{} + y;
                PlanGroup(flow, scales.invX * w.px, scales.kx, scales.ky, stillBelow, w.m, w.stepX, w.stepY);
                // Lanes past the row take no samples.
                for (int lane = 4 * pixels[g]; lane < 4 * kPixels; ++lane) w.m[lane] = 0;
                w.sums = w.count = F{};
                walks = walks || Any(w.m);
            }
            if (walks) {
                Walk<P>(src, groups);
                for (Walker& w : groups) {
                    w.px -= w.stepX;
                    w.py -= w.stepY;
                    w.stepX = -w.stepX;
                    w.stepY = -w.stepY;
                    w.m -= 1;
                }
                Walk<P>(src, groups);
            }
            for (int g = 0; g < kGroups; ++g) {
                const Walker& w = groups[g];
                const F average = w.sums * (1.0f / w.count);
                for (int j = 0; j < pixels[g]; ++j, out += kPixelBytes, sourceRow += kPixelBytes) {
                    if (!walks || w.m[4 * j] < 0) {  // still: no samples either way
                        std::memcpy(out, sourceRow, kPixelBytes);
                        continue;
                    }
                    for (int c = 0; c < 4; ++c)
                        P::Store(out + c * static_cast<int32_t>(sizeof(T)),
                                 P::RoundClamp(average[4 * j + c]));
                }
            }
        }
    }
}
