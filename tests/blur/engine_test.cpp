// The engine entry against the blur and blend called directly on a flow derived here.
#include <cmath>
#include <limits>

#include "blur/motion_blur.h"
#include "common/library.h"
#include "image/qvimage.h"
#include "licence/licence.h"

namespace {

// A host frame (four channels or three) wrapped without copying.
struct HostFrame {
    HostFrame(int32_t width, int32_t height, int32_t type, int32_t channels = 4)
        : bytes(static_cast<size_t>(width) * channels * PLElementSize(type) * height) {
        const int32_t rowBytes = width * channels * PLElementSize(type);
        wrapper.allocateInternal();
        if (channels == 4)
            wrapper.wrapHostPixels(bytes.data(), width, height, rowBytes, QVOriginInOrder, type);
        else
            wrapper.wrapThreeChannels(bytes.data(), width, height, rowBytes, QVOriginInOrder, type);
    }
    PLImage& image() { return *wrapper.internalImage(); }
    std::vector<uint8_t> bytes;
    QVImage wrapper;
};

// A source of a fixed pseudo-random pattern, or vectors of one code everywhere, alpha opaque.
void FillSource(HostFrame& frame, uint32_t seed) {
    const float scale = frame.image().whitePoint / 250.0f;
    FillWith(frame.image(), [&](int32_t x, int32_t y, int32_t c) {
        return ((x * 73856093u ^ y * 19349663u ^ (c + seed) * 83492791u) % 251u) * scale;
    });
}

void FillVectors(HostFrame& frame, float red, float green) {
    const float white = frame.image().whitePoint;
    FillWith(frame.image(), [&](int32_t, int32_t, int32_t c) {
        return c == 0 ? red : c == 1 ? green : c == 2 ? 0.0f : white;
    });
}

int32_t BlurFrame(HostFrame& out, HostFrame& src, HostFrame& vec, float amount, int64_t mode = PLBlurBilinear,
                  int64_t stamp = 0, QVIdleAndProgressClass* progress = nullptr) {
    return TrelvoVectorsBlur(&out.wrapper, &src.wrapper, &vec.wrapper, mode, stamp, progress, amount, 127.0f,
                             1.0f, 1.0f);
}

ImagePtr Blurred(HostFrame& src, const PLImage& flow, float amount, int32_t mode = PLBlurBilinear) {
    ImagePtr out = MakeImage(src.image().width, src.image().height, 4, src.image().pixelType);
    PLMotionBlur(out.get(), &src.image(), &flow, mode, 1, nullptr, false, amount);
    return out;
}

TEST(Engine, RefusesUnfitImagesWithoutWriting) {
    const int32_t U8 = PLPixelUChar;
    HostFrame out(16, 8, U8), src(16, 8, U8), vec(16, 8, U8), rgbSource(16, 8, U8, 3),
        rgbOutput(16, 8, U8, 3), otherType(16, 8, PLPixelFloat), otherWidth(15, 8, U8),
        otherHeight(16, 9, U8), emptyWidth(0, 8, U8);
    FillSource(src, 1);
    FillVectors(vec, 130, 127);
    FillBytes(out.image(), 0xAB);
    QVImage noInternal, *o = &out.wrapper, *s = &src.wrapper, *v = &vec.wrapper, *e = &emptyWidth.wrapper,
                        *rs = &rgbSource.wrapper, *ro = &rgbOutput.wrapper, *t = &otherType.wrapper,
                        *w = &otherWidth.wrapper, *h = &otherHeight.wrapper;
    // None, no image, no pixels, three channels, another type or size.
    QVImage* const refused[][3] = {{nullptr, s, v}, {o, nullptr, v}, {o, s, nullptr}, {o, s, &noInternal},
                                   {o, s, e},       {o, rs, v},      {ro, s, v},      {o, t, v},
                                   {o, w, v},       {o, h, v}};
    for (QVImage* const* r : refused)
        EXPECT_EQ(TrelvoVectorsBlur(r[0], r[1], r[2], 1, 0, nullptr, 1, 127, 1, 1), PLErrFailed)
            << r - refused[0];
    EXPECT_EQ(RowBytes(out.image()), std::vector<uint8_t>(16 * 8 * 4, 0xAB));
}

TEST(Engine, VectorFrameOfAnotherSizeAndDepth) {
    const struct {
        int32_t sourceType, vectorType, vw, vh;
        double red, green;
    } cases[] = {{PLPixelUChar, PLPixelUShort, 21, 13, 32767 + 5, 32767 - 3},
                 {PLPixelFloat, PLPixelUChar, 9, 30, 140, 120},
                 {PLPixelUShort, PLPixelUChar, 40, 24, 127, 255}};
    for (const auto& c : cases) {
        HostFrame out(40, 24, c.sourceType), src(40, 24, c.sourceType), vec(c.vw, c.vh, c.vectorType);
        FillSource(src, 2);
        FillVectors(vec, c.red, c.green);
        ASSERT_EQ(TrelvoVectorsBlur(&out.wrapper, &src.wrapper, &vec.wrapper, 1, 0, nullptr, 0.8f, 12.5f,
                                    0.5f, 2.0f),
                  PLErrNone);
        // The integer decoding: 2c / (white - 1) - 1 of M, in 64 bits, rounded once.
        const double white = c.vectorType == PLPixelUChar ? 255.0 : 65535.0;
        auto decoded = [&](double code) {
            return static_cast<float>(((code + code) / (white - 1.0) - 1.0) * 12.5);
        };
        ImagePtr flow = UniformFlow(c.vw, c.vh, decoded(c.red) * 0.5f, decoded(c.green) * 2.0f);
        EXPECT_EQ(RowBytes(out.image()), RowBytes(*Blurred(src, *flow, 0.8f)))
            << "vectors " << c.vw << "x" << c.vh;
    }
}

TEST(Engine, AmountModeAndStamp) {
    HostFrame out(32, 20, PLPixelUChar), src(32, 20, PLPixelUChar), vec(32, 20, PLPixelUChar);
    FillSource(src, 3);
    FillVectors(vec, 127 + 9, 127 - 4);
    ImagePtr flow = UniformFlow(32, 20, 9.0f, -4.0f);  // (9, -4) pixels at M = 127
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // Zero copies the source; negative and NaN blur at 0.5, then blend with the
    // user's value; mode 1 is bilinear, any other value (all 64 bits count) nearest.
    const struct {
        float amount;
        int64_t mode;
    } cases[] = {{0.0f, 1}, {-0.0f, 1}, {10.0f, 1},
                 {1.0f, 1}, {-0.3f, 1}, {-2.0f, 1},
                 {nan, 1},  {1.3f, 0},  {1.3f, int64_t{1} << 32 | 1}};
    for (const auto& c : cases) {
        FillBytes(out.image(), 0xAB);
        ASSERT_EQ(BlurFrame(out, src, vec, c.amount, c.mode), PLErrNone);
        const bool blend = !(c.amount >= 0.0f);
        ImagePtr expected =
            Blurred(src, *flow, blend ? 0.5f : c.amount, c.mode == 1 ? PLBlurBilinear : PLBlurNearest);
        if (blend) PLBlendMP(c.amount, expected.get(), &src.image());
        EXPECT_EQ(RowBytes(out.image()), c.amount == 0.0f ? RowBytes(src.image()) : RowBytes(*expected))
            << "amount " << c.amount << ", mode " << c.mode;
    }
    // A stamp lays the imprint at half strength over the blur.
    ASSERT_EQ(BlurFrame(out, src, vec, 1.0f, 1, 1), PLErrNone);
    ImagePtr stamped = Blurred(src, *flow, 1.0f);
    EXPECT_NE(RowBytes(out.image()), RowBytes(*stamped));
    TrelvoDemoImprint(stamped.get(), 0.5f);
    EXPECT_EQ(RowBytes(out.image()), RowBytes(*stamped));
}

// An abort in each stage reaches the caller as the status (rows left: BlurKernel).
TEST(Engine, AbortsInTheFillAndTheBlurReachTheCaller) {
    ThreadLimit limit(1);
    const int32_t w = 30, h = 25;
    HostFrame out(w, h, PLPixelUChar), src(w, h, PLPixelUChar), vec(w, h, PLPixelUChar);
    FillSource(src, 6);
    FillVectors(vec, 127 + 4, 127 + 1);
    for (int32_t x = 0; x < 6; ++x) Set<uint8_t>(vec.image(), x, 3, 3, 0);  // a hole, so the fill reports too
    CountingProgress counting;
    ASSERT_EQ(BlurFrame(out, src, vec, 1.0f, 1, 0, &counting), PLErrNone);
    ASSERT_GT(counting.reports, h);  // the blur reports once per row, last
    for (int at : {1, counting.reports - h + 1, counting.reports}) {
        CountingProgress aborting(at);
        EXPECT_EQ(BlurFrame(out, src, vec, 1.0f, 1, 0, &aborting), PLErrAborted) << "at report " << at;
    }
}

TEST(Engine, HolesTakeTheKnownMotionAndThreadsAgree) {
    const int32_t w = 48, h = 70;
    std::vector<uint8_t> results[2];
    for (int32_t threads = 1; threads <= 2; ++threads) {
        ThreadLimit limit(threads);
        HostFrame out(w, h, PLPixelFloat), src(w, h, PLPixelFloat), vec(w / 2, h / 2, PLPixelUChar);
        FillSource(src, 7);
        FillVectors(vec, 127 + 8, 127 - 5);
        for (int32_t y = 0; y < h / 2; ++y)  // the right half has no vectors at all
            for (int32_t x = w / 4; x < w / 2; ++x) Set<uint8_t>(vec.image(), x, y, 3, 0);
        ASSERT_EQ(BlurFrame(out, src, vec, 1.0f), PLErrNone);
        results[threads - 1] = RowBytes(out.image());
        int32_t moved = 0;
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = w * 3 / 4; x < w; ++x)
                moved += Value(out.image(), x, y) != Value(src.image(), x, y);
        EXPECT_GT(moved, (w / 4) * h / 2) << "the holes take the known motion, not zero";
    }
    EXPECT_EQ(results[0], results[1]);
}

}  // namespace
