// Tests of the image record and the allocator: the element conversions, and
// what happens to memory when the allocator runs dry. Flipped and padded rows
// are in every differential test; rows past 2 GiB in RenderHostile.
#include "image/plimage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "base/qvmem.h"

namespace {

// Allocator hooks that count calls and can be told to fail.
struct HookState {
    bool exhausted = false;
    int mallocs = 0;
    int frees = 0;
};

void* CountingMalloc(void* user, unsigned long size) {
    auto* s = static_cast<HookState*>(user);
    if (s->exhausted) return nullptr;
    ++s->mallocs;
    return std::malloc(size);
}

void CountingFree(void* user, void* block) {
    ++static_cast<HookState*>(user)->frees;
    std::free(block);
}

class HookedAllocator : public ::testing::Test {
  protected:
    void SetUp() override { setMemoryHooks(&state, CountingMalloc, CountingFree); }
    void TearDown() override { setMemoryHooks(nullptr, nullptr, nullptr); }
    HookState state;
};

uint8_t StoredUChar(float v) {
    uint8_t e = 0xAA;
    PLFloatToElement(PLPixelUChar, &e, v);
    return e;
}

uint16_t StoredUShort(float v) {
    uint16_t e = 0xAAAA;
    PLFloatToElement(PLPixelUShort, &e, v);
    return e;
}

}  // namespace

TEST_F(HookedAllocator, ExhaustionThrowsOrSetsErrorCodeAndFreesNothing) {
    state.exhausted = true;
    EXPECT_THROW(QVMemNew(16), PLErr);
    try {
        PLImage image(8, 8, 4, PLPixelUChar, 0);
        ADD_FAILURE() << "the throwing constructor returned";
    } catch (PLErr e) {
        EXPECT_EQ(e, PLErrOutOfMemory);
    }
    {
        PLImage quiet(false, 8, 8, 4, PLPixelUChar, 0);
        EXPECT_EQ(quiet.errorCode, PLErrOutOfMemory);
        EXPECT_EQ(quiet.data, nullptr);
        EXPECT_EQ(quiet.ownsData, 0);
    }
    // The record itself comes from the same allocator.
    EXPECT_THROW(delete new PLImage(false, 8, 8, 4, PLPixelUShort, 0), PLErr);
    EXPECT_EQ(state.frees, 0) << "nothing was allocated, so nothing may be freed";

    // A row longer than int32 row bytes can state is more than can be had,
    // whatever the allocator holds: its size must not wrap to a small block.
    state.exhausted = false;
    PLImage wide(false, 1 << 28, 1, 4, PLPixelFloat, 0);
    EXPECT_EQ(wide.errorCode, PLErrOutOfMemory);
    EXPECT_EQ(wide.data, nullptr);
    EXPECT_EQ(state.mallocs, 0);
}

TEST_F(HookedAllocator, OwnedBlockIsFreedOnceSetDataOrphansItFailedReallocKeepsIt) {
    uint8_t outside[64] = {};
    uint8_t* orphan = nullptr;
    {
        PLImage image(4, 4, 1, PLPixelUChar, 0);
        orphan = image.data;
        image.SetData(outside, 8, 8, 8, 1, PLPixelUChar, 0);
        EXPECT_EQ(image.ownsData, 0);
    }
    EXPECT_EQ(state.frees, 0) << "neither SetData nor the destructor may free the old block";
    QVMemFree(orphan);
    { PLImage owned(4, 3, 2, PLPixelFloat, 0); }
    EXPECT_EQ(state.frees, 2);

    void* block = QVMemNew(8);
    std::memcpy(block, "abcdefgh", 8);
    state.exhausted = true;
    EXPECT_THROW(QVMemRealloc(block, 64, 8), PLErr);
    EXPECT_EQ(std::memcmp(block, "abcdefgh", 8), 0) << "a failed realloc leaves the old block alone";
    state.exhausted = false;
    QVMemFree(block);
}

TEST(PLImage, ElementConversionsAtTheirEdges) {
    // Every 8- and 16-bit code reads as its value and stores back unchanged; the
    // store at the range's ends is in PixelFormat.StoreRulesPartWhereTheyShould.
    for (int32_t v = 0; v < 65536; ++v) {
        const uint16_t e = static_cast<uint16_t>(v);
        float f = -1;
        if (v < 256) {
            const uint8_t b = static_cast<uint8_t>(v);
            PLElementReaderFor(PLPixelUChar)(&f, &b);
            ASSERT_EQ(f, float(v));
            ASSERT_EQ(StoredUChar(f), v);
        }
        PLElementReaderFor(PLPixelUShort)(&f, &e);
        ASSERT_EQ(f, float(v));
        ASSERT_EQ(StoredUShort(f), v);
    }

    // Unknown type: no reader, and pixel access reads nothing.
    uint8_t block[16] = {};
    PLImage unknown(block, 2, 2, 4, 1, 9, 0);
    EXPECT_EQ(unknown.elementToFloat, nullptr);
    float out = 42.0f;
    unknown.GetChannel(1, 1, &out, 0);
    EXPECT_EQ(out, 42.0f);
}

TEST(PLImage, GetPixelReadsFloatRowsAsSixteenBitElements) {
    // Kept on purpose: float images are scaled by a worker of their own for this reason.
    PLImage image(2, 1, 1, PLPixelFloat, 0);
    const float value = 1.0f;  // 0x3F800000: low half 0x0000, high half 0x3F80
    std::memcpy(image.data, &value, 4);
    std::memcpy(image.data + 4, &value, 4);
    float out = -1;
    image.GetPixel(0, 0, &out);
    EXPECT_EQ(out, 0.0f);
    image.GetPixel(1, 0, &out);
    EXPECT_EQ(out, float(0x3F80));
    image.GetChannel(1, 0, &out, 0);
    EXPECT_EQ(out, 1.0f) << "GetChannel reads the stored float";
}
