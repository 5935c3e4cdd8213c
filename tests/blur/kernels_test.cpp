// The blur along the vectors: sample rule by hand, edges, members, threads, hostile input.
#include <cmath>
#include <cstring>
#include <limits>

#include "base/isa.h"
#include "blur/motion_blur.h"
#include "common/library.h"

namespace {

struct Body {
    int32_t mode;
    bool countOutside;
    const char* name;
};
constexpr Body kBodies[] = {{PLBlurBilinear, false, "bilinear, stop at edge"},
                            {PLBlurNearest, false, "nearest, stop at edge"},
                            {PLBlurBilinear, true, "bilinear, count outside"},
                            {PLBlurNearest, true, "nearest, count outside"}};
constexpr Body kBilinearStop = kBodies[0], kNearestStop = kBodies[1], kBilinearCount = kBodies[2],
               kNearestCount = kBodies[3];

void Blur(PLImage& out, const PLImage& src, const PLImage& flow, float amount,
          const Body& body = kBilinearStop, QVIdleAndProgressClass* progress = nullptr) {
    PLMotionBlur(&out, &src, &flow, body.mode, 1, progress, body.countOutside, amount);
}

TYPED_TEST_SUITE(EveryFormat, AllFormats);

// Still pixels copy bit for bit; every member blurs as the float one up to its
// rounding. The off-path bodies are checked exactly in EdgeRules.
TYPED_TEST(EveryFormat, StillCopiesAndAgreementWithTheFloatMember) {
    using P = typename TypeParam::Traits;
    constexpr int C = TypeParam::kChannels;
    constexpr int32_t w = 16, h = 12;
    ImagePtr src = MakeImage(w, h, C, P::kPixelType);
    Scribble(*src, 42);
    // Zero, -0 and half-lengths whose square lies below 1e-06.
    ImagePtr still = UniformFlow(w, h, 0.0f, 0.0f);
    Set<float>(*still, 1, 1, 0, -0.0f);
    Set<float>(*still, 2, 2, 0, 1.9e-3f);
    Set<float>(*still, 3, 3, 1, -1.9e-3f);

    auto code = [](int32_t x, int32_t y, int32_t c) { return (x * 37 + y * 91 + c * 53) % 256; };
    ImagePtr reference = Pattern(w, h, 4, PLPixelFloat, [&](int32_t x, int32_t y, int32_t c) {
        return static_cast<float>(code(x, y, c)) / 255.0f;
    });
    ImagePtr content = Pattern(w, h, C, P::kPixelType, [&](int32_t x, int32_t y, int32_t c) {
        return P::kIsFloat ? static_cast<float>(code(x, y, c)) / 255.0f
                           : static_cast<float>(code(x, y, c)) * (P::kWhite / 255.0f);
    });
    ImagePtr flow = Pattern(w, h, 2, PLPixelFloat, [](int32_t x, int32_t y, int32_t c) {
        return c ? (y - 5.0f) * 0.6f : (x - 7.5f) * 0.9f;
    });
    ImagePtr out = MakeImage(w, h, C, P::kPixelType);
    FillBytes(*out, 0xAB);
    Blur(*out, *src, *still, 1.0f);
    EXPECT_EQ(RowBytes(*out), RowBytes(*src));

    ImagePtr expected = MakeImage(w, h, 4, PLPixelFloat);
    Blur(*expected, *reference, *flow, 1.5f);
    Blur(*out, *content, *flow, 1.5f);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int32_t c = 0; c < C; ++c)
                ASSERT_NEAR(Value(*out, x, y, c), Get<float>(*expected, x, y, c) * P::kWhite,
                            P::kIsFloat          ? 0.0
                            : P::kWhite > 255.0f ? 0.6
                                                 : 0.501)
                    << x << "," << y << "," << c;
}

TEST(BlurKernel, SampleCountsAndStepsFromTheHalfLength) {
    // On a ramp v(x) = x a bilinear sample is its own position: the sum is the
    // sum of the positions. Four channels: the plug-in's body, on every path.
    ImagePtr ramp = Pattern(32, 4, 4, PLPixelFloat, [](int32_t x, int32_t, int32_t) { return float(x); });
    ImagePtr out = MakeImage(32, 4, 4, PLPixelFloat);
    const float step = 3.7f / 3.0f;
    const float f1 = 16.0f + step, f2 = f1 + step, f3 = f2 + step, b1 = 16.0f - step, b2 = b1 - step,
                b3 = b2 - step;
    const struct {
        float half, want;
    } cases[] = {
        {4.0f, 144.0f * (1.0f / 9.0f)},  // n = 5, step 1, positions 12 to 20
        {0.9f, (16.0f + (16.0f + 0.9f) + (16.0f - 0.9f)) * (1.0f / 3.0f)},  // n = 2, step = half-length
        {3.7f, (16.0f + f1 + f2 + f3 + b1 + b2 + b3) * (1.0f / 7.0f)}};     // n = 4, repeated addition
    for (const auto& c : cases) {
        Blur(*out, *ramp, *UniformFlow(32, 4, c.half, 0.0f), 2.0f);
        EXPECT_EQ(Get<float>(*out, 16, 1), c.want) << c.half;
    }

    // The smallest half-length whose square, widened, is not below 1e-06 blurs
    // over three samples of weight one third; one step shorter is a copy.
    float du = 0.001f;
    while (static_cast<double>(std::nextafter(du, 0.0f) * std::nextafter(du, 0.0f)) >= 1e-06)
        du = std::nextafter(du, 0.0f);
    while (static_cast<double>(du * du) < 1e-06) du = std::nextafter(du, 1.0f);
    ImagePtr spike =
        Pattern(12, 4, 4, PLPixelFloat, [](int32_t x, int32_t, int32_t) { return x == 5 ? 90 : 0; });
    ImagePtr spikeOut = MakeImage(12, 4, 4, PLPixelFloat);
    Blur(*spikeOut, *spike, *UniformFlow(12, 4, du, 0.0f), 2.0f);
    const float s1 = (0.0f - 90.0f) * ((5.0f + du) - 5.0f) + 90.0f, s2 = 90.0f * ((5.0f - du) - 4.0f);
    EXPECT_EQ(Get<float>(*spikeOut, 5, 1), (90.0f + s1 + s2) * (1.0f / 3.0f));
    Blur(*spikeOut, *spike, *UniformFlow(12, 4, std::nextafter(du, 0.0f), 0.0f), 2.0f);
    EXPECT_EQ(RowBytes(*spikeOut), RowBytes(*spike));
    // The comparison is in 64 bits: a square equal to 1e-06f, below 1e-06, is still.
    const float u = 0x1.6f0068p-11f, v = 0x1.766aa2p-11f;
    ASSERT_EQ(u * u + v * v, 1e-06f);
    Blur(*spikeOut, *spike, *UniformFlow(12, 4, u, v), 2.0f);
    EXPECT_EQ(RowBytes(*spikeOut), RowBytes(*spike));
}

TEST(BlurKernel, EdgeRulesAndShortVectors) {
    // n = 3, step 1 at the borders. Left: forward 10, 20, 60; nearest also
    // takes -0.5, which truncates into column 0. Right: 90 forward, 70 and 50
    // backward. Count-outside always divides by 5.
    const uint8_t row[8] = {10, 20, 60, 100, 40, 50, 70, 90};
    ImagePtr src = Pattern(8, 3, 1, PLPixelUChar, [&](int32_t x, int32_t, int32_t) { return float(row[x]); });
    ImagePtr out = MakeImage(8, 3, 1, PLPixelUChar);
    const struct {
        Body body;
        uint8_t left, right;
    } streaks[] = {
        {kBilinearStop, 30, 70}, {kNearestStop, 25, 70}, {kBilinearCount, 18, 42}, {kNearestCount, 20, 42}};
    for (const auto& c : streaks) {
        Blur(*out, *src, *UniformFlow(8, 3, 2.0f, 0.0f), 2.0f, c.body);
        EXPECT_EQ(Get<uint8_t>(*out, 0, 1), c.left) << c.body.name;
        EXPECT_EQ(Get<uint8_t>(*out, 7, 1), c.right) << c.body.name;
    }

    // Corner, half-length (-0.6, -0.6): n = 2, the forward walk leaves at once,
    // the backward sample lies at (0.6, 0.6).
    ImagePtr corner =
        Pattern(6, 6, 1, PLPixelFloat, [](int32_t x, int32_t y, int32_t) { return x + y ? 0.75f : 0.25f; });
    ImagePtr cornerOut = MakeImage(6, 6, 1, PLPixelFloat);
    const float a = (0.75f - 0.25f) * 0.6f + 0.25f, sum = 0.25f + ((0.75f - a) * 0.6f + a);
    Blur(*cornerOut, *corner, *UniformFlow(6, 6, -0.6f, -0.6f), 2.0f, kBilinearStop);
    EXPECT_EQ(Get<float>(*cornerOut, 0, 0), sum * (1.0f / 2.0f));
}

TEST(BlurKernel, FlowOfAnotherSizeMeetsTheSourceAtTheCorners) {
    ImagePtr src = Pattern(9, 13, 1, PLPixelFloat,
                           [](int32_t x, int32_t y, int32_t) { return (x * x + 3 * y * y) / 100.0f; });
    // A 5 x 4 flow scales by (9 - 1) / (5 - 1) = 2 across and (13 - 1) / (4 - 1)
    // = 4 down, in position and in length.
    ImagePtr small = MakeImage(9, 13, 1, PLPixelFloat), full = MakeImage(9, 13, 1, PLPixelFloat);
    Blur(*small, *src, *UniformFlow(5, 4, 0.75f, 0.5f), 1.0f);
    Blur(*full, *src, *UniformFlow(9, 13, 1.5f, 2.0f), 1.0f);
    EXPECT_EQ(RowBytes(*small), RowBytes(*full));
    // The last column reads the flow's last column exactly: still there, moving
    // one column further in.
    ImagePtr flow = Pattern(3, 3, 2, PLPixelFloat,
                            [](int32_t x, int32_t, int32_t c) { return c || x == 2 ? 0.0f : 4.0f; });
    Blur(*full, *src, *flow, 1.0f);
    for (int32_t y = 0; y < 13; ++y) {
        EXPECT_EQ(Get<float>(*full, 8, y), Get<float>(*src, 8, y)) << "row " << y;
        EXPECT_NE(Get<float>(*full, 7, y), Get<float>(*src, 7, y)) << "row " << y;
    }
}

TEST(BlurKernel, RegionWritesOnlyItsRectangleAndRefusesBoundsOutside) {
    ImagePtr src =
        Pattern(8, 6, 4, PLPixelUChar, [](int32_t x, int32_t y, int32_t c) { return x * 20 + y * 7 + c; });
    ImagePtr flow = UniformFlow(8, 6, 3.0f, -2.0f), whole = MakeImage(8, 6, 4, PLPixelUChar);
    Blur(*whole, *src, *flow, 1.0f);
    ImagePtr out = MakeImage(8, 6, 4, PLPixelUChar);
    FillBytes(*out, 0xAB);
    const auto region = [](PLImage* o, const PLImage* s, const PLImage* f, int32_t x1, int32_t y0, int32_t y1,
                           int32_t x0 = 0) {
        PLMotionBlurRegion(o, s, f, 1.0f, PLBlurBilinear, nullptr, false, x0, x1, y0, y1);
    };
    region(out.get(), src.get(), flow.get(), 6, 2, 4, 3);
    for (int32_t y = 0; y < 6; ++y)
        for (int32_t x = 0; x < 8; ++x) {
            const bool inside = x >= 3 && x <= 6 && y >= 2 && y <= 4;
            ASSERT_EQ(Get<uint8_t>(*out, x, y, 1), inside ? Get<uint8_t>(*whole, x, y, 1) : 0xAB)
                << x << "," << y;
        }

    // Bounds outside are refused unwritten (unfit images are the engine's refusals).
    FillBytes(*out, 0xAB);
    const std::vector<uint8_t> untouched = RowBytes(*out);
    EXPECT_THROW(region(out.get(), src.get(), flow.get(), 8, 0, 5), PLErr);
    EXPECT_THROW(region(out.get(), src.get(), flow.get(), 7, -1, 5), PLErr);
    EXPECT_NO_THROW(region(out.get(), src.get(), flow.get(), 7, 4, 3)) << "no rows: nothing to do";
    EXPECT_EQ(RowBytes(*out), untouched);
}

TEST(BlurKernel, ThreadsAgreeReportOncePerRowAndAbortKeepsTheRowsWritten) {
    ImagePtr flow = MakeImage(20, 35, 2, PLPixelFloat);
    FillWith(*flow, [](int32_t x, int32_t y, int32_t c) {
        return ((x * 37 + y * 91 + c * 53) % 2000) / 100.0f - 10;
    });
    for (int32_t type : {PLPixelUChar, PLPixelFloat}) {
        ImagePtr src = MakeImage(40, 70, 4, type);
        FillNoise(*src, 3);
        std::vector<uint8_t> results[3];
        for (int32_t threads = 1; threads <= 3; ++threads) {
            ThreadLimit limit(threads);
            for (const Body& body : kBodies) {
                ImagePtr out = MakeImage(40, 70, 4, type);
                Blur(*out, *src, *flow, 1.3f, body);
                for (uint8_t b : RowBytes(*out)) results[threads - 1].push_back(b);
            }
        }
        EXPECT_EQ(results[0], results[1]) << "type " << type << ", one thread against two";
        EXPECT_EQ(results[0], results[2]) << "type " << type << ", one thread against three";
    }

    const int32_t w = 20, h = 40;
    ImagePtr src = MakeImage(w, h, 4, PLPixelUChar), expected = MakeImage(w, h, 4, PLPixelUChar);
    Scribble(*src, 4);
    ImagePtr uniform = UniformFlow(w, h, 3.0f, 1.0f);
    for (int32_t threads : {1, 2}) {
        ThreadLimit limit(threads);
        const int32_t reporterRows = threads == 1 ? h : h / 2;
        CountingProgress counting, aborting(5);
        Blur(*expected, *src, *uniform, 1.0f, kBilinearStop, &counting);
        EXPECT_EQ(counting.reports, reporterRows) << threads << " threads: only the first worker reports";
        EXPECT_EQ(counting.fractions.back(), 1.0f);
        ImagePtr out = MakeImage(w, h, 4, PLPixelUChar);
        FillBytes(*out, 0xAB);
        EXPECT_THROW(Blur(*out, *src, *uniform, 1.0f, kBilinearStop, &aborting), PLErr)
            << threads << " threads";
        for (int32_t y = 0; y < reporterRows; ++y)
            for (int32_t i = 0; i < w * 4; ++i)
                ASSERT_EQ(out->Row(y)[i], y < 4 ? expected->Row(y)[i] : 0xAB)
                    << threads << " threads, row " << y;
    }
}

// Every path's walk against the one-pixel body's, bit for bit (NaN signs and
// payloads included): regions that start and end inside a wide path's group,
// one- and two-row sources, a flipped one, and walks that stop at different
// steps, pixel by pixel.
TEST(BlurKernel, EveryPathWalksFloatsAsTheOnePixelBody) {
    const auto floatOf = [](uint32_t bits) {
        float v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    };
    const float inf = std::numeric_limits<float>::infinity();
    const float specials[] = {
        floatOf(0x7fc00123), floatOf(0xffc00456), floatOf(0x7f800001), inf, -inf, 3e38f, -0.0f};
    const float lengths[] = {0.0f, 0.3f, -1.7f, 3.4f, -6.1f, 25.0f, -90.0f, 1e30f, floatOf(0xffc00001)};
    const struct {
        int32_t w, h, flipped, x0, x1, flowW, flowH;  // a flow of 0 columns: the source's size
    } cases[] = {{37, 9, 0, 0, 36, 0, 0}, {37, 9, 0, 3, 20, 0, 0}, {37, 9, 1, 1, 33, 0, 0},
                 {37, 9, 0, 5, 5, 0, 0},  {40, 1, 0, 2, 39, 0, 0}, {19, 2, 1, 0, 18, 0, 0},
                 {2, 5, 0, 0, 1, 0, 0},   {37, 9, 0, 0, 36, 6, 4}, {37, 9, 0, 2, 30, 1, 4}};
    for (const auto& c : cases) {
        uint32_t seed = static_cast<uint32_t>(c.w * 131 + c.h * 7 + c.x0);
        ImagePtr src = MakeImage(c.w, c.h, 4, PLPixelFloat, c.flipped);
        FillNoise(*src, seed);
        for (int32_t i = 0; i < c.w * c.h / 3; ++i)
            Set<float>(*src, static_cast<int32_t>(Noise(seed) * c.w), static_cast<int32_t>(Noise(seed) * c.h),
                       static_cast<int32_t>(Noise(seed) * 4), specials[static_cast<int>(Noise(seed) * 7)]);
        ImagePtr flow =
            c.flowW ? MakeImage(c.flowW, c.flowH, 2, PLPixelFloat) : MakeImage(c.w, c.h, 2, PLPixelFloat);
        // Half the vectors as listed: at the amount 0.8, 25 steps by whole
        // pixels from a whole pixel, onto the right edge.
        FillWith(*flow, [&](int32_t, int32_t, int32_t) {
            const int pick = static_cast<int>(Noise(seed) * 9);
            const float scale = 0.5f + Noise(seed);
            return lengths[pick] * (pick % 2 ? scale : 1.0f);
        });
        std::vector<uint8_t> want;
        for (int32_t isa = PLIsaBaseline; isa <= PLMachineIsa(); ++isa) {
            PLUseIsa(static_cast<PLIsa>(isa));
            ImagePtr out = MakeImage(c.w, c.h, 4, PLPixelFloat, c.flipped);
            FillBytes(*out, 0xAB);
            PLMotionBlurRegion(out.get(), src.get(), flow.get(), 0.8f, PLBlurBilinear, nullptr, false, c.x0,
                               c.x1, 0, c.h - 1);
            if (isa == PLIsaBaseline)
                want = RowBytes(*out);
            else
                EXPECT_EQ(RowBytes(*out), want) << PLIsaName(static_cast<PLIsa>(isa)) << ", " << c.w << "x"
                                                << c.h << ", columns " << c.x0 << " to " << c.x1;
        }
        PLUseIsa(PLMachineIsa());
    }
}

TEST(BlurGuards, DegenerateSizesNonFiniteVectorsAndAmounts) {
    // A degenerate flow scale ends every walk after its first sample: a copy,
    // or a third of it when the two empty samples count.
    const struct {
        int32_t sw, sh, fw, fh;
    } sizes[] = {{1, 6, 4, 4}, {6, 1, 4, 4}, {6, 6, 1, 4}, {6, 6, 4, 1},
                 {1, 1, 1, 1}, {6, 6, 1, 1}, {1, 6, 1, 6}, {1, 1, 4, 4}};
    for (const auto& s : sizes) {
        ImagePtr src = Pattern(s.sw, s.sh, 4, PLPixelUChar,
                               [](int32_t x, int32_t y, int32_t c) { return 40 + (x * 4 + c) * 5 + y * 3; });
        for (const Body& body : kBodies) {
            ImagePtr out = MakeImage(s.sw, s.sh, 4, PLPixelUChar);
            Blur(*out, *src, *UniformFlow(s.fw, s.fh, 2.5f, 1.5f), 1.0f, body);
            std::vector<uint8_t> want = RowBytes(*src);
            if (body.countOutside)
                for (uint8_t& b : want)
                    b = static_cast<uint8_t>(static_cast<float>(b) * (1.0f / 3.0f) + 0.5f);
            EXPECT_EQ(RowBytes(*out), want)
                << "source " << s.sw << "x" << s.sh << ", flow " << s.fw << "x" << s.fh << ", " << body.name;
        }
    }

    // NaN and INT_MIN truncate to n = 2, whose step leaves the image at once;
    // about 2e9 walks to the borders, counting up to the float limit 2^24.
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const struct {
        float u, v;
        uint8_t count;
    } vectors[] = {{nan, 0.0f, 33},     {0.0f, nan, 33},   {inf, 0.0f, 33}, {-inf, inf, 33},
                   {1e30f, 0.0f, 33},   {3e9f, 0.0f, 33},  {2e9f, 0.0f, 0}, {-2e9f, 0.0f, 0},
                   {1.4e9f, 1.4e9f, 0}, {0.0f, -1.9e9f, 0}};
    ImagePtr flat = MakeImage(8, 6, 4, PLPixelUChar);
    FillBytes(*flat, 100);
    for (const auto& c : vectors)
        for (const Body& body : kBodies) {
            ImagePtr out = MakeImage(8, 6, 4, PLPixelUChar);
            Blur(*out, *flat, *UniformFlow(8, 6, c.u, c.v), 2.0f, body);
            EXPECT_EQ(RowBytes(*out), std::vector<uint8_t>(8 * 6 * 4, body.countOutside ? c.count : 100))
                << "vector " << c.u << "," << c.v << ", " << body.name;
        }
    // Amounts beyond the parameter's range keep every value within the source's.
    ImagePtr quarter = Pattern(24, 20, 4, PLPixelFloat, [](int32_t, int32_t, int32_t) { return 0.25f; });
    for (float amount : {-2.0f, 10.0f, 1e30f, nan, inf})
        for (const Body& body : kBodies) {
            ImagePtr out = MakeImage(24, 20, 4, PLPixelFloat);
            Blur(*out, *quarter, *UniformFlow(24, 20, 16.0f, -9.0f), amount, body);
            const float* v = reinterpret_cast<const float*>(out->data);
            for (int32_t i = 0; i < 24 * 20 * 4; ++i)
                ASSERT_TRUE(v[i] >= 0.0f && v[i] <= 0.25f + 1e-6f)
                    << "amount " << amount << ", " << body.name;
        }
}

}  // namespace
