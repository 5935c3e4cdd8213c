// The blur along the vectors: still pixels, sample counts and positions derived
// by hand, the two edge rules, the twelve members against each other, other
// flow sizes, row order and padding, threads, abort, and inputs that must stay
// defined (single rows and columns, NaN and huge vectors).
#include <cmath>
#include <limits>
#include <random>

#include "blur_test_util.h"
#include "kqmp.h"
#include "motion_blur.h"

namespace {

struct Body {
    int32_t mode;
    bool countOutside;
    const char* name;
};
constexpr Body kBodies[] = {{1, false, "bilinear, stop at edge"},
                            {0, false, "nearest, stop at edge"},
                            {1, true, "bilinear, count outside"},
                            {0, true, "nearest, count outside"}};
constexpr Body kBilinearStop = kBodies[0];
constexpr Body kNearestStop = kBodies[1];
constexpr Body kBilinearCount = kBodies[2];
constexpr Body kNearestCount = kBodies[3];

void Blur(PLImage& out, const PLImage& src, const PLImage& flow, float amount,
          const Body& body = kBilinearStop, QVIdleAndProgressClass* progress = nullptr) {
    PLMotionBlur(&out, &src, &flow, body.mode, 1, progress, body.countOutside, amount);
}

// A one-channel float image whose every row holds the given values.
ImagePtr FloatRows(int32_t width, int32_t height, float (*value)(int32_t x)) {
    ImagePtr image = MakeImage(width, height, 1, PLPixelFloat);
    for (int32_t y = 0; y < height; ++y)
        for (int32_t x = 0; x < width; ++x) At<float>(*image, x, y) = value(x);
    return image;
}

class ThreadLimit {
  public:
    explicit ThreadLimit(int32_t count) { setThreadCount(count); }
    ~ThreadLimit() { setThreadCount(0); }  // back to the processor count
};

template <typename F>
class BlurMembers : public ::testing::Test {};
TYPED_TEST_SUITE(BlurMembers, AllFormats);

TYPED_TEST(BlurMembers, StillPixelsAreCopiedBitForBit) {
    using T = typename TypeParam::Element;
    constexpr int C = TypeParam::kChannels;
    const int32_t w = 7, h = 5;
    ImagePtr src = MakeImage(w, h, C, PixelTypeOf<T>());
    std::mt19937 random(42);
    // Any bit pattern, so float sources include NaN, infinities and -0.
    for (int32_t y = 0; y < h; ++y)
        for (int32_t i = 0; i < w * src->pixelStride; ++i) src->Row(y)[i] = static_cast<uint8_t>(random());
    // Zero, -0 and vectors whose squared half-length lies below 1e-06.
    ImagePtr flow = UniformFlow(w, h, 0.0f, 0.0f);
    At<float>(*flow, 1, 1, 0) = -0.0f;
    At<float>(*flow, 2, 2, 0) = 1.9e-3f;
    At<float>(*flow, 3, 3, 1) = -1.9e-3f;
    for (const Body& body : kBodies) {
        ImagePtr out = MakeImage(w, h, C, PixelTypeOf<T>());
        FillBytes(*out, 0xAB);
        Blur(*out, *src, *flow, 1.0f, body);
        EXPECT_EQ(RowBytes(*out), RowBytes(*src)) << body.name;
    }
}

// Every member blurs a channel exactly as the float four-channel member does,
// up to the rounding of its element; float members agree bit for bit.
TYPED_TEST(BlurMembers, AgreeWithTheFloatMember) {
    using T = typename TypeParam::Element;
    constexpr int C = TypeParam::kChannels;
    const int32_t w = 16, h = 12;
    auto code = [](int32_t x, int32_t y, int32_t c) { return (x * 37 + y * 91 + c * 53) % 256; };
    ImagePtr reference = MakeImage(w, h, 4, PLPixelFloat);
    ImagePtr src = MakeImage(w, h, C, PixelTypeOf<T>());
    ImagePtr flow = MakeImage(w, h, 2, PLPixelFloat);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            for (int32_t c = 0; c < 4; ++c)
                At<float>(*reference, x, y, c) = static_cast<float>(code(x, y, c)) / 255.0f;
            for (int32_t c = 0; c < C; ++c) {
                if constexpr (std::is_same_v<T, float>) {
                    At<T>(*src, x, y, c) = static_cast<float>(code(x, y, c)) / 255.0f;
                } else {
                    At<T>(*src, x, y, c) =
                        static_cast<T>(code(x, y, c) * (std::is_same_v<T, uint8_t> ? 1 : 257));
                }
            }
            At<float>(*flow, x, y, 0) = (static_cast<float>(x) - 7.5f) * 0.9f;
            At<float>(*flow, x, y, 1) = (static_cast<float>(y) - 5.0f) * 0.6f;
        }
    for (const Body& body : kBodies) {
        ImagePtr expected = MakeImage(w, h, 4, PLPixelFloat);
        ImagePtr out = MakeImage(w, h, C, PixelTypeOf<T>());
        Blur(*expected, *reference, *flow, 1.5f, body);
        Blur(*out, *src, *flow, 1.5f, body);
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x)
                for (int32_t c = 0; c < C; ++c) {
                    const float want = At<float>(*expected, x, y, c);
                    if constexpr (std::is_same_v<T, float>) {
                        ASSERT_EQ(At<float>(*out, x, y, c), want)
                            << body.name << " at " << x << "," << y << "," << c;
                    } else {
                        const double tolerance = std::is_same_v<T, uint8_t> ? 0.501 : 0.6;
                        ASSERT_NEAR(static_cast<float>(At<T>(*out, x, y, c)), want * WhiteOf<T>(), tolerance)
                            << body.name << " at " << x << "," << y << "," << c;
                    }
                }
    }
}

TEST(BlurKernel, SquaredHalfLengthAtOneMillionthBlursOverThreeSamples) {
    // The smallest half-length whose square, widened, is not below 1e-06.
    float du = 0.001f;
    while (static_cast<double>(std::nextafter(du, 0.0f) * std::nextafter(du, 0.0f)) >= 1e-06)
        du = std::nextafter(du, 0.0f);
    while (static_cast<double>(du * du) < 1e-06) du = std::nextafter(du, 1.0f);
    ImagePtr src = FloatRows(12, 4, [](int32_t x) { return x == 5 ? 90.0f : 0.0f; });
    ImagePtr out = MakeImage(12, 4, 1, PLPixelFloat);
    Blur(*out, *src, *UniformFlow(12, 4, du, 0.0f), 2.0f);  // half-length = du
    const float t1 = (5.0f + du) - 5.0f;
    const float t2 = (5.0f - du) - 4.0f;
    const float s1 = (0.0f - 90.0f) * t1 + 90.0f;
    const float s2 = (90.0f - 0.0f) * t2 + 0.0f;
    const float expected = (90.0f + s1 + s2) * (1.0f / 3.0f);
    EXPECT_EQ(At<float>(*out, 5, 1), expected);
    EXPECT_GT(At<float>(*out, 4, 1), 0.0f) << "a neighbour's streak reaches the bright pixel";

    // One step shorter, the square is below the threshold: a copy.
    const float shorter = std::nextafter(du, 0.0f);
    Blur(*out, *src, *UniformFlow(12, 4, shorter, 0.0f), 2.0f);
    EXPECT_EQ(RowBytes(*out), RowBytes(*src));

    // The comparison is in 64 bits: a square equal to the 32-bit constant
    // 1e-06f, which lies below 1e-06, is still.
    const float u = 0x1.6f0068p-11f, v = 0x1.766aa2p-11f;
    ASSERT_EQ(u * u + v * v, 1e-06f);
    Blur(*out, *src, *UniformFlow(12, 4, u, v), 2.0f);
    EXPECT_EQ(RowBytes(*out), RowBytes(*src));
}

TEST(BlurKernel, HalfLengthsGiveTheirSampleCountsAndSteps) {
    // On a ramp v(x) = x a bilinear sample is its own position, so the sum is
    // the sum of the positions.
    ImagePtr ramp = FloatRows(32, 4, [](int32_t x) { return static_cast<float>(x); });
    ImagePtr out = MakeImage(32, 4, 1, PLPixelFloat);

    // 4.0: n = 5, step exactly 1, positions 12 to 20.
    Blur(*out, *ramp, *UniformFlow(32, 4, 4.0f, 0.0f), 2.0f);
    EXPECT_EQ(At<float>(*out, 16, 1), 144.0f * (1.0f / 9.0f));

    // 0.9: n = 2, the step is the half-length, positions 16, 16.9, 15.1.
    Blur(*out, *ramp, *UniformFlow(32, 4, 0.9f, 0.0f), 2.0f);
    EXPECT_EQ(At<float>(*out, 16, 1), (16.0f + (16.0f + 0.9f) + (16.0f - 0.9f)) * (1.0f / 3.0f));

    // 3.7: n = 4, step 3.7 / 3, seven positions built by repeated addition.
    Blur(*out, *ramp, *UniformFlow(32, 4, 3.7f, 0.0f), 2.0f);
    const float step = 3.7f / 3.0f;
    const float f1 = 16.0f + step, f2 = f1 + step, f3 = f2 + step;
    const float b1 = 16.0f - step, b2 = b1 - step, b3 = b2 - step;
    EXPECT_EQ(At<float>(*out, 16, 1), (16.0f + f1 + f2 + f3 + b1 + b2 + b3) * (1.0f / 7.0f));

    // The same walks vertically, along a column ramp.
    ImagePtr column = MakeImage(4, 32, 1, PLPixelFloat);
    for (int32_t y = 0; y < 32; ++y)
        for (int32_t x = 0; x < 4; ++x) At<float>(*column, x, y) = static_cast<float>(y);
    ImagePtr columnOut = MakeImage(4, 32, 1, PLPixelFloat);
    Blur(*columnOut, *column, *UniformFlow(4, 32, 0.0f, 4.0f), 2.0f);
    EXPECT_EQ(At<float>(*columnOut, 1, 16), 144.0f * (1.0f / 9.0f));
}

TEST(BlurKernel, StreakIsOneSidedAtTheBorder) {
    const uint8_t row[8] = {10, 20, 60, 100, 40, 50, 70, 90};
    ImagePtr src = MakeImage(8, 3, 1, PLPixelUChar);
    for (int32_t y = 0; y < 3; ++y)
        for (int32_t x = 0; x < 8; ++x) At<uint8_t>(*src, x, y) = row[x];
    ImagePtr flow = UniformFlow(8, 3, 2.0f, 0.0f);  // n = 3, step 1
    ImagePtr out = MakeImage(8, 3, 1, PLPixelUChar);
    struct Case {
        Body body;
        uint8_t left, right;
    };
    // Left: forward 10, 20, 60; nearest also takes -0.5, which truncates into
    // column 0. Right: 90 forward, 70 and 50 backward. Count-outside always
    // divides by 5.
    const Case cases[] = {
        {kBilinearStop, 30, 70}, {kNearestStop, 25, 70}, {kBilinearCount, 18, 42}, {kNearestCount, 20, 42}};
    for (const Case& c : cases) {
        Blur(*out, *src, *flow, 2.0f, c.body);
        EXPECT_EQ(At<uint8_t>(*out, 0, 1), c.left) << c.body.name;
        EXPECT_EQ(At<uint8_t>(*out, 7, 1), c.right) << c.body.name;
    }
}

TEST(BlurKernel, CornerWalkOutOfTheImage) {
    ImagePtr src = MakeImage(6, 6, 1, PLPixelFloat);
    for (int32_t y = 0; y < 6; ++y)
        for (int32_t x = 0; x < 6; ++x) At<float>(*src, x, y) = 0.75f;
    At<float>(*src, 0, 0) = 0.25f;
    // Half-length (-0.6, -0.6): n = 2, the forward walk leaves at once, the
    // backward sample lies at (0.6, 0.6).
    ImagePtr flow = UniformFlow(6, 6, -0.6f, -0.6f);
    const float a = (0.75f - 0.25f) * 0.6f + 0.25f;
    const float inner = (0.75f - a) * 0.6f + a;
    const float sum = 0.25f + inner;
    ImagePtr out = MakeImage(6, 6, 1, PLPixelFloat);

    Blur(*out, *src, *flow, 2.0f, kBilinearStop);
    const float average = At<float>(*out, 0, 0);
    EXPECT_EQ(average, sum * (1.0f / 2.0f));

    Blur(*out, *src, *flow, 2.0f, kBilinearCount);
    EXPECT_EQ(At<float>(*out, 0, 0), sum * (1.0f / 3.0f));
    EXPECT_NEAR(At<float>(*out, 0, 0) / average, 2.0f / 3.0f, 1e-6) << "the outside sample counts as zero";
}

TEST(BlurKernel, NearestCopiesAVectorShorterThanOneWhereBilinearBlurs) {
    ImagePtr src = MakeImage(10, 3, 1, PLPixelUChar);
    FillBytes(*src, 0);
    for (int32_t y = 0; y < 3; ++y) At<uint8_t>(*src, 4, y) = 100;
    ImagePtr out = MakeImage(10, 3, 1, PLPixelUChar);

    ImagePtr shortFlow = UniformFlow(10, 3, 0.8f, 0.0f);
    Blur(*out, *src, *shortFlow, 2.0f, kNearestStop);
    EXPECT_EQ(At<uint8_t>(*out, 4, 1), 100);
    Blur(*out, *src, *shortFlow, 2.0f, kBilinearStop);
    EXPECT_EQ(At<uint8_t>(*out, 4, 1), 47) << "(100 + 20 + 20) / 3";

    // A half-length of exactly 1 is blurred in nearest mode: 4.5, 5.5, 3.5.
    Blur(*out, *src, *UniformFlow(10, 3, 1.0f, 0.0f), 2.0f, kNearestStop);
    EXPECT_EQ(At<uint8_t>(*out, 4, 1), 33);
}

TEST(BlurKernel, FlowOfAnotherSizeMeetsTheSourceAtTheCorners) {
    ImagePtr src = MakeImage(9, 13, 1, PLPixelFloat);
    for (int32_t y = 0; y < 13; ++y)
        for (int32_t x = 0; x < 9; ++x)
            At<float>(*src, x, y) = static_cast<float>(x * x + 3 * y * y) / 100.0f;

    // A 5 x 4 flow scales by (9 - 1) / (5 - 1) = 2 across and (13 - 1) / (4 - 1)
    // = 4 down, in position and in length, so it blurs as a full-size flow of
    // the vector scaled so.
    ImagePtr small = MakeImage(9, 13, 1, PLPixelFloat);
    ImagePtr full = MakeImage(9, 13, 1, PLPixelFloat);
    Blur(*small, *src, *UniformFlow(5, 4, 0.75f, 0.5f), 1.0f);
    Blur(*full, *src, *UniformFlow(9, 13, 1.5f, 2.0f), 1.0f);
    EXPECT_EQ(RowBytes(*small), RowBytes(*full));

    // The source's last column reads the flow's last column exactly: still
    // there, moving one column further in.
    ImagePtr flow = UniformFlow(3, 3, 4.0f, 0.0f);
    for (int32_t y = 0; y < 3; ++y) At<float>(*flow, 2, y, 0) = 0.0f;
    ImagePtr src9 = MakeImage(9, 9, 1, PLPixelFloat);
    for (int32_t y = 0; y < 9; ++y)
        for (int32_t x = 0; x < 9; ++x) At<float>(*src9, x, y) = static_cast<float>(x * x + 3 * y) / 100.0f;
    ImagePtr out9 = MakeImage(9, 9, 1, PLPixelFloat);
    Blur(*out9, *src9, *flow, 1.0f);
    for (int32_t y = 0; y < 9; ++y) {
        EXPECT_EQ(At<float>(*out9, 8, y), At<float>(*src9, 8, y)) << "row " << y;
        EXPECT_NE(At<float>(*out9, 7, y), At<float>(*src9, 7, y)) << "row " << y;
    }
}

TEST(BlurKernel, RowOrderAndPaddingDoNotChangeTheResult) {
    const int32_t w = 11, h = 9, pad = 12;
    std::mt19937 random(7);
    ImagePtr src = MakeImage(w, h, 4, PLPixelUShort);
    ImagePtr flow = MakeImage(w, h, 2, PLPixelFloat);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            for (int32_t c = 0; c < 4; ++c) At<uint16_t>(*src, x, y, c) = static_cast<uint16_t>(random());
            At<float>(*flow, x, y, 0) = static_cast<float>(random() % 13) - 6.0f;
            At<float>(*flow, x, y, 1) = static_cast<float>(random() % 9) - 4.0f;
        }
    ImagePtr expected = MakeImage(w, h, 4, PLPixelUShort);
    Blur(*expected, *src, *flow, 1.0f);

    // The same logical pictures, stored bottom-up in padded rows.
    const int32_t imageRow = w * 8 + pad, flowRow = w * 8 + pad;
    std::vector<uint8_t> srcBytes(imageRow * h, 0xEE), outBytes(imageRow * h, 0xEE),
        flowBytes(flowRow * h, 0xEE);
    PLImage flippedSrc(srcBytes.data(), w, h, imageRow, 4, PLPixelUShort, 1);
    PLImage flippedOut(outBytes.data(), w, h, imageRow, 4, PLPixelUShort, 1);
    PLImage flippedFlow(flowBytes.data(), w, h, flowRow, 2, PLPixelFloat, 1);
    for (int32_t y = 0; y < h; ++y) {
        std::memcpy(flippedSrc.Row(y), src->Row(y), w * 8);
        std::memcpy(flippedFlow.Row(y), flow->Row(y), w * 8);
    }
    Blur(flippedOut, flippedSrc, flippedFlow, 1.0f);
    EXPECT_EQ(RowBytes(flippedOut), RowBytes(*expected));
    for (int32_t r = 0; r < h; ++r)
        for (int32_t i = w * 8; i < imageRow; ++i)
            ASSERT_EQ(outBytes[r * imageRow + i], 0xEE) << "padding of row " << r;
}

TEST(BlurKernel, RegionWritesOnlyItsRectangle) {
    const int32_t w = 12, h = 10;
    ImagePtr src = MakeImage(w, h, 3, PLPixelUChar);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int32_t c = 0; c < 3; ++c)
                At<uint8_t>(*src, x, y, c) = static_cast<uint8_t>(x * 20 + y * 7 + c);
    ImagePtr flow = UniformFlow(w, h, 3.0f, -2.0f);
    ImagePtr whole = MakeImage(w, h, 3, PLPixelUChar);
    Blur(*whole, *src, *flow, 1.0f);
    ImagePtr part = MakeImage(w, h, 3, PLPixelUChar);
    FillBytes(*part, 0xAB);
    PLMotionBlurRegion(part.get(), src.get(), flow.get(), 1.0f, 1, nullptr, false, 3, 8, 2, 6);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int32_t c = 0; c < 3; ++c) {
                const bool inside = x >= 3 && x <= 8 && y >= 2 && y <= 6;
                ASSERT_EQ(At<uint8_t>(*part, x, y, c), inside ? At<uint8_t>(*whole, x, y, c) : 0xAB)
                    << x << "," << y << "," << c;
            }
}

TEST(BlurKernel, ImagesThatDontGoTogetherAreRefused) {
    ImagePtr src = MakeImage(8, 6, 4, PLPixelUChar);
    ImagePtr out = MakeImage(8, 6, 4, PLPixelUChar);
    ImagePtr flow = UniformFlow(8, 6, 1.0f, 1.0f);
    FillBytes(*src, 9);
    FillBytes(*out, 0xAB);
    auto refused = [&](PLImage* o, const PLImage* s, const PLImage* f, int32_t x0, int32_t x1, int32_t y0,
                       int32_t y1) {
        try {
            PLMotionBlurRegion(o, s, f, 1.0f, 1, nullptr, false, x0, x1, y0, y1);
        } catch (PLErr e) {
            return e == PLErrFailed;
        }
        return false;
    };
    ImagePtr threeChannels = MakeImage(8, 6, 3, PLPixelUChar);
    ImagePtr narrower = MakeImage(7, 6, 4, PLPixelUChar);
    ImagePtr otherType = MakeImage(8, 6, 4, PLPixelUShort);
    ImagePtr fraction = MakeImage(8, 6, 4, PLPixelFractionShort);
    ImagePtr fractionOut = MakeImage(8, 6, 4, PLPixelFractionShort);
    ImagePtr flowThree = MakeImage(8, 6, 3, PLPixelFloat);
    ImagePtr flowUChar = MakeImage(8, 6, 2, PLPixelUChar);
    PLImage emptyFlow(nullptr, 0, 0, 2, PLPixelFloat, 0);
    EXPECT_TRUE(refused(out.get(), threeChannels.get(), flow.get(), 0, 7, 0, 5));
    EXPECT_TRUE(refused(out.get(), narrower.get(), flow.get(), 0, 6, 0, 5));
    EXPECT_TRUE(refused(out.get(), otherType.get(), flow.get(), 0, 7, 0, 5));
    EXPECT_TRUE(refused(fractionOut.get(), fraction.get(), flow.get(), 0, 7, 0, 5));
    EXPECT_TRUE(refused(out.get(), src.get(), flowThree.get(), 0, 7, 0, 5));
    EXPECT_TRUE(refused(out.get(), src.get(), flowUChar.get(), 0, 7, 0, 5));
    EXPECT_TRUE(refused(out.get(), src.get(), &emptyFlow, 0, 7, 0, 5));
    EXPECT_TRUE(refused(out.get(), src.get(), nullptr, 0, 7, 0, 5));
    EXPECT_TRUE(refused(out.get(), src.get(), flow.get(), 0, 8, 0, 5)) << "a column past the last";
    EXPECT_TRUE(refused(out.get(), src.get(), flow.get(), 0, 7, -1, 5)) << "a row before the first";
    EXPECT_NO_THROW(
        PLMotionBlurRegion(out.get(), src.get(), flow.get(), 1.0f, 1, nullptr, false, 0, 7, 4, 3));
    std::vector<uint8_t> untouched(8 * 6 * 4, 0xAB);
    EXPECT_EQ(RowBytes(*out), untouched);
}

TEST(BlurKernel, ThreadCountDoesNotChangeTheResult) {
    const int32_t w = 40, h = 70;
    std::mt19937 random(3);
    ImagePtr flow = MakeImage(w / 2, h / 2, 2, PLPixelFloat);
    for (int32_t y = 0; y < h / 2; ++y)
        for (int32_t x = 0; x < w / 2; ++x) {
            At<float>(*flow, x, y, 0) = static_cast<float>(random() % 2000) / 100.0f - 10.0f;
            At<float>(*flow, x, y, 1) = static_cast<float>(random() % 2000) / 100.0f - 10.0f;
        }
    for (int32_t type : {PLPixelUChar, PLPixelFloat}) {
        ImagePtr src = MakeImage(w, h, 4, type);
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x)
                for (int32_t c = 0; c < 4; ++c) {
                    if (type == PLPixelUChar) {
                        At<uint8_t>(*src, x, y, c) = static_cast<uint8_t>(random());
                    } else {
                        At<float>(*src, x, y, c) = static_cast<float>(random() % 1000) / 999.0f;
                    }
                }
        std::vector<uint8_t> results[3];
        for (int32_t threads = 1; threads <= 3; ++threads) {
            ThreadLimit limit(threads);
            for (const Body& body : kBodies) {
                ImagePtr out = MakeImage(w, h, 4, type);
                Blur(*out, *src, *flow, 1.3f, body);
                const std::vector<uint8_t> bytes = RowBytes(*out);
                results[threads - 1].insert(results[threads - 1].end(), bytes.begin(), bytes.end());
            }
        }
        EXPECT_EQ(results[0], results[1]) << "type " << type << ", one thread against two";
        EXPECT_EQ(results[0], results[2]) << "type " << type << ", one thread against three";
    }
}

TEST(BlurKernel, ReportsOncePerRowAndAbortKeepsTheRowsWritten) {
    const int32_t w = 20, h = 40;
    ImagePtr src = MakeImage(w, h, 4, PLPixelUChar);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w * 4; ++x) src->Row(y)[x] = static_cast<uint8_t>(x * 3 + y * 11);
    ImagePtr flow = UniformFlow(w, h, 3.0f, 1.0f);
    ImagePtr expected = MakeImage(w, h, 4, PLPixelUChar);

    for (int32_t threads : {1, 2}) {
        ThreadLimit limit(threads);
        const int32_t reporterRows = threads == 1 ? h : h / 2;
        CountingProgress counting;
        Blur(*expected, *src, *flow, 1.0f, kBilinearStop, &counting);
        EXPECT_EQ(counting.reports, reporterRows) << threads << " threads: only the first worker reports";
        EXPECT_EQ(counting.last, 1.0f);

        CountingProgress aborting(5);
        ImagePtr out = MakeImage(w, h, 4, PLPixelUChar);
        FillBytes(*out, 0xAB);
        int32_t code = 0;
        try {
            Blur(*out, *src, *flow, 1.0f, kBilinearStop, &aborting);
        } catch (PLErr e) {
            code = e;
        }
        EXPECT_EQ(code, PLErrAborted) << threads << " threads";
        for (int32_t y = 0; y < reporterRows; ++y) {
            const bool written = y < 4;
            for (int32_t i = 0; i < w * 4; ++i)
                ASSERT_EQ(out->Row(y)[i], written ? expected->Row(y)[i] : 0xAB)
                    << threads << " threads, row " << y << (written ? " before" : " after") << " the abort";
        }
    }
}

TEST(BlurGuards, SingleRowsAndColumnsStayInside) {
    struct Sizes {
        int32_t sw, sh, fw, fh;
    };
    const Sizes sizes[] = {{1, 6, 4, 4}, {6, 1, 4, 4}, {6, 6, 1, 4}, {6, 6, 4, 1},
                           {1, 1, 1, 1}, {6, 6, 1, 1}, {1, 6, 1, 6}, {1, 1, 4, 4}};
    for (const Sizes& s : sizes) {
        ImagePtr src = MakeImage(s.sw, s.sh, 4, PLPixelUChar);
        for (int32_t y = 0; y < s.sh; ++y)
            for (int32_t i = 0; i < s.sw * 4; ++i) src->Row(y)[i] = static_cast<uint8_t>(40 + i * 5 + y * 3);
        ImagePtr flow = UniformFlow(s.fw, s.fh, 2.5f, 1.5f);
        for (const Body& body : kBodies) {
            ImagePtr out = MakeImage(s.sw, s.sh, 4, PLPixelUChar);
            FillBytes(*out, 0xAB);
            Blur(*out, *src, *flow, 1.0f, body);
            // A degenerate scale makes every walk end after its first sample:
            // a copy, or a third of it when the two empty samples count.
            for (int32_t y = 0; y < s.sh; ++y)
                for (int32_t i = 0; i < s.sw * 4; ++i) {
                    const float v = static_cast<float>(src->Row(y)[i]);
                    const uint8_t want =
                        body.countOutside ? static_cast<uint8_t>(v * (1.0f / 3.0f) + 0.5f) : src->Row(y)[i];
                    ASSERT_EQ(out->Row(y)[i], want) << "source " << s.sw << "x" << s.sh << ", flow " << s.fw
                                                    << "x" << s.fh << ", " << body.name;
                }
        }
    }
}

TEST(BlurGuards, NonFiniteAndHugeVectorsGiveBoundedWalks) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Case {
        float u, v;
        uint8_t stop, count;  // expected value of every element
    };
    // n from the truncation: NaN and INT_MIN become 2 with the vector as the
    // step, which leaves the image at once; about 2e9 walks to the borders and
    // counts up to the float count's limit of 2^24.
    const Case cases[] = {{nan, 0.0f, 100, 33},   {0.0f, nan, 100, 33},   {inf, 0.0f, 100, 33},
                          {-inf, inf, 100, 33},   {1e30f, 0.0f, 100, 33}, {3e9f, 0.0f, 100, 33},
                          {2e9f, 0.0f, 100, 0},   {-2e9f, 0.0f, 100, 0},  {1.4e9f, 1.4e9f, 100, 0},
                          {0.0f, -1.9e9f, 100, 0}};
    ImagePtr src = MakeImage(8, 6, 4, PLPixelUChar);
    FillBytes(*src, 100);
    for (const Case& c : cases)
        for (const Body& body : kBodies) {
            ImagePtr out = MakeImage(8, 6, 4, PLPixelUChar);
            Blur(*out, *src, *UniformFlow(8, 6, c.u, c.v), 2.0f, body);
            const std::vector<uint8_t> want(8 * 6 * 4, body.countOutside ? c.count : c.stop);
            EXPECT_EQ(RowBytes(*out), want) << "vector " << c.u << "," << c.v << ", " << body.name;
        }

    // The same in float: the long walk's sum over 2^24.
    ImagePtr floatSrc = MakeImage(8, 6, 1, PLPixelFloat);
    for (int32_t y = 0; y < 6; ++y)
        for (int32_t x = 0; x < 8; ++x) At<float>(*floatSrc, x, y) = 0.5f;
    ImagePtr floatOut = MakeImage(8, 6, 1, PLPixelFloat);
    Blur(*floatOut, *floatSrc, *UniformFlow(8, 6, 2e9f, 0.0f), 2.0f, kBilinearCount);
    EXPECT_EQ(At<float>(*floatOut, 3, 2), 4.0f * (1.0f / 16777216.0f)) << "eight samples of 0.5 inside";
}

TEST(BlurGuards, AmountsAtAndBeyondTheLimits) {
    ImagePtr src = MakeImage(24, 20, 4, PLPixelFloat);
    for (int32_t y = 0; y < 20; ++y)
        for (int32_t x = 0; x < 24; ++x)
            for (int32_t c = 0; c < 4; ++c) At<float>(*src, x, y, c) = 0.25f;
    ImagePtr flow = UniformFlow(24, 20, 16.0f, -9.0f);
    for (float amount : {-2.0f, 10.0f, 1e30f, std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity()})
        for (const Body& body : kBodies) {
            ImagePtr out = MakeImage(24, 20, 4, PLPixelFloat);
            Blur(*out, *src, *flow, amount, body);
            for (int32_t y = 0; y < 20; ++y)
                for (int32_t x = 0; x < 24; ++x) {
                    const float v = At<float>(*out, x, y, 0);
                    ASSERT_TRUE(v >= 0.0f && v <= 0.25f + 1e-6f)
                        << "amount " << amount << ", " << body.name << " at " << x << "," << y << ": " << v;
                }
        }
}

}  // namespace
