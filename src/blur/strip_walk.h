// The AVX-512 walk for float sources, in strips of 16 pixels: each pixel's
// position, step, count and liveness in one lane of a register, so the plan,
// the taps, the edge test, the offsets and the steps are taken once for 16
// pixels instead of once in each of a pixel's four lanes. The sums stay as the wide
// walk keeps them (a pixel's four channels in four lanes, four pixels to a
// register), each pixel's fractions and liveness spread to its lanes, so every
// lane still does exactly its channel's operations of the one-pixel body.
//
// Included by kernels.cpp after wide_walk.h, in the AVX-512 region only (it
// uses that file's helpers with kPixels = 4). No include guard, no includes.

static_assert(kPixels == 4, "a strip register holds one lane per pixel of four wide registers");

constexpr int kStripPixels = 4 * kPixels;
constexpr int kQuads = kStripPixels / kPixels;

// One strip's walk in one direction. Lane j of px, py, stepX, stepY, m and
// count is pixel j; sums[q] holds pixels 4q to 4q + 3 as the wide walk does.
struct Strip {
    F px, py, stepX, stepY;
    I m;
    F count;
    F sums[kQuads];
};

// Pixels 4q to 4q + 3 of a strip vector, each in its four lanes.
template <typename V>
PL_INLINE_HOT V QuadOf(const V& v, int q) {
    const I index = I{0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3} + 4 * q;
    return reinterpret_cast<V>(
        _mm512_permutexvar_ps(reinterpret_cast<__m512i>(index), reinterpret_cast<__m512>(v)));
}

// The first lane of each pixel of four wide registers, in pixel order.
template <typename V>
PL_INLINE_HOT V StripOf(const V (&quads)[kQuads]) {
    const __m512i firsts = _mm512_setr_epi32(0, 4, 8, 12, 16, 20, 24, 28, 0, 4, 8, 12, 16, 20, 24, 28);
    const __m512 low = _mm512_permutex2var_ps(reinterpret_cast<__m512>(quads[0]), firsts,
                                              reinterpret_cast<__m512>(quads[1]));
    const __m512 high = _mm512_permutex2var_ps(reinterpret_cast<__m512>(quads[2]), firsts,
                                               reinterpret_cast<__m512>(quads[3]));
    return reinterpret_cast<V>(_mm512_shuffle_f32x4(low, high, _MM_SHUFFLE(1, 0, 1, 0)));
}

// The flow at two neighbouring columns of one row for every pixel of a strip,
// one 16-byte read per pixel: u and v at each pixel's column, then at the next.
PL_INLINE_HOT void FlowPairs(const uint8_t* row, const I& column, F (&uv)[4]) {
    const auto at = [&](int j) {
        return _mm_loadu_ps(reinterpret_cast<const float*>(row + static_cast<ptrdiff_t>(column[j]) * 8));
    };
    __m512 z[4];
    for (int q = 0; q < 4; ++q) {
        z[q] = _mm512_castps128_ps512(at(q));
        z[q] = _mm512_insertf32x4(z[q], at(q + 4), 1);
        z[q] = _mm512_insertf32x4(z[q], at(q + 8), 2);
        z[q] = _mm512_insertf32x4(z[q], at(q + 12), 3);
    }
    const __m512d t0 = _mm512_castps_pd(_mm512_unpacklo_ps(z[0], z[1]));
    const __m512d t1 = _mm512_castps_pd(_mm512_unpackhi_ps(z[0], z[1]));
    const __m512d t2 = _mm512_castps_pd(_mm512_unpacklo_ps(z[2], z[3]));
    const __m512d t3 = _mm512_castps_pd(_mm512_unpackhi_ps(z[2], z[3]));
    uv[0] = reinterpret_cast<F>(_mm512_unpacklo_pd(t0, t2));
    uv[1] = reinterpret_cast<F>(_mm512_unpackhi_pd(t0, t2));
    uv[2] = reinterpret_cast<F>(_mm512_unpacklo_pd(t1, t3));
    uv[3] = reinterpret_cast<F>(_mm512_unpackhi_pd(t1, t3));
}

// PlanGroup for a strip, one lane per pixel: the same operations lane by
// lane. The flow must be two columns wide.
PL_INLINE_HOT void PlanStrip(const FlowRow& flow, const F& fx, float kx, float ky, float stillBelow, I& n,
                             F& stepX, F& stepY) {
    I ix;
    F f;
    Tap(fx, flow.lastColumn, ix, f);
    F top[4], bottom[4];
    FlowPairs(flow.row, ix, top);
    FlowPairs(flow.row + flow.down, ix, bottom);
    // A NaN vector walks one sample whatever its sign, so these additions may
    // take their operands in either order.
    const F aU = (top[2] - top[0]) * f + top[0];
    const F aV = (top[3] - top[1]) * f + top[1];
    const F bU = (bottom[2] - bottom[0]) * f + bottom[0];
    const F bV = (bottom[3] - bottom[1]) * f + bottom[1];
    const F du = (((bU - aU) * flow.fraction + aU) + 0.0f) * kx;
    const F dv = (((bV - aV) * flow.fraction + aV) + 0.0f) * ky;
    const F d2 = du * du + dv * dv;
    const I still = d2 < stillBelow;
    const I whole = Truncate(SquareRoot(d2) + 1.0f);
    const I one = whole < 2;
    n = one ? (I{} + 2) : whole;
    stepX = one ? du : du / __builtin_convertvector(n - 1, F);
    stepY = one ? dv : dv / __builtin_convertvector(n - 1, F);
    n = still ? I{} : n;
}

// kStrips strips walk together, as the wide walk's groups do; one alone
// measured as fast at short walks and faster at long ones.
template <int kStrips>
PL_INLINE_HOT void WalkStrips(const SourceView<PLPixel<PLPixelFloat>, 4>& src, Strip (&strips)[kStrips]) {
    const __m512 zero = _mm512_setzero_ps();
    const __m512 width = _mm512_set1_ps(src.fWidth);
    const __m512 height = _mm512_set1_ps(src.fHeight);
    __mmask16 alive[kStrips];
    F px[kStrips], py[kStrips];
    for (int s = 0; s < kStrips; ++s) {
        alive[s] = _mm512_cmpgt_epi32_mask(reinterpret_cast<__m512i>(strips[s].m), _mm512_setzero_si512());
        px[s] = strips[s].px;
        py[s] = strips[s].py;
    }
    for (int32_t k = 0;; ++k) {
        __mmask16 any = 0;
        for (int s = 0; s < kStrips; ++s) {
            __mmask16 a = _mm512_mask_cmplt_epi32_mask(alive[s], _mm512_set1_epi32(k),
                                                       reinterpret_cast<__m512i>(strips[s].m));
            const __m512 x = reinterpret_cast<__m512>(px[s]);
            const __m512 y = reinterpret_cast<__m512>(py[s]);
            a = _mm512_mask_cmp_ps_mask(a, x, zero, _CMP_GE_OQ);
            a = _mm512_mask_cmp_ps_mask(a, x, width, _CMP_LT_OQ);
            a = _mm512_mask_cmp_ps_mask(a, y, zero, _CMP_GE_OQ);
            a = _mm512_mask_cmp_ps_mask(a, y, height, _CMP_LT_OQ);
            alive[s] = a;
            any |= a;
        }
        if (!any) return;
        for (int s = 0; s < kStrips; ++s) {
            Strip& w = strips[s];
            // Lanes that have stopped read a pixel inside, and throw it away.
            I ix, iy;
            F fx, fy;
            Tap(px[s], src.lastColumn, ix, fx);
            Tap(py[s], src.lastRow, iy, fy);
            const I offset = iy * src.rowStep + ix * src.kPixelBytes;
            int32_t at[kStripPixels];
            std::memcpy(at, &offset, sizeof at);
            const I live = reinterpret_cast<I>(_mm512_movm_epi32(alive[s]));
            for (int q = 0; q < kQuads; ++q) {
                const uint8_t *upper[kPixels], *lower[kPixels];
                for (int j = 0; j < kPixels; ++j) {
                    upper[j] = src.row0 + at[kPixels * q + j];
                    lower[j] = upper[j] + src.down;
                }
                F top, topRight, bottom, bottomRight;
                LoadPairs<float>(upper, top, topRight);
                LoadPairs<float>(lower, bottom, bottomRight);
                const F qfx = QuadOf(fx, q);
                const F qfy = QuadOf(fy, q);
                const F a = AddKeepingFirstNaN((topRight - top) * qfx, top);
                const F b = AddKeepingFirstNaN((bottomRight - bottom) * qfx, bottom);
                const F sample = AddKeepingFirstNaN((b - a) * qfy, a) + 0.0f;
                w.sums[q] = QuadOf(live, q) ? AddKeepingFirstNaN(w.sums[q], sample) : w.sums[q];
            }
            w.count = reinterpret_cast<F>(_mm512_mask_add_ps(reinterpret_cast<__m512>(w.count), alive[s],
                                                             reinterpret_cast<__m512>(w.count),
                                                             _mm512_set1_ps(1.0f)));
            px[s] += w.stepX;
            py[s] += w.stepY;
        }
    }
}

// The wide walk's rows for float sources, a strip at a time: the same plan,
// one lane per pixel (PlanStrip, or PlanGroup four pixels at a time for a
// flow one column wide), and the same average and stores.
template <typename P, int kStrips = 1>
void StripRows(const BlurCall& call) {
    static_assert(std::is_same_v<typename P::Element, float>, "strips walk float sources");
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
        for (int32_t column = call.x0; column <= call.x1; column += kStrips * kStripPixels) {
            Strip strips[kStrips];
            int32_t pixels[kStrips];
            bool walks = false;
            for (int s = 0; s < kStrips; ++s) {
                const int32_t left = call.x1 - column - s * kStripPixels + 1;
                pixels[s] = left < 0 ? 0 : left < kStripPixels ? left : kStripPixels;
                float xs[kStripPixels];
                for (int j = 0; j < kStripPixels; ++j, x += 1.0f) xs[j] = x;
                Strip& w = strips[s];
                std::memcpy(&w.px, xs, sizeof w.px);
                w.py = F{} + y;
                if (flow.right == 2 * static_cast<int32_t>(sizeof(float))) {
                    PlanStrip(flow, scales.invX * w.px, scales.kx, scales.ky, stillBelow, w.m, w.stepX,
                              w.stepY);
                } else {  // a flow one column wide: four pixels at a time
                    I n[kQuads];
                    F stepX[kQuads], stepY[kQuads];
                    for (int q = 0; q < kQuads; ++q) {
                        const float(&quad)[kPixels] =
                            *reinterpret_cast<const float(*)[kPixels]>(xs + kPixels * q);
                        PlanGroup(flow, scales.invX * Spread<F>(quad), scales.kx, scales.ky, stillBelow, n[q],
                                  stepX[q], stepY[q]);
                    }
                    w.m = StripOf(n);
                    w.stepX = StripOf(stepX);
                    w.stepY = StripOf(stepY);
                }
                // Lanes past the row take no samples.
                for (int lane = pixels[s]; lane < kStripPixels; ++lane) w.m[lane] = 0;
                w.count = F{};
                for (F& sums : w.sums) sums = F{};
                walks = walks || Any(w.m);
            }
            if (walks) {
                WalkStrips(src, strips);
                for (Strip& w : strips) {
                    w.px -= w.stepX;
                    w.py -= w.stepY;
                    w.stepX = -w.stepX;
                    w.stepY = -w.stepY;
                    w.m -= 1;
                }
                WalkStrips(src, strips);
            }
            for (int s = 0; s < kStrips; ++s) {
                const Strip& w = strips[s];
                for (int q = 0; q < kQuads; ++q) {
                    const F average = w.sums[q] * (1.0f / QuadOf(w.count, q));
                    for (int j = 0; j < kPixels; ++j) {
                        const int lane = kPixels * q + j;
                        if (lane >= pixels[s]) break;
                        if (!walks || w.m[lane] < 0) {  // still: no samples either way
                            std::memcpy(out, sourceRow, kPixelBytes);
                        } else {
                            for (int c = 0; c < 4; ++c)
                                P::Store(out + c * static_cast<int32_t>(sizeof(float)),
                                         P::RoundClamp(average[4 * j + c]));
                        }
                        out += kPixelBytes;
                        sourceRow += kPixelBytes;
                    }
                }
            }
        }
    }
}
