// Tests of the image record and the allocator: flipped addressing, the element
// conversions at their edges, the comparers, and what happens to memory when
// the allocator runs dry.
#include "image/plimage.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

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

TEST(PLImage, FlippedAddressingAndEdgeSizes) {
    PLImage flipped(3, 10, 4, PLPixelUShort, 1);
    EXPECT_EQ(flipped.rowStep, -24);
    EXPECT_EQ(flipped.whitePoint, 65535.0f);
    EXPECT_EQ(flipped.Row(0), flipped.data + 9 * 24);
    EXPECT_EQ(flipped.Row(9), flipped.data);
    const float in[4] = {1, 2, 3, 4};
    flipped.SetPixel(2, 0, in);
    uint16_t stored[4];
    std::memcpy(stored, flipped.data + 9 * 24 + 2 * 8, sizeof stored);
    EXPECT_EQ(stored[0], 1);
    EXPECT_EQ(stored[3], 4);

    EXPECT_EQ(PLImage(5, 0, 1, PLPixelUChar, 0).lastRow, -1);
    PLImage empty(nullptr, 7, 7, 28, 4, PLPixelUChar, 0);
    EXPECT_EQ(empty.width + empty.height, 0) << "no data, no pixels";
    EXPECT_EQ(empty.rowBytes, 28);
}

TEST(PLImage, RowsPastTwoGigabytesAreAddressedIn64Bits) {
    // Forty rows 64 MiB apart in a reserved range that is never touched: only
    // addresses are taken. Row 32 lies exactly 2^31 bytes from row 0.
    const size_t span = size_t{40} << 26;
    void* range = mmap(nullptr, span, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(range, MAP_FAILED);
    auto* base = static_cast<uint8_t*>(range);
    for (int32_t flipped : {0, 1}) {
        const PLImage image(base, 16, 40, 1 << 26, 4, PLPixelFloat, flipped);
        for (int32_t y : {0, 31, 32, 39})
            EXPECT_EQ(image.Row(y) - base, static_cast<ptrdiff_t>(flipped ? 39 - y : y) << 26)
                << "row " << y << (flipped ? ", flipped" : "");
    }
    munmap(range, span);
}

TEST(PLImage, ElementConversionsAtTheirEdges) {
    EXPECT_EQ(StoredUChar(255.9f), 255);
    EXPECT_EQ(StoredUChar(-1.0f), 255);
    EXPECT_EQ(StoredUChar(256.0f), 0);
    EXPECT_EQ(StoredUChar(std::nanf("")), 0) << "NaN truncates to INT_MIN, whose low bits are 0";
    EXPECT_EQ(StoredUChar(1e20f), 0);
    EXPECT_EQ(StoredUShort(65535.9f), 65535);
    EXPECT_EQ(StoredUShort(65536.0f), 0);
    EXPECT_EQ(StoredUShort(-2.0f), 65534);
    EXPECT_EQ(StoredUShort(std::numeric_limits<float>::infinity()), 0);
    int8_t c = 0;
    PLFloatToElement(PLPixelChar, &c, 200.0f);
    EXPECT_EQ(c, -56);
    // Type 5 writes with the same 2^-16 factor as its reader.
    int16_t fraction = 0;
    PLFloatToElement(PLPixelFractionShort, &fraction, 3.0f * 65536.0f);
    EXPECT_EQ(fraction, 3);
    int64_t wide = 0;
    PLFloatToElement(PLPixelLong, &wide, -3e10f);
    EXPECT_EQ(wide, -30000001024LL);

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
        PLElementReaderFor(PLPixelFractionUShort)(&f, &e);
        ASSERT_EQ(f, float(v) / 65536.0f);
        uint16_t back = 0;
        PLFloatToElement(PLPixelFractionUShort, &back, f);
        ASSERT_EQ(back, v);
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

TEST(PLImage, Comparers) {
    PLImage a(4, 3, 4, PLPixelUChar, 0);
    PLImage same(4, 3, 4, PLPixelUChar, 1);
    PLImage wider(5, 3, 4, PLPixelUChar, 0);
    PLImage twoChannels(4, 3, 2, PLPixelUShort, 0);  // same pixelStride as a
    PLImage asShort(4, 3, 4, PLPixelUShort, 0);
    PLImage asChar(4, 3, 4, PLPixelChar, 0);  // same element size as a, other type
    PLImage empty(nullptr, 4, 3, 4, PLPixelUChar, 0);

    EXPECT_FALSE(PLDimensionsDiffer(&a, &same));
    EXPECT_TRUE(PLDimensionsDiffer(&a, &wider));
    EXPECT_TRUE(PLDimensionsDiffer(&a, nullptr));
    uint8_t outside[48];
    PLImage sameSize(outside, 4, 3, 4, PLPixelUChar, 0);
    sameSize.data = nullptr;
    EXPECT_TRUE(PLDimensionsDiffer(&a, &sameSize)) << "equal sizes, but one has no data";

    EXPECT_TRUE(PLDimensionsOrChannelsDiffer(&a, &twoChannels));
    EXPECT_FALSE(PLDimensionsOrChannelsDiffer(&a, &asShort));
    EXPECT_TRUE(PLDimensionsOrTypeDiffer(&a, &asShort));
    EXPECT_FALSE(PLLayoutsDiffer(&a, &asChar));
    EXPECT_TRUE(PLLayoutsDiffer(&a, &asShort));
    EXPECT_TRUE(PLLayoutsDiffer(nullptr, &a));
    EXPECT_TRUE(PLImagesDiffer(&a, &asChar));
    EXPECT_FALSE(PLImagesDiffer(&a, &same));

    EXPECT_FALSE(PLFormatsDiffer(&a, &wider)) << "dimensions do not count";
    EXPECT_TRUE(PLFormatsDiffer(&a, &asChar));
    EXPECT_TRUE(PLFormatsDiffer(&a, &empty));
    same.whitePoint = 254.0f;
    EXPECT_TRUE(PLFormatsDiffer(&a, &same)) << "white points differ";
}
