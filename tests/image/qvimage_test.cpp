// Tests of the host image wrapper: binding host memory in host terms, who owns
// the internal image, and the alpha conversions and fill that run on host pixels.
#include "image/qvimage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

int gLiveBlocks = 0;

void* CountingMalloc(void*, unsigned long size) {
    ++gLiveBlocks;
    return std::malloc(size);
}

void CountingFree(void*, void* block) {
    --gLiveBlocks;
    std::free(block);
}

}  // namespace

TEST(QVImage, OwnershipOfTheInternalImage) {
    setMemoryHooks(nullptr, CountingMalloc, CountingFree);
    gLiveBlocks = 0;
    {
        QVImage wrapper;  // on the stack: only the internal images come from the allocator
        EXPECT_EQ(wrapper.allocateInternal(), PLErrNone);
        EXPECT_EQ(wrapper.allocateInternal(), PLErrNone);
        EXPECT_EQ(gLiveBlocks, 1) << "the first internal image was deleted";
        EXPECT_EQ(wrapper.internalImage(), nullptr) << "no pixels yet";
    }
    EXPECT_EQ(gLiveBlocks, 0);

    uint8_t pixels[2 * 2 * 4] = {};
    QVImageInternal adopted;
    adopted.SetData(pixels, 2, 2, 8, 4, PLPixelUChar, 0);
    adopted.redIndex = 2;
    {
        QVImage wrapper;
        wrapper.allocateInternal();
        EXPECT_EQ(wrapper.wrapImage(&adopted), PLErrNone);
        EXPECT_EQ(gLiveBlocks, 0) << "the internal image it had made is gone";
        EXPECT_EQ(wrapper.getRedIndex(), 2) << "a four-channel image is rewrapped on its own channel order";
        EXPECT_EQ(wrapper.allocateInternal(), PLErrNone) << "must not delete the adopted image";
        EXPECT_EQ(wrapper.wrapImage(&adopted), PLErrNone);
    }
    EXPECT_EQ(gLiveBlocks, 0);
    EXPECT_EQ(adopted.data, pixels) << "the adopted image outlives the wrapper";
    setMemoryHooks(nullptr, nullptr, nullptr);
}

TEST(QVImage, WrapsHostMemoryInHostTermsAndRefusesWithoutAnImage) {
    std::vector<uint16_t> pixels(5 * 3 * 4 + 16);
    QVImage wrapper;
    EXPECT_EQ(wrapper.wrapHostPixels(pixels.data(), 5, 3, 48, 1, 1), PLErrFailed) << "no internal image yet";
    EXPECT_THROW(wrapper.syncFromInternal(1, 1), PLErr);
    EXPECT_EQ(wrapper.convertAlpha(2), PLErrFailed);
    EXPECT_EQ(wrapper.fill(1, 1, 1, 1), PLErrNone);

    wrapper.allocateInternal();
    ASSERT_EQ(wrapper.wrapHostPixels(pixels.data(), 5, 3, 48, 1, 1), PLErrNone);
    const PLImage* image = wrapper.internalImage();
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->flipped, 0);
    EXPECT_EQ(image->pixelType, PLPixelUShort);
    EXPECT_EQ(image->rowBytes, 48) << "the host's row bytes, padding and all";
    ASSERT_EQ(wrapper.wrapThreeChannels(pixels.data(), 4, 2, 40, 0, 2), PLErrNone);
    EXPECT_EQ(wrapper.internal->flipped, 1) << "origin 0 is bottom-up storage";
    EXPECT_EQ(wrapper.rowStep, -40);
    EXPECT_EQ(wrapper.getAlphaIndex(), 3) << "the three-channel wrap leaves alpha's index";

    EXPECT_EQ(wrapper.wrapOneChannel(pixels.data(), 4, 2, 8, 1, 5), PLErrFailed) << "not a host pixel type";
    ASSERT_EQ(wrapper.wrapHostPixels(pixels.data(), 0, 3, 48, 1, 1), PLErrNone);
    EXPECT_EQ(wrapper.internalImage(), nullptr) << "no pixels, no image to work on";
    EXPECT_EQ(wrapper.fill(1, 1, 1, 1), PLErrNone);
}

TEST(QVImage, AlphaConversionsAndFillOnHostPixels) {
    QVImage wrapper;
    wrapper.allocateInternal();
    uint8_t bytes[2 * 4] = {200, 100, 50, 128, 200, 100, 50, 100};
    wrapper.wrapHostPixels(bytes, 1, 2, 4, 1, 0);
    EXPECT_EQ(wrapper.convertAlpha(2), PLErrNone);
    EXPECT_EQ(std::vector<int>(bytes, bytes + 4), (std::vector<int>{100, 50, 25, 128}));
    std::memcpy(bytes, "\xc8\x64\x32\x64", 4);
    EXPECT_EQ(wrapper.convertAlpha(1), PLErrNone);
    EXPECT_EQ(bytes[0], 255) << "200 * 2.55 is above 255";
    EXPECT_EQ(bytes[3], 100);

    float floats[4] = {2.0f, 0.5f, 0.0f, 0.5f};
    wrapper.wrapHostPixels(floats, 1, 1, 16, 1, 2);
    wrapper.convertAlpha(1);
    EXPECT_EQ(floats[0], 4.0f);
    EXPECT_EQ(floats[3], 0.5f);
    wrapper.fill(0.9f, 0.6f, 0, 1);
    EXPECT_EQ(floats[0], 0.9f);
    EXPECT_EQ(floats[1], 0.6f);

    uint8_t fillBytes[3 * 2 * 4];
    wrapper.wrapHostPixels(fillBytes, 3, 2, 12, 0, 0);
    wrapper.fill(0.9f, 0.6f, 0, 1);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(std::vector<int>(fillBytes + 4 * i, fillBytes + 4 * i + 4),
                  (std::vector<int>{229, 153, 0, 255}))
            << "pixel " << i << ": 0.9f is just below 0.9";
    uint16_t shorts[2 * 4];
    wrapper.wrapHostPixels(shorts, 2, 1, 16, 1, 1);
    wrapper.fill(1, 0, 0, 1);
    EXPECT_EQ(shorts[4], 65535) << "65535.499 truncates";
    EXPECT_EQ(shorts[6], 0);
}
