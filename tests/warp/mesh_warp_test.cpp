// Tests of the mesh warp: which pixels a triangle covers (scan rules, closing
// pass, thresholds, limits), the bilinear sample and its guards, the stores of
// each target type, and the driver's grid. Targets are pre-filled with a
// sentinel so that a pixel written by mistake shows. Sources hold small
// integers or dyadic linear ramps, on which the arithmetic is exact.
#include "warp/mesh_warp.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

namespace {

constexpr float kSentinel = 250.0f;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

float Get(const PLImage& im, int32_t x, int32_t y, int32_t c = 0) {
    float v;
    im.GetChannel(x, y, &v, c);
    return v;
}

using PixelValue = std::function<float(int32_t x, int32_t y, int32_t c)>;
using Pixels = std::function<float(int32_t x, int32_t y)>;

std::unique_ptr<PLImage> MakeImage(int32_t w, int32_t h, int32_t channels, int32_t type,
                                   const PixelValue& value, int32_t flipped = 0) {
    auto im = std::make_unique<PLImage>(w, h, channels, type, flipped);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int32_t c = 0; c < channels; ++c)
                PLFloatToElement(type, im->Row(y) + x * im->pixelStride + c * im->bytesPerElement,
                                 value(x, y, c));
    return im;
}

std::unique_ptr<PLImage> Blank(int32_t w, int32_t h, int32_t channels = 1, int32_t type = PLPixelFloat) {
    return MakeImage(w, h, channels, type, [](int32_t, int32_t, int32_t) { return kSentinel; });
}

// 4x + 16y: linear, so a bilinear sample at a dyadic position is exact.
float Ramp(float x, float y) {
    return 4.0f * x + 16.0f * y;
}
const Pixels kRamp = [](int32_t x, int32_t y) { return Ramp(x, y); };

std::unique_ptr<PLImage> RampSource(int32_t w, int32_t h) {
    return MakeImage(w, h, 1, PLPixelFloat, [](int32_t x, int32_t y, int32_t) { return Ramp(x, y); });
}

using Triangle = std::array<float, 3 * PLWarpVertexFloats>;

// Corners (x, y) in the target mapped to the same (x, y) in the source.
Triangle Identity(float ax, float ay, float bx, float by, float cx, float cy) {
    return {ax, ay, ax, ay, 0, bx, by, bx, by, 0, cx, cy, cx, cy, 0};
}

// A triangle whose corners all map to source position (u, v).
Triangle Flat(float ax, float ay, float bx, float by, float cx, float cy, float u, float v) {
    return {ax, ay, u, v, 0, bx, by, u, v, 0, cx, cy, u, v, 0};
}

void Draw(const Triangle& t, const PLImage& src, PLImage& dst, int32_t xLimit, int32_t yLimit) {
    PLWarpTriangle(t.data(), 0, &src, &dst, xLimit, yLimit);
}

// Channel 0 of every pixel: value(x, y) where `value` is given and returns a
// number, the sentinel elsewhere (a NaN from `value` means not covered).
void ExpectPixels(const PLImage& im, const Pixels& value) {
    for (int32_t y = 0; y < im.height; ++y)
        for (int32_t x = 0; x < im.width; ++x) {
            const float want = value ? value(x, y) : kNaN;
            EXPECT_EQ(Get(im, x, y), std::isnan(want) ? kSentinel : want)
                << "pixel (" << x << ", " << y << ")";
        }
}

Pixels Where(std::function<bool(int32_t, int32_t)> covered, Pixels value) {
    return [=](int32_t x, int32_t y) { return covered(x, y) ? value(x, y) : kNaN; };
}

// The value written for a triangle mapped wholly to (u, v), one per channel.
std::vector<float> Probe(const PLImage& src, float u, float v, int32_t targetType = PLPixelFloat) {
    auto dst = Blank(1, 1, src.numChannels, targetType);
    Draw(Flat(0, 0, 2, 0, 0, 2, u, v), src, *dst, 0, 0);
    std::vector<float> out;
    for (int32_t c = 0; c < src.numChannels; ++c) out.push_back(Get(*dst, 0, 0, c));
    return out;
}

TEST(WarpTriangle, CoverageScanClosingPassAndThresholds) {
    auto src = RampSource(8, 8);
    const auto check = [&](const char* what, const Triangle& t, int32_t w, int32_t h, int32_t yLimit,
                           const Pixels& expected) {
        SCOPED_TRACE(what);
        auto dst = Blank(w, h);
        Draw(t, *src, *dst, w - 1, yLimit);
        ExpectPixels(*dst, expected);
    };
    const Pixels at11 = [](int32_t, int32_t) { return Ramp(1, 1); };
    for (const Triangle& t : {Flat(-5, 0, -0.5f, 0, -3, 5, 1, 1), Flat(0, -5, 7, -0.5f, 3, -2, 1, 1),
                              Flat(5.5f, 0, 7.5f, 0, 7, 5, 1, 1), Flat(0, 3.5f, 7, 3.5f, 3, 5.5f, 1, 1),
                              Flat(-9, 5, 5, -9, -9, -9, 1, 1)}) {
        auto dst = Blank(8, 6);
        Draw(t, *src, *dst, 5, 3);  // left, above, past xLimit, past yLimit, edge x + y = -4 missing it
        ExpectPixels(*dst, nullptr);
    }
    // Integer corners: rows from the top vertex down to the row before the
    // bottom one, columns from ceil(left) to floor(right).
    check("integer corners", Identity(0, 0, 4, 0, 0, 4), 8, 8, 7,
          Where([](int32_t x, int32_t y) { return y <= 3 && x <= 4 - y; }, kRamp));
    // Flat bottom on row 3: apex row 1 has a zero span, row 2 spans 0..2; row 3
    // is drawn only when it is yLimit, by the closing pass.
    check("bottom on yLimit", Identity(0, 1, 0, 3, 4, 3), 8, 6, 3,
          Where([](int32_t x, int32_t y) { return (y == 2 && x <= 2) || (y == 3 && x <= 4); }, kRamp));
    check("bottom above yLimit", Identity(0, 1, 0, 3, 4, 3), 8, 6, 5,
          Where([](int32_t x, int32_t y) { return y == 2 && x <= 2; }, kRamp));
    // Zero height: nothing, except on row yLimit. The first corner lies between
    // the other two, so the span is 0..3 whichever two bound it.
    check("line on yLimit", Identity(2, 4, 0, 4, 3, 4), 8, 6, 4,
          Where([](int32_t x, int32_t y) { return y == 4 && x <= 3; }, kRamp));
    check("line above yLimit", Identity(2, 4, 0, 4, 3, 4), 8, 6, 5, nullptr);
    // A sliver on column 0 from y = -1 to 3 of width w at the bottom: its span
    // on row y is w * (y + 1) / 4. The scan needs more than 1e-8 (row 0's span
    // of 8e-9 holds pixel 0's centre, yet is not drawn); the closing pass on
    // row 3 = yLimit needs more than 1e-5.
    const struct {
        const char* what;
        float w;
        int32_t firstRow, lastRow;
    } slivers[] = {{"w 3.2e-8", 3.2e-8f, 1, 2}, {"w 5e-6", 5e-6f, 0, 2}, {"w 2e-5", 2e-5f, 0, 3}};
    for (const auto& k : slivers)
        check(k.what, Flat(0, -1, 0, 3, k.w, 3, 1, 1), 2, 5, 3,
              Where([&](int32_t x, int32_t y) { return x == 0 && y >= k.firstRow && y <= k.lastRow; }, at11));
}

TEST(WarpTriangle, SharedDiagonalBelongsToTheLaterTriangle) {
    auto src = RampSource(4, 4);
    const Triangle upper = Flat(0, 0, 4, 0, 0, 4, 1, 1);  // writes Ramp(1, 1) = 20 on x <= 4 - y, rows 0..3
    const Triangle lower = Flat(4, 4, 4, 0, 0, 4, 2, 2);  // writes 40 on 4 - y <= x <= 4, rows 1..3
    const auto inUpper = [](int32_t x, int32_t y) { return y <= 3 && x <= 4 - y; };
    const auto inLower = [](int32_t x, int32_t y) { return y >= 1 && y <= 3 && x >= 4 - y && x <= 4; };
    for (bool lowerLast : {true, false}) {
        SCOPED_TRACE(lowerLast ? "lower last" : "upper last");
        auto dst = Blank(6, 6);
        Draw(lowerLast ? upper : lower, *src, *dst, 5, 5);
        Draw(lowerLast ? lower : upper, *src, *dst, 5, 5);
        ExpectPixels(*dst, [&](int32_t x, int32_t y) {
            if (!inUpper(x, y) && !inLower(x, y)) return kNaN;
            return (lowerLast ? inLower(x, y) : !inUpper(x, y)) ? 40.0f : 20.0f;
        });
    }
}

TEST(WarpTriangle, BilinearSampleAndItsGuards) {
    auto src = RampSource(5, 4);
    const struct {
        float u, v, want;
        const char* what;
    } cases[] = {
        {1.25f, 2.5f, 45, "inside"},
        {3.5f, 2.75f, 58, "last cell"},
        {4, 3, 64, "last column and row: fraction forced to 1"},
        {9, 7, 64, "beyond the last column and row"},
        {-0.5f, 1, 14, "within one pixel left: extrapolated, reads stay inside"},
        {-3.7f, 1, 16, "left of the image: column 0"},
        {1, -2.5f, 4, "above the image: row 0"},
        {kNaN, 2, 32, "NaN u: column 0"},
        {2, kNaN, 8, "NaN v: row 0"},
        {3e9f, 1, 16, "u beyond int32: column 0"},
    };
    for (const auto& k : cases) EXPECT_EQ(Probe(*src, k.u, k.v)[0], k.want) << k.what;
    // One column or one row: the neighbour is the pixel itself. The bytes right
    // of and below the image hold infinity, which would show as NaN.
    const auto padded = [](int32_t w, int32_t h, std::vector<float>& block) {
        block.assign((w + 1) * (h + 1), std::numeric_limits<float>::infinity());
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) block[y * (w + 1) + x] = Ramp(x, y);
        return std::make_unique<PLImage>(block.data(), w, h, (w + 1) * 4, 1, PLPixelFloat, 0);
    };
    std::vector<float> columnBlock, rowBlock;
    auto column = padded(1, 3, columnBlock);
    auto row = padded(3, 1, rowBlock);
    auto single = MakeImage(1, 1, 1, PLPixelFloat, [](int32_t, int32_t, int32_t) { return 9.0f; });
    EXPECT_EQ(Probe(*column, 0.3f, 1.5f)[0], 24.0f) << "one column";
    EXPECT_EQ(Probe(*column, 5, 7)[0], 32.0f) << "one column, beyond";
    EXPECT_EQ(Probe(*row, 1.5f, 0.2f)[0], 6.0f) << "one row";
    EXPECT_EQ(Probe(*single, 0.5f, 0.5f)[0], 9.0f) << "one pixel";
    EXPECT_EQ(Probe(*single, -4, kNaN)[0], 9.0f) << "one pixel, off it";
}

TEST(WarpTriangle, LimitsBeyondTheTargetStayInsideAndATallScanEnds) {
    auto src = RampSource(2, 2);
    for (int32_t flipped : {0, 1}) {
        // A 4 x 3 float target inside a larger block: 2 floats of padding per
        // row and 10 spare rows on either side, all of which must stay untouched.
        const int32_t rowFloats = 6, firstRow = 10;
        std::vector<float> block(rowFloats * 23, kSentinel);
        PLImage dst(block.data() + firstRow * rowFloats, 4, 3, rowFloats * 4, 1, PLPixelFloat, flipped);
        Draw(Flat(-1, -1, 30, -1, -1, 30, 1, 1), *src, dst, 50, 50);
        Draw(Flat(0, 8, 3, 8, 1, 8, 0, 0), *src, dst, 50, 8);    // closing pass on a row past the target
        Draw(Flat(-5, 2, 20, 2, 0, 2, 0, 0), *src, dst, 40, 2);  // and on the last row, xLimit past it
        const int32_t lastStoredRow = firstRow + (flipped ? 0 : 2);
        for (int32_t i = 0; i < static_cast<int32_t>(block.size()); ++i) {
            const int32_t storedRow = i / rowFloats;
            const bool inside = storedRow >= firstRow && storedRow < firstRow + 3 && i % rowFloats < 4;
            const float want = storedRow == lastStoredRow ? Ramp(0, 0) : Ramp(1, 1);
            EXPECT_EQ(block[i], inside ? want : kSentinel) << "flipped " << flipped << ", float " << i;
        }
    }
    // Past 2^24 a float row plus 1 rounds back to itself: the scan must end.
    // The triangle starts just above that row, so only a few rows are scanned.
    const int32_t steppable = 1 << 24;
    PLImage tall(1, steppable + 2, 1, PLPixelUChar, 0);
    std::memset(tall.data, 0, static_cast<size_t>(steppable + 2));
    Draw(Flat(0, steppable - 16, 0, 2e7f, 3, 2e7f, 0.5f, 0), *src, tall, 0, steppable + 1);
    for (int32_t y = steppable - 16; y < steppable + 2; ++y)
        EXPECT_EQ(tall.data[y], y > steppable - 16 && y < steppable ? 2 : 0) << "row " << y;
}

TEST(SampleFlow, DirectReadAndBilinearSample) {
    // Channel 0 holds x + 10y, channel 1 its negation; stored bottom up.
    auto flow = MakeImage(
        4, 3, 2, PLPixelFloat,
        [](int32_t x, int32_t y, int32_t c) { return (c ? -1.0f : 1.0f) * (x + 10.0f * y); }, 1);
    const struct {
        float x, y, sx, sy, dx, dy;
    } cases[] = {{2.7f, 1.2f, 1, 1, 12, -12},
                 {-1, 5, 1, 1, 20, -20},  // truncated; off the flow: its edge
                 {3, 6, 0.5f, 0.25f, 16.5f, -16.5f}};
    for (const auto& k : cases) {
        float dx = -1, dy = -1;
        PLSampleFlow(k.x, k.y, k.sx, k.sy, flow.get(), &dx, &dy);
        EXPECT_EQ(dx, k.dx) << k.x << "," << k.y;
        EXPECT_EQ(dy, k.dy) << k.x << "," << k.y;
    }
    float dx = -1, dy = -1;
    PLSampleFlow(1, 1, 1, 1, Blank(4, 3, 2, PLPixelUChar).get(), &dx, &dy);
    EXPECT_TRUE(dx == 0.0f && dy == 0.0f) << "not a float flow";
}

struct Mesh {
    std::unique_ptr<PLImage> flow;
    PLMeshWarp record;
};

// A mesh with one grid point per source pixel and a uniform flow (fx, fy).
Mesh MakeMesh(const PLImage& src, PLImage& dst, int32_t flowWidth, int32_t flowHeight, float fx, float fy) {
    Mesh m{MakeImage(flowWidth, flowHeight, 2, PLPixelFloat,
                     [&](int32_t, int32_t, int32_t c) { return c ? fy : fx; }),
           {}};
    m.record.source = &src;
    m.record.target = &dst;
    m.record.flow = m.flow.get();
    m.record.flowWidth = flowWidth;
    m.record.flowHeight = flowHeight;
    m.record.meshExtent = dst.width;
    m.record.meshHeight = dst.height;
    m.record.gridColumns = src.width;
    m.record.gridRows = src.height;
    return m;
}

TEST(WarpMesh, ZeroFlowReproducesTheSourceInEveryMember) {
    const PixelValue value = [](int32_t x, int32_t y, int32_t c) {
        return static_cast<float>((3 * x + 7 * y + 11 * c) % 200);
    };
    for (int32_t sourceType : {PLPixelUChar, PLPixelUShort, PLPixelFloat})
        for (int32_t targetType : {PLPixelUChar, PLPixelUShort, PLPixelFloat})
            for (int32_t channels = 1; channels <= 4; ++channels) {
                auto src = MakeImage(5, 4, channels, sourceType, value);
                auto dst = Blank(5, 4, 4, targetType);
                Mesh m = MakeMesh(*src, *dst, 5, 4, 0, 0);
                m.record.reserved0 = 7;
                m.record.reserved1 = 9;
                PLWarpMesh(1.5f, &m.record);
                EXPECT_TRUE(m.record.reserved0 == 0 && m.record.reserved1 == 0);
                for (int32_t y = 0; y < 4; ++y)
                    for (int32_t x = 0; x < 5; ++x)
                        for (int32_t c = 0; c < 4; ++c)  // channels past the source's keep what they held
                            EXPECT_EQ(Get(*dst, x, y, c), c < channels ? value(x, y, c) : kSentinel)
                                << sourceType << "->" << targetType << " x" << channels << " at (" << x
                                << ", " << y << ", " << c << ")";
            }
    // A 3 x 3 grid over 5 x 5 target pixels: cells of 2 on both axes, so
    // target (x, y) samples the source at (x / 2, y / 2).
    auto src = RampSource(3, 3);
    auto dst = Blank(5, 5);
    Mesh m = MakeMesh(*src, *dst, 3, 3, 0, 0);
    PLWarpMesh(1.0f, &m.record);
    ExpectPixels(*dst, [](int32_t x, int32_t y) { return Ramp(x / 2.0f, y / 2.0f); });
}

TEST(WarpMesh, UniformIntegerFlowTranslates) {
    const int32_t w = 6, h = 5;
    const auto value = [](int32_t x, int32_t y) { return 3.0f * x + 7.0f * y + 1.0f; };
    auto src = MakeImage(w, h, 1, PLPixelFloat, [&](int32_t x, int32_t y, int32_t) { return value(x, y); });
    // A flow twice as fine as the grid holds vectors twice as long.
    const struct { int32_t dx, dy, flowScale; } cases[] = {{-2, -1, 1}, {2, 1, 2}};
    for (const auto& k : cases) {
        SCOPED_TRACE(std::to_string(k.dx) + "," + std::to_string(k.dy) + " scale " +
                     std::to_string(k.flowScale));
        auto dst = Blank(w, h);
        Mesh m = MakeMesh(*src, *dst, (w - 1) * k.flowScale + 1, (h - 1) * k.flowScale + 1,
                          static_cast<float>(k.dx * k.flowScale), static_cast<float>(k.dy * k.flowScale));
        PLWarpMesh(1.0f, &m.record);
        // Each source pixel lands at (x + dx, y + dy); the source's last row only
        // where it lands on yLimit, through the closing pass. Uncovered pixels keep what they held.
        ExpectPixels(*dst, Where(
                               [&](int32_t x, int32_t y) {
                                   const int32_t sx = x - k.dx, sy = y - k.dy;
                                   return sx >= 0 && sx < w && sy >= 0 &&
                                          (sy < h - 1 || (sy == h - 1 && y == h - 1));
                               },
                               [&](int32_t x, int32_t y) { return value(x - k.dx, y - k.dy); }));
    }
}

TEST(WarpMesh, UnusableInputsLeaveTheTargetAlone) {
    auto src = RampSource(3, 3);
    const auto ones = [](int32_t, int32_t, int32_t) { return 1.0f; };
    auto signedSource = MakeImage(3, 3, 1, PLPixelChar, ones);
    auto fiveChannels = MakeImage(3, 3, 5, PLPixelFloat, ones);
    auto twoChannels = MakeImage(3, 3, 2, PLPixelFloat, ones);
    PLImage empty(static_cast<void*>(nullptr), 3, 3, 1, PLPixelFloat, 0);
    const std::pair<const char*, std::function<void(PLMeshWarp&)>> spoils[] = {
        {"one grid column", [](PLMeshWarp& r) { r.gridColumns = 1; }},
        {"no flow", [](PLMeshWarp& r) { r.flow = nullptr; }},
        {"no mesh extent", [](PLMeshWarp& r) { r.meshExtent = 0; }},
        {"source type without a member", [&](PLMeshWarp& r) { r.source = signedSource.get(); }},
        {"five channels", [&](PLMeshWarp& r) { r.source = fiveChannels.get(); }},
        {"target with fewer channels", [&](PLMeshWarp& r) { r.source = twoChannels.get(); }},
        {"empty source", [&](PLMeshWarp& r) { r.source = &empty; }},
    };
    for (const auto& spoil : spoils) {
        SCOPED_TRACE(spoil.first);
        auto dst = Blank(3, 3);
        Mesh m = MakeMesh(*src, *dst, 3, 3, 0, 0);
        spoil.second(m.record);
        PLWarpMesh(1.0f, &m.record);
        ExpectPixels(*dst, nullptr);
    }
}

}  // namespace
