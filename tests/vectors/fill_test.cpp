// The pull-and-push hole fill: exact keeps, spreading, recorded results, abort, memory.
#include "vectors/fill.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "common/library.h"
#include "image/image_ops.h"
#include "vectors/decode.h"

namespace {

// Pseudo-random vectors and a uchar mask with about `holeShare` of it non-zero.
struct Field {
    ImagePtr flow, mask;
};

Field RandomField(int32_t w, int32_t h, float holeShare, uint32_t seed) {
    Field f{MakeImage(w, h, 2, PLPixelFloat), MakeImage(w, h, 1, PLPixelUChar)};
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            Set<float>(*f.flow, x, y, 0, Noise(seed) * 40.0f - 20.0f);
            Set<float>(*f.flow, x, y, 1, Noise(seed) * 10.0f - 5.0f);
            Set<uint8_t>(*f.mask, x, y, 0, Noise(seed) < holeShare ? 255 : 0);
        }
    return f;
}

TEST(FillFlowHoles, NoHolesGiveTheInputAllHolesGiveZero) {
    Field f = RandomField(37, 23, 0.0f, 1);
    ImagePtr original = CopyOf(*f.flow);
    PLFillFlowHoles(f.flow.get(), f.mask.get(), nullptr);
    EXPECT_TRUE(RowBytes(*f.flow) == RowBytes(*original)) << "no holes";
    FillAll<uint8_t>(*f.mask, 1);
    PLFillFlowHoles(f.flow.get(), f.mask.get(), nullptr);
    EXPECT_EQ(RowBytes(*f.flow), std::vector<uint8_t>(37 * 23 * 8, 0)) << "all holes: positive zero";
}

TEST(FillFlowHoles, OneKnownPixelSpreadsToTheWholeFrame) {
    const struct {
        int32_t w, h, kx, ky;
    } shapes[] = {{61, 43, 50, 7}, {2, 2, 1, 0}, {1, 9, 0, 8}, {9, 1, 3, 0}, {1, 1, 0, 0}};
    for (const auto& s : shapes) {
        SCOPED_TRACE(std::to_string(s.w) + "x" + std::to_string(s.h));
        ImagePtr flow = UniformFlow(s.w, s.h, 99.0f, 99.0f);
        ImagePtr mask = Pattern(s.w, s.h, 1, PLPixelFloat, [&](int32_t x, int32_t y, int32_t) {
            return x == s.kx && y == s.ky ? 0.0f : 0.5f;
        });
        Put<float>(*flow, s.kx, s.ky, {0.3f, -7.1f});
        PLFillFlowHoles(flow.get(), mask.get(), nullptr);
        EXPECT_EQ(Get<float>(*flow, s.kx, s.ky, 0), 0.3f) << "the known pixel keeps its exact value";
        EXPECT_EQ(Get<float>(*flow, s.kx, s.ky, 1), -7.1f);
        for (int32_t y = 0; y < s.h; ++y)
            for (int32_t x = 0; x < s.w; ++x) {
                EXPECT_NEAR(Get<float>(*flow, x, y, 0), 0.3f, 1e-6f) << x << "," << y;
                EXPECT_NEAR(Get<float>(*flow, x, y, 1), -7.1f, 1e-5f) << x << "," << y;
            }
    }
}

TEST(FillFlowHoles, OnlyTheMaskZeroTestMatters) {
    Field f = RandomField(30, 20, 0.4f, 3);
    // A NaN or negative sample is a hole; negative zero is known.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const auto hole = [&](int32_t x, int32_t y) { return Get<uint8_t>(*f.mask, x, y, 0) != 0; };
    ImagePtr shorts =
        Pattern(30, 20, 1, PLPixelUShort, [&](int32_t x, int32_t y, int32_t) { return hole(x, y); });
    ImagePtr floats = MakeImage(30, 20, 1, PLPixelFloat, 1);
    for (int32_t y = 0; y < 20; ++y)
        for (int32_t x = 0; x < 30; ++x)
            Set<float>(*floats, x, y, 0, hole(x, y) ? ((x + y) % 2 ? nan : -0.5f) : -0.0f);
    ImagePtr viaShorts = CopyOf(*f.flow), viaFloats = CopyOf(*f.flow);
    PLFillFlowHoles(f.flow.get(), f.mask.get(), nullptr);
    PLFillFlowHoles(viaShorts.get(), shorts.get(), nullptr);
    PLFillFlowHoles(viaFloats.get(), floats.get(), nullptr);
    EXPECT_TRUE(RowBytes(*f.flow) == RowBytes(*viaShorts));
    EXPECT_TRUE(RowBytes(*f.flow) == RowBytes(*viaFloats));
}

// Digests recorded from the plain filter and resampler, on one thread and two;
// shapes 1xN, Nx1, the smallest pyramid, odd and long thin frames.
TEST(FillFlowHoles, MatchesRecordedResultsOnOneAndTwoThreads) {
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
            uint64_t digest = 14695981039346656037ull;  // FNV-1a over the visible bytes
            for (uint8_t b : RowBytes(*f.flow)) digest = (digest ^ b) * 1099511628211ull;
            EXPECT_EQ(digest, c.digest) << c.w << "x" << c.h << " on " << threads << " threads";
        }
    }
}

TEST(FillFlowHoles, ProgressAndAnAbortThatLeavesEarlierChannelsFilled) {
    // 2x2 has levels 1 and 0 of four pixels each: a tick at 0, half done, a
    // tick repeating it, all done; then the same for the second channel.
    Field small = RandomField(2, 2, 0.5f, 6);
    CountingProgress ticks;
    PLFillFlowHoles(small.flow.get(), small.mask.get(), &ticks);
    EXPECT_EQ(ticks.fractions, (std::vector<float>{0.0f, 0.5f, 0.5f, 1.0f, 0.0f, 0.5f, 0.5f, 1.0f}));

    Field f = RandomField(64, 48, 0.3f, 7);
    ImagePtr original = CopyOf(*f.flow), complete = CopyOf(*f.flow);
    PLFillFlowHoles(complete.get(), f.mask.get(), nullptr);
    // Each channel reports twice a level; abort at the first report of channel 1.
    CountingProgress top(2 * (PLSingleChannelFill(64, 48).topLevel + 1) + 1);
    EXPECT_THROW(PLFillFlowHoles(f.flow.get(), f.mask.get(), &top), PLErr);
    for (int32_t y = 0; y < 48; ++y)
        for (int32_t x = 0; x < 64; ++x) {
            ASSERT_EQ(Bits(Get<float>(*f.flow, x, y, 0)), Bits(Get<float>(*complete, x, y, 0)));
            ASSERT_EQ(Bits(Get<float>(*f.flow, x, y, 1)), Bits(Get<float>(*original, x, y, 1)));
        }
}

// An allocator that fails once its budget of blocks is spent.
void* LimitedMalloc(void* budget, unsigned long size) {
    int& left = *static_cast<int*>(budget);
    return left-- > 0 ? std::malloc(size) : nullptr;
}
void PlainFree(void*, void* block) {
    std::free(block);
}

// The plug-in's throwing form; a partial build is released (leaks show under asan).
TEST(SingleChannelFill, FailureWhileBuildingThrowsOutOfMemory) {
    // Four arrays and, per level, four image records with their pixels: 28
    // blocks for 2x2. Fail at each one in turn; the 28th is enough.
    for (int allowed = 0; allowed <= 28; ++allowed) {
        int budget = allowed;
        setMemoryHooks(&budget, LimitedMalloc, PlainFree);
        int32_t thrown = 0;
        try {
            PLSingleChannelFill fill(1, 2, 2);
        } catch (PLErr e) {
            thrown = e;
        }
        setMemoryHooks(nullptr, nullptr, nullptr);
        EXPECT_EQ(thrown, allowed < 28 ? PLErrOutOfMemory : 0) << allowed;
    }
}

// The engine's one call against its steps written out: decode, alpha into a
// mask, complement it, fill. Alphas at white, zero, in between, and for
// float NaN, -0 and above one; vector samples anywhere in their range.
TEST(DecodeAndFillFlow, MatchesDecodeMaskAndFillToTheBit) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float floatAlphas[] = {1.0f, 1.0f, 0.0f, -0.0f, nan, 0.999f, 2.0f};
    const int32_t sizes[][2] = {{37, 23}, {1, 9}, {9, 1}, {2, 2}};
    uint32_t seed = 77;
    for (const auto& size : sizes)
        for (int32_t type : {PLPixelUChar, PLPixelUShort, PLPixelFloat})
            for (int32_t flipped : {0, 1}) {
                const int32_t w = size[0], h = size[1];
                ImagePtr vectors = MakeImage(w, h, 4, type, flipped);
                FillNoise(*vectors, ++seed);
                const float white = type == PLPixelUChar ? 255.0f : type == PLPixelUShort ? 65535.0f : 1.0f;
                for (int32_t y = 0; y < h; ++y)
                    for (int32_t x = 0; x < w; ++x) {
                        const int32_t pick = static_cast<int32_t>(Noise(seed) * 7);
                        const float alpha = type == PLPixelFloat ? floatAlphas[pick]
                                            : pick < 3           ? white
                                            : pick < 5           ? 0.0f
                                                                 : white - 1.0f;
                        PLFloatToElement(type,
                                         vectors->Row(y) + PLOffset(x, vectors->pixelStride) +
                                             3 * vectors->bytesPerElement,
                                         alpha);
                    }
                QVMemBlock<uint8_t> levels(PLFlowFillBytes(w, h));
                ImagePtr expected = MakeImage(w, h, 2, PLPixelFloat), mask = MakeImage(w, h, 1, type);
                PLDecodeMotionVectors(12.0f, expected.get(), vectors.get());
                PLCopyChannelIntoChannel(mask.get(), 0, vectors.get(), 3);
                PLInvertImage(mask.get());
                PLFillFlow(expected.get(), mask.get(), nullptr, levels.get());
                for (int32_t threads : {1, 2}) {
                    ThreadLimit limit(threads);
                    ImagePtr flow = MakeImage(w, h, 2, PLPixelFloat);
                    FillBytes(*flow, 0xAB);
                    PLDecodeAndFillFlow(12.0f, flow.get(), vectors.get(), nullptr, levels.get());
                    ASSERT_EQ(RowBytes(*flow), RowBytes(*expected))
                        << w << "x" << h << " type " << type << " flipped " << flipped << " threads "
                        << threads;
                }
            }
}

}  // namespace
