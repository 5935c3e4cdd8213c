// Tests of the host image wrapper: binding host memory in host terms, who owns
// the internal image, and the alpha conversions and fill that run on host pixels.
#include "qvimage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

struct Live {
    int blocks = 0;
};

void* CountingMalloc(void* user, unsigned long size) {
    ++static_cast<Live*>(user)->blocks;
    return std::malloc(size);
}

void CountingFree(void* user, void* block) {
    --static_cast<Live*>(user)->blocks;
    std::free(block);
}

class CountedAllocator : public ::testing::Test {
  protected:
    void SetUp() override { setMemoryHooks(&live, CountingMalloc, CountingFree); }
    void TearDown() override { setMemoryHooks(nullptr, nullptr, nullptr); }
    Live live;
};

}  // namespace

TEST_F(CountedAllocator, OwnershipOfTheInternalImage) {
    {
        QVImage wrapper;  // on the stack: only the internal images come from the allocator
        EXPECT_EQ(wrapper.internal, nullptr);
        EXPECT_EQ(wrapper.allocateInternal(), PLErrNone);
        EXPECT_EQ(wrapper.allocateInternal(), PLErrNone);
        EXPECT_EQ(live.blocks, 1) << "the first internal image was deleted";
        EXPECT_EQ(wrapper.ownsInternal, 1);
        EXPECT_EQ(wrapper.internal->numChannels, 0);
        EXPECT_EQ(wrapper.internalImage(), nullptr);
    }
    EXPECT_EQ(live.blocks, 0);
    QVImage* onHeap = new QVImage;
    onHeap->allocateInternal();
    EXPECT_EQ(live.blocks, 2);
    delete onHeap;
    EXPECT_EQ(live.blocks, 0);

    uint8_t pixels[2 * 2 * 4] = {};
    QVImageInternal adopted;
    adopted.SetData(pixels, 2, 2, 8, 4, PLPixelUChar, 0);
    adopted.redIndex = 2;
    adopted.blueIndex = 0;
    adopted.greenIndex = 1;
    adopted.alphaIndex = 3;
    {
        QVImage wrapper;
        wrapper.allocateInternal();
        EXPECT_EQ(wrapper.wrapImage(&adopted), PLErrNone);
        EXPECT_EQ(live.blocks, 0) << "the internal image it had made is gone";
        EXPECT_EQ(wrapper.ownsInternal, 0);
        EXPECT_EQ(wrapper.getRedIndex(), 2) << "a four-channel image is rewrapped on its own channel order";
        EXPECT_EQ(wrapper.width, 2);
        EXPECT_EQ(wrapper.origin, 1);
        EXPECT_EQ(wrapper.allocateInternal(), PLErrNone) << "must not delete the adopted image";
        EXPECT_EQ(wrapper.wrapImage(&adopted), PLErrNone);
    }
    EXPECT_EQ(live.blocks, 0);
    EXPECT_EQ(adopted.data, pixels) << "the adopted image outlives the wrapper";
    EXPECT_EQ(adopted.width, 2);
}

TEST(QVImage, WrapsDescribeHostMemory) {
    std::vector<uint16_t> pixels(5 * 3 * 4 + 16);
    QVImage wrapper;
    EXPECT_EQ(wrapper.wrapHostPixels(pixels.data(), 5, 3, 48, 1, 1), PLErrFailed) << "no internal image yet";
    EXPECT_THROW(wrapper.syncFromInternal(1, 1), PLErr);
    void* data = nullptr;
    int32_t w, h, rb, origin, type, channels, r, g, b, a;
    EXPECT_EQ(wrapper.getImageInfo(&data, &w, &h, &rb, &origin, &type, &channels, &r, &g, &b, &a),
              PLErrFailed);
    EXPECT_EQ(wrapper.getWidth(), 0);
    EXPECT_EQ(wrapper.convertAlpha(2), PLErrFailed);
    EXPECT_EQ(wrapper.fill(1, 1, 1, 1), PLErrNone);

    wrapper.allocateInternal();
    ASSERT_EQ(wrapper.wrapHostPixels(pixels.data(), 5, 3, 48, 1, 1), PLErrNone);
    const PLImage* image = wrapper.internalImage();
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->flipped, 0);
    EXPECT_EQ(image->pixelType, PLPixelUShort);
    EXPECT_EQ(image->rowBytes, 48) << "the host's row bytes, padding and all";
    EXPECT_EQ(wrapper.pixelStride, 8);
    EXPECT_EQ(wrapper.rowStep, 48);
    EXPECT_EQ(wrapper.lastRow, 2);
    EXPECT_EQ(wrapper.lastColumn, 4);
    EXPECT_EQ(wrapper.data, reinterpret_cast<uint8_t*>(pixels.data()));
    EXPECT_EQ(wrapper.internal->formatFlagA, 1);
    EXPECT_EQ(wrapper.internal->formatFlagB, 1);
    ASSERT_EQ(wrapper.getImageInfo(&data, &w, &h, &rb, &origin, &type, &channels, &r, &g, &b, &a), PLErrNone);
    EXPECT_EQ(data, pixels.data());
    EXPECT_EQ(w * 100 + h, 503);
    EXPECT_EQ(origin, 1);
    EXPECT_EQ(type, 1);
    EXPECT_EQ(channels, 4);
    EXPECT_EQ(r * 1000 + g * 100 + b * 10 + a, 123);

    ASSERT_EQ(wrapper.wrapThreeChannels(pixels.data(), 4, 2, 40, 0, 2), PLErrNone);
    EXPECT_EQ(wrapper.internal->flipped, 1) << "origin 0 is bottom-up storage";
    EXPECT_EQ(wrapper.rowStep, -40);
    EXPECT_EQ(wrapper.origin, 0);
    EXPECT_EQ(wrapper.pixelType, 2);
    EXPECT_EQ(wrapper.getChannels(), 3);
    EXPECT_EQ(wrapper.internal->formatFlagA, 0);
    EXPECT_EQ(wrapper.internal->formatFlagB, 1);
    EXPECT_EQ(wrapper.getAlphaIndex(), 3) << "the three-channel wrap leaves alpha's index";
    ASSERT_EQ(wrapper.wrapTwoChannels(pixels.data(), 4, 2, 16, 1, 0), PLErrNone);
    EXPECT_EQ(wrapper.getGreenIndex(), 1);
    EXPECT_EQ(wrapper.getBlueIndex(), 2);
    ASSERT_EQ(wrapper.wrapOneChannel(pixels.data(), 4, 2, 8, 1, 0), PLErrNone);
    EXPECT_EQ(
        wrapper.getRedIndex() + wrapper.getGreenIndex() + wrapper.getBlueIndex() + wrapper.getAlphaIndex(),
        0);

    EXPECT_EQ(wrapper.wrapOneChannel(pixels.data(), 4, 2, 8, 1, 5), PLErrFailed) << "not a host pixel type";
    ASSERT_EQ(wrapper.wrapHostPixels(pixels.data(), 0, 3, 48, 1, 1), PLErrNone);
    EXPECT_EQ(wrapper.internalImage(), nullptr) << "no pixels, no image to work on";
    EXPECT_EQ(wrapper.fill(1, 1, 1, 1), PLErrNone);
}

TEST(QVImage, AlphaConversionsOnHostPixels) {
    uint8_t bytes[2 * 4] = {200, 100, 50, 128, 200, 100, 50, 100};
    QVImage wrapper;
    wrapper.allocateInternal();
    wrapper.wrapHostPixels(bytes, 1, 2, 4, 1, 0);
    EXPECT_EQ(wrapper.convertAlpha(2), PLErrNone);
    EXPECT_EQ(bytes[0], 100);
    EXPECT_EQ(bytes[1], 50);
    EXPECT_EQ(bytes[2], 25);
    EXPECT_EQ(bytes[3], 128);
    std::memcpy(bytes, "\xc8\x64\x32\x64", 4);
    EXPECT_EQ(wrapper.convertAlpha(1), PLErrNone);
    EXPECT_EQ(bytes[0], 255) << "200 * 2.55 is above 255";
    EXPECT_EQ(bytes[3], 100);
    EXPECT_EQ(wrapper.convertAlpha(3), PLErrNone);
    EXPECT_EQ(bytes[0], 255);

    float floats[4] = {2.0f, 0.5f, 0.0f, 0.5f};
    wrapper.wrapHostPixels(floats, 1, 1, 16, 1, 2);
    wrapper.convertAlpha(1);
    EXPECT_EQ(floats[0], 4.0f);
    EXPECT_EQ(floats[1], 1.0f);
    EXPECT_EQ(floats[3], 0.5f);
}

TEST(QVImage, FillRoundsDifferentlyPerDepth) {
    QVImage wrapper;
    wrapper.allocateInternal();
    uint8_t bytes[3 * 2 * 4];
    wrapper.wrapHostPixels(bytes, 3, 2, 12, 0, 0);
    ASSERT_EQ(wrapper.fill(1, 0, 0, 1), PLErrNone);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(bytes[4 * i], 255);
        EXPECT_EQ(bytes[4 * i + 1], 0);
        EXPECT_EQ(bytes[4 * i + 3], 255);
    }
    wrapper.fill(0.9f, 0.6f, 0, 1);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(bytes[4 * i], 229) << "0.9f is just below 0.9";
        EXPECT_EQ(bytes[4 * i + 1], 153);
        EXPECT_EQ(bytes[4 * i + 2], 0);
        EXPECT_EQ(bytes[4 * i + 3], 255);
    }

    uint16_t shorts[2 * 4];
    wrapper.wrapHostPixels(shorts, 2, 1, 16, 1, 1);
    wrapper.fill(1, 0, 0, 1);
    EXPECT_EQ(shorts[4], 65535) << "65535.499 truncates";
    EXPECT_EQ(shorts[6], 0);
    EXPECT_EQ(shorts[7], 65535);

    float floats[4];
    wrapper.wrapHostPixels(floats, 1, 1, 16, 1, 2);
    wrapper.fill(0.9f, 0.6f, 0, 1);
    EXPECT_EQ(floats[0], 0.9f);
    EXPECT_EQ(floats[1], 0.6f);
}
