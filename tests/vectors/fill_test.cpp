// The pull-and-push hole fill: its pyramid, what it keeps exactly, how it
// spreads known values, progress and abort, failure while building, and the
// channel conversion beside it.
#include "fill.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "flow_field.h"
#include "image_helpers.h"

namespace {

// A two-channel flow of pseudo-random vectors and a uchar mask with about
// `holeShare` of its pixels non-zero.
struct Field {
    ImagePtr flow;
    ImagePtr mask;
};

Field RandomField(int32_t w, int32_t h, float holeShare, uint32_t seed) {
    Field f{MakeImage(w, h, 2, PLPixelFloat), MakeImage(w, h, 1, PLPixelUChar)};
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            Set<float>(f.flow.get(), x, y, 0, Noise(seed) * 40.0f - 20.0f);
            Set<float>(f.flow.get(), x, y, 1, Noise(seed) * 10.0f - 5.0f);
            Set<uint8_t>(f.mask.get(), x, y, 0, Noise(seed) < holeShare ? 255 : 0);
        }
    return f;
}

std::string Size(const PLImage* im) {
    return std::to_string(im->width) + "x" + std::to_string(im->height);
}

TEST(SingleChannelFill, LevelSizesFollowTheHalvingRule) {
    PLSingleChannelFill hd(1920, 1080);
    EXPECT_EQ(hd.topLevel, 10);
    EXPECT_EQ(hd.lastLevel, 11);
    const char* sizes[12] = {"1920x1080", "960x540", "480x270", "240x135", "120x67", "60x33",
                             "30x16",     "15x8",    "7x4",     "3x2",     "2x2",    "2x2"};
    for (int32_t l = 0; l <= 11; ++l)
        for (PLImage** level : {hd.filled, hd.values, hd.weights, hd.scratch}) {
            EXPECT_EQ(Size(level[l]), sizes[l]) << "level " << l;
            EXPECT_EQ(level[l]->numChannels, 1);
            EXPECT_EQ(level[l]->pixelType, PLPixelFloat);
        }

    PLSingleChannelFill square(2, 2);
    EXPECT_EQ(square.topLevel, 1);
    EXPECT_EQ(square.lastLevel, 2);
    for (int32_t l = 0; l <= 2; ++l) EXPECT_EQ(Size(square.values[l]), "2x2");

    PLSingleChannelFill thin(1, 100);
    EXPECT_EQ(Size(thin.values[1]), "2x50") << "the minimum of 2 applies after halving";
    EXPECT_EQ(thin.topLevel, 6);
}

TEST(FillFlowHoles, WithoutHolesTheInputComesBackExactly) {
    Field f = RandomField(37, 23, 0.0f, 1);
    ImagePtr original = CopyOf(f.flow.get());
    PLFillFlowHoles(f.flow.get(), f.mask.get(), nullptr);
    EXPECT_TRUE(SameBytes(f.flow.get(), original.get()));
}

TEST(FillFlowHoles, AllHolesGiveZeroMotion) {
    Field f = RandomField(37, 23, 2.0f, 2);
    PLFillFlowHoles(f.flow.get(), f.mask.get(), nullptr);
    for (int32_t y = 0; y < 23; ++y)
        for (int32_t x = 0; x < 37; ++x)
            for (int32_t c = 0; c < 2; ++c) ASSERT_EQ(Bits(Get<float>(f.flow.get(), x, y, c)), 0u);
}

TEST(FillFlowHoles, OneKnownPixelSpreadsToTheWholeFrame) {
    struct Shape {
        int32_t w, h, kx, ky;
    };
    for (Shape s :
         {Shape{61, 43, 50, 7}, Shape{2, 2, 1, 0}, Shape{1, 9, 0, 8}, Shape{9, 1, 3, 0}, Shape{1, 1, 0, 0}}) {
        ImagePtr flow = MakeImage(s.w, s.h, 2, PLPixelFloat);
        ImagePtr mask = MakeImage(s.w, s.h, 1, PLPixelFloat);
        FillAll<float>(flow.get(), 99.0f);
        FillAll<float>(mask.get(), 0.5f);
        Set<float>(flow.get(), s.kx, s.ky, 0, 0.3f);
        Set<float>(flow.get(), s.kx, s.ky, 1, -7.1f);
        Set<float>(mask.get(), s.kx, s.ky, 0, 0.0f);
        PLFillFlowHoles(flow.get(), mask.get(), nullptr);
        EXPECT_EQ(Get<float>(flow.get(), s.kx, s.ky, 0), 0.3f) << s.w << "x" << s.h;
        EXPECT_EQ(Get<float>(flow.get(), s.kx, s.ky, 1), -7.1f) << s.w << "x" << s.h;
        for (int32_t y = 0; y < s.h; ++y)
            for (int32_t x = 0; x < s.w; ++x) {
                EXPECT_NEAR(Get<float>(flow.get(), x, y, 0), 0.3f, 1e-6f)
                    << s.w << "x" << s.h << " " << x << "," << y;
                EXPECT_NEAR(Get<float>(flow.get(), x, y, 1), -7.1f, 1e-5f)
                    << s.w << "x" << s.h << " " << x << "," << y;
            }
    }
}

TEST(FillFlowHoles, AKnownZeroPullsItsNeighbourhoodToZero) {
    const int32_t w = 40, h = 10;
    ImagePtr flow = MakeImage(w, h, 1, PLPixelFloat);
    ImagePtr mask = MakeImage(w, h, 1, PLPixelUShort);
    FillAll<float>(flow.get(), 5.0f);
    FillAll<uint16_t>(mask.get(), 1);
    Set<float>(flow.get(), 2, 5, 0, 0.0f);
    Set<uint16_t>(mask.get(), 2, 5, 0, 0);
    Set<float>(flow.get(), 37, 5, 0, 1.0f);
    Set<uint16_t>(mask.get(), 37, 5, 0, 0);
    PLFillFlowHoles(flow.get(), mask.get(), nullptr);
    EXPECT_LT(Get<float>(flow.get(), 3, 5, 0), 0.25f);
    EXPECT_GT(Get<float>(flow.get(), 36, 5, 0), 0.75f);
    EXPECT_LT(Get<float>(flow.get(), 36, 5, 0), 1.0f);
}

TEST(FillFlowHoles, OnlyTheMaskZeroTestMatters) {
    Field f = RandomField(30, 20, 0.4f, 3);
    ImagePtr shorts = MakeImage(30, 20, 1, PLPixelUShort);
    ImagePtr floats = MakeImage(30, 20, 1, PLPixelFloat, 1);
    for (int32_t y = 0; y < 20; ++y)
        for (int32_t x = 0; x < 30; ++x) {
            const bool hole = Get<uint8_t>(f.mask.get(), x, y, 0) != 0;
            Set<uint16_t>(shorts.get(), x, y, 0, hole ? 1 : 0);
            // A NaN or negative sample is a hole; negative zero is known.
            const float nan = std::numeric_limits<float>::quiet_NaN();
            Set<float>(floats.get(), x, y, 0, hole ? ((x + y) % 2 ? nan : -0.5f) : -0.0f);
        }
    ImagePtr viaShorts = CopyOf(f.flow.get());
    ImagePtr viaFloats = CopyOf(f.flow.get());
    PLFillFlowHoles(f.flow.get(), f.mask.get(), nullptr);
    PLFillFlowHoles(viaShorts.get(), shorts.get(), nullptr);
    PLFillFlowHoles(viaFloats.get(), floats.get(), nullptr);
    EXPECT_TRUE(SameBytes(f.flow.get(), viaShorts.get()));
    EXPECT_TRUE(SameBytes(f.flow.get(), viaFloats.get()));
}

TEST(FillFlowHoles, OneThreadAndTwoThreadsAgreeBitForBit) {
    Field a = RandomField(96, 80, 0.3f, 4);
    ImagePtr b = CopyOf(a.flow.get());
    {
        ThreadLimit one(1);
        PLFillFlowHoles(a.flow.get(), a.mask.get(), nullptr);
    }
    {
        ThreadLimit two(2);
        PLFillFlowHoles(b.get(), a.mask.get(), nullptr);
    }
    EXPECT_TRUE(SameBytes(a.flow.get(), b.get()));
}

// 64-bit FNV-1a over the visible bytes of every row.
uint64_t Digest(const PLImage* im) {
    uint64_t h = 14695981039346656037ull;
    for (int32_t y = 0; y < im->height; ++y) {
        const uint8_t* row = im->Row(y);
        for (int32_t i = 0; i < im->width * im->pixelStride; ++i) h = (h ^ row[i]) * 1099511628211ull;
    }
    return h;
}

// Digests of fills recorded from the plain line-at-a-time filter and
// per-pixel resampler; the blocked column pass and the hoisted resampling
// must reproduce them to the bit. Shapes cover 1xN, Nx1, the smallest
// pyramid, odd sizes and a long thin frame, on one and on two threads.
TEST(FillFlowHoles, MatchesRecordedResultsBitForBit) {
    struct Case {
        int32_t w, h;
        uint64_t digest;
    };
    const Case cases[] = {
        {1, 57, 0x2a10fa6e8f35fa5dull},   {64, 1, 0x613ff7a6f3cb595eull},    {2, 2, 0x4ed723daacdbb034ull},
        {37, 53, 0xdb5234f2abeb70d2ull},  {203, 117, 0xbbb79cb3ff37225bull}, {1000, 3, 0x144f6661a030cf10ull},
        {19, 300, 0xe4e48a59f8e8d1d5ull},
    };
    for (int32_t threads : {1, 2}) {
        ThreadLimit limit(threads);
        for (const Case& c : cases) {
            Field f = RandomField(c.w, c.h, 0.3f, static_cast<uint32_t>(c.w * 1000 + c.h));
            PLFillFlowHoles(f.flow.get(), f.mask.get(), nullptr);
            EXPECT_EQ(Digest(f.flow.get()), c.digest) << c.w << "x" << c.h << " on " << threads << " threads";
        }
    }
}

TEST(FillFlowHoles, MismatchedMaskIsIgnored) {
    Field f = RandomField(10, 8, 0.5f, 5);
    ImagePtr original = CopyOf(f.flow.get());
    ImagePtr mask = MakeImage(10, 9, 1, PLPixelUChar);
    PLFillFlowHoles(f.flow.get(), mask.get(), nullptr);
    EXPECT_TRUE(SameBytes(f.flow.get(), original.get()));
}

// Records every fraction that reaches it, and aborts at the k-th (from 1).
class AbortingTop : public QVIdleAndProgressClass {
  public:
    explicit AbortingTop(size_t abortAt) : QVIdleAndProgressClass(nullptr), abortAt_(abortAt) {}
    void ProgressIdle(float fraction) override {
        reports.push_back(fraction);
        if (reports.size() == abortAt_) throw PLErrAborted;
    }
    std::vector<float> reports;

  private:
    size_t abortAt_;
};

TEST(FillFlowHoles, ReportsIdleTicksAndShareOfPixelsDone) {
    // 2x2 has levels 1 and 0 of four pixels each: a tick at 0, half done, a
    // tick repeating it, all done; then the same for the second channel.
    Field f = RandomField(2, 2, 0.5f, 6);
    AbortingTop top(0);
    PLFillFlowHoles(f.flow.get(), f.mask.get(), &top);
    EXPECT_EQ(top.reports, (std::vector<float>{0.0f, 0.5f, 0.5f, 1.0f, 0.0f, 0.5f, 0.5f, 1.0f}));
}

TEST(FillFlowHoles, AnAbortLeavesEarlierChannelsFilled) {
    Field f = RandomField(64, 48, 0.3f, 7);
    ImagePtr original = CopyOf(f.flow.get());
    ImagePtr complete = CopyOf(f.flow.get());
    PLFillFlowHoles(complete.get(), f.mask.get(), nullptr);

    // Each channel reports twice a level; abort at the first report of channel 1.
    const PLSingleChannelFill probe(64, 48);
    const size_t perChannel = 2 * static_cast<size_t>(probe.topLevel + 1);
    AbortingTop top(perChannel + 1);
    try {
        PLFillFlowHoles(f.flow.get(), f.mask.get(), &top);
        FAIL() << "no abort";
    } catch (PLErr e) {
        EXPECT_EQ(e, PLErrAborted);
    }
    for (int32_t y = 0; y < 48; ++y)
        for (int32_t x = 0; x < 64; ++x) {
            ASSERT_EQ(Bits(Get<float>(f.flow.get(), x, y, 0)), Bits(Get<float>(complete.get(), x, y, 0)));
            ASSERT_EQ(Bits(Get<float>(f.flow.get(), x, y, 1)), Bits(Get<float>(original.get(), x, y, 1)));
        }
}

TEST(SingleChannelFill, AnUnknownModeOnlyClearsTheTopLevel) {
    Field f = RandomField(12, 12, 0.5f, 8);
    PLSingleChannelFill fill(12, 12);
    fill.load(f.flow.get(), 0, f.mask.get());
    FillAll<float>(fill.filled[0], Sentinel());
    FillAll<float>(fill.filled[fill.topLevel], 3.0f);
    fill.fill(nullptr, 1);
    EXPECT_TRUE(IsSentinel(Get<float>(fill.filled[0], 5, 5, 0)));
    EXPECT_EQ(Bits(Get<float>(fill.filled[fill.topLevel], 1, 1, 0)), 0u);
}

// An allocator that fails once its budget of blocks is spent.
struct Budget {
    int left;
};

void* LimitedMalloc(void* user, unsigned long size) {
    Budget* budget = static_cast<Budget*>(user);
    if (budget->left == 0) return nullptr;
    --budget->left;
    return std::malloc(size);
}

void PlainFree(void*, void* block) {
    std::free(block);
}

TEST(SingleChannelFill, FailureWhileBuildingLeavesAnEmptyObject) {
    // Four arrays and, per level, four image records with their pixels: 28
    // blocks for 2x2. Fail at each one in turn.
    for (int allowed = 0; allowed < 28; ++allowed) {
        Budget budget{allowed};
        setMemoryHooks(&budget, LimitedMalloc, PlainFree);
        PLSingleChannelFill quiet(0, 2, 2);
        EXPECT_EQ(quiet.error, PLErrOutOfMemory) << allowed;
        EXPECT_EQ(quiet.filled, nullptr);
        EXPECT_EQ(quiet.scratch, nullptr);
        budget.left = allowed;
        try {
            PLSingleChannelFill loud(2, 2);
            ADD_FAILURE() << "no exception with " << allowed << " blocks";
        } catch (PLErr e) {
            EXPECT_EQ(e, PLErrOutOfMemory);
        }
        setMemoryHooks(nullptr, nullptr, nullptr);
        ImagePtr image = MakeImage(2, 2, 1, PLPixelFloat);
        quiet.load(image.get(), 0, image.get());
        quiet.fill(nullptr, 0);
    }
    Budget enough{28};
    setMemoryHooks(&enough, LimitedMalloc, PlainFree);
    PLSingleChannelFill built(0, 2, 2);
    setMemoryHooks(nullptr, nullptr, nullptr);
    EXPECT_EQ(built.error, 0);

    PLSingleChannelFill empty(0, 0, 5);
    EXPECT_EQ(empty.error, PLErrFailed);
}

TEST(CopyChannelConverting, RoundsAndClampsIntoIntegers) {
    ImagePtr floats = MakeImage(7, 1, 2, PLPixelFloat);
    const float in[7] = {
        -3.0f, 2.4f, 2.5f, 254.6f, 300.0f, 70000.0f, std::numeric_limits<float>::quiet_NaN()};
    for (int32_t x = 0; x < 7; ++x) Set<float>(floats.get(), x, 0, 1, in[x]);
    ImagePtr bytes = MakeImage(7, 1, 3, PLPixelUChar);
    FillAll<uint8_t>(bytes.get(), 9);
    PLCopyChannelConverting(bytes.get(), 2, floats.get(), 1);
    const uint8_t expectBytes[6] = {0, 2, 3, 255, 255, 255};
    for (int32_t x = 0; x < 6; ++x) {
        EXPECT_EQ(Get<uint8_t>(bytes.get(), x, 0, 2), expectBytes[x]) << in[x];
        EXPECT_EQ(Get<uint8_t>(bytes.get(), x, 0, 0), 9) << "other channels untouched";
    }
    ImagePtr shorts = MakeImage(7, 1, 1, PLPixelUShort);
    PLCopyChannelConverting(shorts.get(), 0, floats.get(), 1);
    EXPECT_EQ(Get<uint16_t>(shorts.get(), 4, 0, 0), 300);
    EXPECT_EQ(Get<uint16_t>(shorts.get(), 5, 0, 0), 65535);

    PLCopyChannelConverting(bytes.get(), 0, shorts.get(), 0);
    EXPECT_EQ(Get<uint8_t>(bytes.get(), 4, 0, 0), 255) << "300 clamps";
    ImagePtr back = MakeImage(7, 1, 1, PLPixelFloat);
    PLCopyChannelConverting(back.get(), 0, shorts.get(), 0);
    EXPECT_EQ(Get<float>(back.get(), 5, 0, 0), 65535.0f) << "no range scaling";
    PLCopyChannelConverting(back.get(), 0, floats.get(), 1);
    EXPECT_EQ(Bits(Get<float>(back.get(), 6, 0, 0)), Bits(in[6])) << "like types copy the bits";
}

}  // namespace
