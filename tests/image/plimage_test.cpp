// The image record, the allocator running dry, and the pixel format's store rules.
#include "image/plimage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "base/qvmem.h"
#include "common/library.h"

// Allocator hooks that count calls and fail while `exhausted`.
struct HookedAllocator : ::testing::Test {
    static void* Malloc(void* user, unsigned long size) {
        auto* t = static_cast<HookedAllocator*>(user);
        return t->exhausted ? nullptr : (++t->mallocs, std::malloc(size));
    }
    static void Free(void* user, void* block) {
        ++static_cast<HookedAllocator*>(user)->frees;
        std::free(block);
    }
    void SetUp() override { setMemoryHooks(this, Malloc, Free); }
    void TearDown() override { setMemoryHooks(nullptr, nullptr, nullptr); }
    bool exhausted = false;
    int mallocs = 0, frees = 0;
};

TEST_F(HookedAllocator, ExhaustionThrowsOrSetsErrorCodeAndFreesNothing) {
    exhausted = true;
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
    EXPECT_EQ(frees, 0) << "nothing was allocated, so nothing may be freed";

    // A row longer than int32 row bytes can state is more than can be had,
    // whatever the allocator holds: its size must not wrap to a small block.
    exhausted = false;
    PLImage wide(false, 1 << 28, 1, 4, PLPixelFloat, 0);
    EXPECT_EQ(wide.errorCode, PLErrOutOfMemory);
    EXPECT_EQ(wide.data, nullptr);
    EXPECT_EQ(mallocs, 0);
}

TEST_F(HookedAllocator, OwnedBlockIsFreedOnceSetDataOrphansIt) {
    uint8_t outside[64] = {};
    uint8_t* orphan = nullptr;
    {
        PLImage image(4, 4, 1, PLPixelUChar, 0);
        orphan = image.data;
        image.SetData(outside, 8, 8, 8, 1, PLPixelUChar, 0);
        EXPECT_EQ(image.ownsData, 0);
    }
    EXPECT_EQ(frees, 0) << "neither SetData nor the destructor may free the old block";
    QVMemFree(orphan);
    { PLImage owned(4, 3, 2, PLPixelFloat, 0); }
    EXPECT_EQ(frees, 2);
}

// Every 8- and 16-bit code round-trips; an unknown type has no reader, reads nothing.
TEST(PLImage, ElementConversionsUnknownTypesAndPixelAccess) {
    for (int32_t v = 0; v < 65536; ++v) {
        uint16_t e = static_cast<uint16_t>(v), back = 0xAAAA;
        uint8_t b = static_cast<uint8_t>(v), byteBack = 0xAA;
        float f = -1, g = -1;
        PLElementReaderFor(PLPixelUShort)(&f, &e);
        PLElementReaderFor(PLPixelUChar)(&g, &b);
        PLFloatToElement(PLPixelUShort, &back, f);
        PLFloatToElement(PLPixelUChar, &byteBack, g);
        ASSERT_EQ(f, float(v));
        ASSERT_EQ(back, v);
        ASSERT_EQ(g, float(v & 255));
        ASSERT_EQ(byteBack, v & 255);
    }
    uint8_t block[16] = {};
    PLImage unknown(block, 2, 2, 4, 1, 9, 0);
    EXPECT_EQ(unknown.elementToFloat, nullptr);
    float out = 42.0f;
    unknown.GetChannel(1, 1, &out, 0);
    EXPECT_EQ(out, 42.0f);
    // Off the plug-in's path, kept on purpose: GetPixel reads float rows as
    // 16-bit elements (1.0f is 0x3F800000), GetChannel the stored float.
    PLImage floats(2, 1, 1, PLPixelFloat, 0);
    Put<float>(floats, 0, 0, {1.0f, 1.0f});
    float low = -1, high = -1, channel = -1;
    floats.GetPixel(0, 0, &low);
    floats.GetPixel(1, 0, &high);
    floats.GetChannel(1, 0, &channel, 0);
    EXPECT_EQ(low, 0.0f);
    EXPECT_EQ(high, float(0x3F80));
    EXPECT_EQ(channel, 1.0f);
}

// The store rules by hand at halves, the range's ends, NaN and infinity.
TEST(PixelFormat, StoreRulesPartWhereTheyShould) {
    using U8 = PLPixel<PLPixelUChar>;
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const struct {
        float v;
        int truncate, round, roundClamp, nanToWhite, clampRound, inDouble;
    } rows[] = {
        {2.5f, 2, 3, 3, 3, 3, 3},
        {255.7f, 255, 0, 255, 255, 255, 0},  // 256.2 wraps unless clamped
        {256.0f, 0, 0, 255, 255, 255, 0},
        {-1.0f, 255, 0, 0, 0, 0, 0},  // -0.5 truncates to 0
        {-2.0f, 254, 255, 0, 0, 0, 255},
        {0.49999997f, 0, 1, 1, 1, 1, 0},  // the float sum rounds up to 1, the double one doesn't
        {nan, 0, 0, 0, 255, 0, 0},        // NaN truncates to INT_MIN, whose low bits are 0
        {inf, 0, 0, 255, 255, 255, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.v);
        EXPECT_EQ(U8::Truncate(r.v), r.truncate);
        EXPECT_EQ(U8::Round(r.v), r.round);
        EXPECT_EQ(U8::RoundClamp(r.v), r.roundClamp);
        EXPECT_EQ(U8::RoundClampNaNToWhite(r.v), r.nanToWhite);
        EXPECT_EQ(U8::ClampRound(r.v), r.clampRound);
        EXPECT_EQ(U8::RoundInDouble(r.v), r.inDouble);
    }
    // A white point that is not a whole number tells clamp-then-round from round-then-clamp.
    EXPECT_EQ(U8::RoundClamp(100.5f, 100.7f), 100);
    EXPECT_EQ(U8::ClampRound(100.5f, 100.7f), 101);
    EXPECT_EQ(PLPixel<PLPixelUShort>::RoundClamp(70000.0f), 65535);
    EXPECT_EQ(PLPixel<PLPixelUShort>::Round(70000.0f), 70000 - 65536);
    // Float is neither rounded nor clamped; a negative zero comes out positive.
    EXPECT_EQ(PLPixel<PLPixelFloat>::RoundClamp(-0.0f), 0.0f);
    EXPECT_FALSE(std::signbit(PLPixel<PLPixelFloat>::Round(-0.0f)));
    EXPECT_EQ(PLPixel<PLPixelFloat>::RoundClamp(7.25f), 7.25f);
}
