// The engine entry: what it refuses, how it relates a vector frame of another
// size and depth to the source, the amount's branches (zero, -0, negative, NaN,
// the parameter's limits), mode, stamp, abort and threads. Expected frames come
// from the blur and blend called directly on a flow derived in the test.
#include <cmath>
#include <limits>

#include "blur_test_util.h"
#include "kqmp.h"
#include "licence.h"
#include "motion_blur.h"
#include "qvimage.h"

namespace {

// A host frame: four channels (or three) wrapped without copying, rows in
// stored order.
class HostFrame {
  public:
    HostFrame(int32_t width, int32_t height, int32_t pixelType, int32_t channels = 4)
        : rowBytes_(width * channels * PLBytesPerElement[pixelType]),
          bytes_(static_cast<size_t>(rowBytes_) * height) {
        wrapper.allocateInternal();
        if (channels == 4) {
            wrapper.wrapHostPixels(bytes_.data(), width, height, rowBytes_, 1, pixelType);
        } else {
            wrapper.wrapThreeChannels(bytes_.data(), width, height, rowBytes_, 1, pixelType);
        }
    }
    PLImage& image() { return *wrapper.internalImage(); }
    QVImage wrapper;

  private:
    int32_t rowBytes_;
    std::vector<uint8_t> bytes_;
};

void FillPattern(PLImage& image, uint32_t seed) {
    for (int32_t y = 0; y < image.height; ++y)
        for (int32_t x = 0; x < image.width; ++x)
            for (int32_t c = 0; c < image.numChannels; ++c) {
                const uint32_t k = (x * 73856093u ^ y * 19349663u ^ (c + seed) * 83492791u) % 251u;
                if (image.pixelType == PLPixelUChar) {
                    At<uint8_t>(image, x, y, c) = static_cast<uint8_t>(k);
                } else if (image.pixelType == PLPixelUShort) {
                    At<uint16_t>(image, x, y, c) = static_cast<uint16_t>(k * 261);
                } else {
                    At<float>(image, x, y, c) = static_cast<float>(k) / 250.0f;
                }
            }
}

// A vector frame of one code everywhere, alpha opaque.
void FillVectors(PLImage& vectors, double red, double green) {
    const double white = vectors.pixelType == PLPixelUChar ? 255.0 : 65535.0;
    for (int32_t y = 0; y < vectors.height; ++y)
        for (int32_t x = 0; x < vectors.width; ++x) {
            const double code[4] = {red, green, 0.0, white};
            for (int32_t c = 0; c < 4; ++c) {
                if (vectors.pixelType == PLPixelUChar) {
                    At<uint8_t>(vectors, x, y, c) = static_cast<uint8_t>(code[c]);
                } else {
                    At<uint16_t>(vectors, x, y, c) = static_cast<uint16_t>(code[c]);
                }
            }
        }
}

// The integer decoding: 2c / (white - 1) - 1 of M, in 64 bits, rounded once.
float Decoded(double code, double white, float maxDisplace) {
    return static_cast<float>(((code + code) / (white - 1.0) - 1.0) * static_cast<double>(maxDisplace));
}

int32_t BlurFrame(HostFrame& out, HostFrame& src, HostFrame& vec, float amount, int64_t mode = 1,
                  int64_t stamp = 0, QVIdleAndProgressClass* progress = nullptr, float maxDisplace = 127.0f,
                  float scaleX = 1.0f, float scaleY = 1.0f) {
    return TrelvoVectorsBlur(&out.wrapper, &src.wrapper, &vec.wrapper, mode, stamp, progress, amount,
                             maxDisplace, scaleX, scaleY);
}

TEST(Engine, RefusesUnfitImagesWithoutWriting) {
    HostFrame out(16, 8, PLPixelUChar), src(16, 8, PLPixelUChar), vec(16, 8, PLPixelUChar);
    FillBytes(out.image(), 0xAB);
    FillPattern(src.image(), 1);
    FillVectors(vec.image(), 130, 127);
    HostFrame rgbSource(16, 8, PLPixelUChar, 3), rgbOutput(16, 8, PLPixelUChar, 3);
    HostFrame otherType(16, 8, PLPixelFloat), otherWidth(15, 8, PLPixelUChar),
        otherHeight(16, 9, PLPixelUChar);
    HostFrame emptyWidth(0, 8, PLPixelUChar);
    QVImage noInternal;
    EXPECT_EQ(TrelvoVectorsBlur(nullptr, &src.wrapper, &vec.wrapper, 1, 0, nullptr, 1, 127, 1, 1),
              PLErrFailed);
    EXPECT_EQ(TrelvoVectorsBlur(&out.wrapper, nullptr, &vec.wrapper, 1, 0, nullptr, 1, 127, 1, 1),
              PLErrFailed);
    EXPECT_EQ(TrelvoVectorsBlur(&out.wrapper, &src.wrapper, nullptr, 1, 0, nullptr, 1, 127, 1, 1),
              PLErrFailed);
    EXPECT_EQ(TrelvoVectorsBlur(&out.wrapper, &src.wrapper, &noInternal, 1, 0, nullptr, 1, 127, 1, 1),
              PLErrFailed);
    EXPECT_EQ(BlurFrame(out, src, emptyWidth, 1.0f), PLErrFailed) << "a vector frame without pixels";
    EXPECT_EQ(BlurFrame(out, rgbSource, vec, 1.0f), PLErrFailed) << "a three-channel source";
    EXPECT_EQ(BlurFrame(rgbOutput, src, vec, 1.0f), PLErrFailed) << "a three-channel output";
    EXPECT_EQ(BlurFrame(out, otherType, vec, 1.0f), PLErrFailed);
    EXPECT_EQ(BlurFrame(out, otherWidth, vec, 1.0f), PLErrFailed);
    EXPECT_EQ(BlurFrame(out, otherHeight, vec, 1.0f), PLErrFailed);
    EXPECT_EQ(RowBytes(out.image()), std::vector<uint8_t>(16 * 8 * 4, 0xAB));
}

TEST(Engine, VectorFrameOfAnotherSizeAndDepth) {
    struct Case {
        int32_t sourceType, vectorType, vw, vh;
        double red, green;
    };
    for (const Case& c : {Case{PLPixelUChar, PLPixelUShort, 21, 13, 32767 + 5, 32767 - 3},
                          Case{PLPixelFloat, PLPixelUChar, 9, 30, 140, 120},
                          Case{PLPixelUShort, PLPixelUChar, 40, 24, 127, 255}}) {
        HostFrame out(40, 24, c.sourceType), src(40, 24, c.sourceType), vec(c.vw, c.vh, c.vectorType);
        FillPattern(src.image(), 2);
        FillVectors(vec.image(), c.red, c.green);
        const double white = c.vectorType == PLPixelUChar ? 255.0 : 65535.0;
        const float maxDisplace = 12.5f;
        ASSERT_EQ(BlurFrame(out, src, vec, 0.8f, 1, 0, nullptr, maxDisplace, 0.5f, 2.0f), PLErrNone);

        ImagePtr expected = MakeImage(40, 24, 4, c.sourceType);
        ImagePtr flow = UniformFlow(c.vw, c.vh, Decoded(c.red, white, maxDisplace) * 0.5f,
                                    Decoded(c.green, white, maxDisplace) * 2.0f);
        PLMotionBlur(expected.get(), &src.image(), flow.get(), 1, 1, nullptr, false, 0.8f);
        EXPECT_EQ(RowBytes(out.image()), RowBytes(*expected))
            << "source type " << c.sourceType << ", vectors " << c.vw << "x" << c.vh << " of type "
            << c.vectorType;
    }
}

TEST(Engine, AmountBranches) {
    HostFrame out(32, 20, PLPixelUChar), src(32, 20, PLPixelUChar), vec(32, 20, PLPixelUChar);
    FillPattern(src.image(), 3);
    FillVectors(vec.image(), 127 + 9, 127 - 4);  // (9, -4) pixels at M = 127
    ImagePtr flow = UniformFlow(32, 20, 9.0f, -4.0f);

    for (float zero : {0.0f, -0.0f}) {
        FillBytes(out.image(), 0xAB);
        ASSERT_EQ(BlurFrame(out, src, vec, zero), PLErrNone);
        EXPECT_EQ(RowBytes(out.image()), RowBytes(src.image())) << "amount " << zero << " copies the source";
    }
    for (float amount : {10.0f, 1.0f}) {
        ASSERT_EQ(BlurFrame(out, src, vec, amount), PLErrNone);
        ImagePtr expected = MakeImage(32, 20, 4, PLPixelUChar);
        PLMotionBlur(expected.get(), &src.image(), flow.get(), 1, 1, nullptr, false, amount);
        EXPECT_EQ(RowBytes(out.image()), RowBytes(*expected)) << "amount " << amount;
    }
    // Negative and NaN: the blur at 0.5, then the blend with the user's value.
    for (float amount : {-0.3f, -1.0f, -2.0f, std::numeric_limits<float>::quiet_NaN()}) {
        ASSERT_EQ(BlurFrame(out, src, vec, amount), PLErrNone);
        ImagePtr expected = MakeImage(32, 20, 4, PLPixelUChar);
        PLMotionBlur(expected.get(), &src.image(), flow.get(), 1, 1, nullptr, false, 0.5f);
        PLBlendMP(amount, expected.get(), &src.image());
        EXPECT_EQ(RowBytes(out.image()), RowBytes(*expected)) << "amount " << amount;
    }
}

TEST(Engine, ModeOneIsBilinearAnyOtherNearest) {
    HostFrame out(24, 18, PLPixelFloat), src(24, 18, PLPixelFloat), vec(24, 18, PLPixelUChar);
    FillPattern(src.image(), 4);
    FillVectors(vec.image(), 127 + 3, 127 + 2);
    ImagePtr flow = UniformFlow(24, 18, 3.0f, 2.0f);
    for (int64_t mode : {int64_t{1}, int64_t{0}, int64_t{7}, int64_t{1} << 32 | 1}) {
        ASSERT_EQ(BlurFrame(out, src, vec, 1.3f, mode), PLErrNone);
        ImagePtr expected = MakeImage(24, 18, 4, PLPixelFloat);
        PLMotionBlur(expected.get(), &src.image(), flow.get(), mode == 1 ? 1 : 0, 1, nullptr, false, 1.3f);
        EXPECT_EQ(RowBytes(out.image()), RowBytes(*expected)) << "mode " << mode;
    }
}

TEST(Engine, StampMarksOnlyWhenAskedAtHalfStrength) {
    HostFrame out(200, 60, PLPixelUShort), src(200, 60, PLPixelUShort), vec(200, 60, PLPixelUChar);
    FillPattern(src.image(), 5);
    FillVectors(vec.image(), 127 + 6, 127);
    ImagePtr expected = MakeImage(200, 60, 4, PLPixelUShort);
    PLMotionBlur(expected.get(), &src.image(), UniformFlow(200, 60, 6.0f, 0.0f).get(), 1, 1, nullptr, false,
                 1.0f);

    ASSERT_EQ(BlurFrame(out, src, vec, 1.0f, 1, 0), PLErrNone);
    EXPECT_EQ(RowBytes(out.image()), RowBytes(*expected)) << "no stamp: the blur unchanged";

    ASSERT_EQ(BlurFrame(out, src, vec, 1.0f, 1, 1), PLErrNone);
    EXPECT_NE(RowBytes(out.image()), RowBytes(*expected));
    TrelvoDemoImprint(expected.get(), 0.5f);
    EXPECT_EQ(RowBytes(out.image()), RowBytes(*expected)) << "stamp: the imprint at 0.5 over the blur";
}

TEST(Engine, AbortDuringTheBlurKeepsTheRowsWritten) {
    setThreadCount(1);
    const int32_t w = 30, h = 25;
    HostFrame out(w, h, PLPixelUChar), src(w, h, PLPixelUChar), vec(w, h, PLPixelUChar);
    FillPattern(src.image(), 6);
    FillVectors(vec.image(), 127 + 4, 127 + 1);
    for (int32_t x = 0; x < 6; ++x) At<uint8_t>(vec.image(), x, 3, 3) = 0;  // a hole, so the fill reports too

    CountingProgress counting;
    ASSERT_EQ(BlurFrame(out, src, vec, 1.0f, 1, 0, &counting), PLErrNone);
    const std::vector<uint8_t> complete = RowBytes(out.image());
    const int before = counting.reports - h;  // the blur reports once per row, last
    ASSERT_GE(before, 0);

    for (int k : {1, 7}) {
        CountingProgress aborting(before + k);
        FillBytes(out.image(), 0xAB);
        EXPECT_EQ(BlurFrame(out, src, vec, 1.0f, 1, 0, &aborting), PLErrAborted)
            << "abort at the blur's report " << k;
        const std::vector<uint8_t> bytes = RowBytes(out.image());
        const size_t row = w * 4;
        for (int32_t y = 0; y < h; ++y) {
            const bool written = y < k - 1;
            for (size_t i = y * row; i < (y + 1) * row; ++i)
                ASSERT_EQ(bytes[i], written ? complete[i] : 0xAB) << "abort at report " << k << ", row " << y;
        }
    }
    // An abort before the blur (in the fill) also comes back as the code.
    CountingProgress early(1);
    EXPECT_EQ(BlurFrame(out, src, vec, 1.0f, 1, 0, &early), PLErrAborted);
    setThreadCount(0);
}

TEST(Engine, HolesAreFilledAndThreadsAgree) {
    const int32_t w = 48, h = 70;
    std::vector<uint8_t> results[2];
    for (int32_t threads = 1; threads <= 2; ++threads) {
        setThreadCount(threads);
        HostFrame out(w, h, PLPixelFloat), src(w, h, PLPixelFloat), vec(w / 2, h / 2, PLPixelUChar);
        FillPattern(src.image(), 7);
        FillVectors(vec.image(), 127 + 8, 127 - 5);
        // The right half of the vector frame has no vectors at all.
        for (int32_t y = 0; y < h / 2; ++y)
            for (int32_t x = w / 4; x < w / 2; ++x) At<uint8_t>(vec.image(), x, y, 3) = 0;
        ASSERT_EQ(BlurFrame(out, src, vec, 1.0f), PLErrNone);
        results[threads - 1] = RowBytes(out.image());
        if (threads == 1) {
            int32_t moved = 0;
            for (int32_t y = 0; y < h; ++y)
                for (int32_t x = w * 3 / 4; x < w; ++x)
                    moved += At<float>(out.image(), x, y, 0) != At<float>(src.image(), x, y, 0);
            EXPECT_GT(moved, (w / 4) * h / 2) << "the holes take the known motion, not zero";
        }
    }
    setThreadCount(0);
    EXPECT_EQ(results[0], results[1]);
}

}  // namespace
