// Tests of the mesh warp: which pixels a triangle covers (scan rules, closing
// pass, thresholds, limits), the bilinear sample and its guards, the stores of
// each target type, and the driver's grid. Targets are pre-filled with a
// sentinel so that a pixel written by mistake shows. Sources hold small
// integers or dyadic linear ramps, on which the arithmetic is exact.
#include "mesh_warp.h"

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

// Element c of logical pixel (x, y), addressed from the record's fields.
uint8_t* At(const PLImage& im, int32_t x, int32_t y, int32_t c) {
    const int32_t storedRow = im.flipped ? im.height - 1 - y : y;
    return im.data + static_cast<std::ptrdiff_t>(storedRow) * im.rowBytes + x * im.pixelStride +
           c * im.bytesPerElement;
}

float Get(const PLImage& im, int32_t x, int32_t y, int32_t c = 0) {
    const uint8_t* p = At(im, x, y, c);
    if (im.pixelType == PLPixelUChar) return *p;
    if (im.pixelType == PLPixelUShort) {
        uint16_t e;
        std::memcpy(&e, p, sizeof e);
        return e;
    }
    float e;
    std::memcpy(&e, p, sizeof e);
    return e;
}

void Set(const PLImage& im, int32_t x, int32_t y, int32_t c, float value) {
    PLFloatToElement(im.pixelType, At(im, x, y, c), value);
}

using PixelValue = std::function<float(int32_t x, int32_t y, int32_t c)>;

std::unique_ptr<PLImage> MakeImage(int32_t w, int32_t h, int32_t channels, int32_t type,
                                   const PixelValue& value, int32_t flipped = 0) {
    auto im = std::make_unique<PLImage>(w, h, channels, type, flipped);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int32_t c = 0; c < channels; ++c) Set(*im, x, y, c, value(x, y, c));
    return im;
}

std::unique_ptr<PLImage> Blank(int32_t w, int32_t h, int32_t channels = 1, int32_t type = PLPixelFloat) {
    return MakeImage(w, h, channels, type, [](int32_t, int32_t, int32_t) { return kSentinel; });
}

// 4x + 16y: linear, so a bilinear sample at a dyadic position is exact.
float Ramp(float x, float y) {
    return 4.0f * x + 16.0f * y;
}

std::unique_ptr<PLImage> RampSource(int32_t w, int32_t h) {
    return MakeImage(w, h, 1, PLPixelFloat, [](int32_t x, int32_t y, int32_t) { return Ramp(x, y); });
}

struct Corner {
    float x, y, u, v;
};

using Triangle = std::array<float, 3 * PLWarpVertexFloats>;

Triangle Tri(Corner a, Corner b, Corner c) {
    return {a.x, a.y, a.u, a.v, 0.0f, b.x, b.y, b.u, b.v, 0.0f, c.x, c.y, c.u, c.v, 0.0f};
}

// A triangle whose corners all map to source position (u, v).
Triangle Flat(float ax, float ay, float bx, float by, float cx, float cy, float u, float v) {
    return Tri({ax, ay, u, v}, {bx, by, u, v}, {cx, cy, u, v});
}

void Draw(const Triangle& t, const PLImage& src, PLImage& dst, int32_t xLimit, int32_t yLimit) {
    PLWarpTriangle(t.data(), 0, &src, &dst, xLimit, yLimit);
}

// Channel 0 of every pixel: value(x, y) where covered, the sentinel elsewhere.
void ExpectPixels(const PLImage& im, const std::function<bool(int32_t, int32_t)>& covered,
                  const std::function<float(int32_t, int32_t)>& value, const char* what) {
    for (int32_t y = 0; y < im.height; ++y)
        for (int32_t x = 0; x < im.width; ++x)
            EXPECT_EQ(Get(im, x, y), covered(x, y) ? value(x, y) : kSentinel)
                << what << ": pixel (" << x << ", " << y << ")";
}

// The value written for a triangle mapped wholly to (u, v), one per channel.
std::vector<float> Probe(const PLImage& src, float u, float v, int32_t targetType = PLPixelFloat) {
    auto dst = Blank(1, 1, src.numChannels, targetType);
    Draw(Flat(0, 0, 2, 0, 0, 2, u, v), src, *dst, 0, 0);
    std::vector<float> out;
    for (int32_t c = 0; c < src.numChannels; ++c) out.push_back(Get(*dst, 0, 0, c));
    return out;
}

TEST(WarpTriangle, TrianglesWhollyOutsideWriteNothing) {
    auto src = RampSource(4, 4);
    auto dst = Blank(8, 6);
    Draw(Flat(-5, 0, -0.5f, 0, -3, 5, 1, 1), *src, *dst, 5, 3);     // left of column 0
    Draw(Flat(0, -5, 7, -0.5f, 3, -2, 1, 1), *src, *dst, 5, 3);     // above row 0
    Draw(Flat(5.5f, 0, 7.5f, 0, 7, 5, 1, 1), *src, *dst, 5, 3);     // past xLimit, inside the image
    Draw(Flat(0, 3.5f, 7, 3.5f, 3, 5.5f, 1, 1), *src, *dst, 5, 3);  // past yLimit, inside the image
    Draw(Flat(-9, 5, 5, -9, -9, -9, 1, 1), *src, *dst, 5,
         3);  // crosses the axes, its edge x + y = -4 misses the image
    ExpectPixels(
        *dst, [](int32_t, int32_t) { return false; }, nullptr, "outside");
}

TEST(WarpTriangle, ScanCoverageAndInterpolation) {
    auto src = RampSource(8, 8);
    // Integer corners, identity mapping: rows from the top vertex down to the
    // row before the bottom one, columns from ceil(left) to floor(right), each
    // pixel the source pixel under it.
    auto dst = Blank(8, 8);
    Draw(Tri({0, 0, 0, 0}, {4, 0, 4, 0}, {0, 4, 0, 4}), *src, *dst, 7, 7);
    ExpectPixels(
        *dst, [](int32_t x, int32_t y) { return y <= 3 && x <= 4 - y; },
        [](int32_t x, int32_t y) { return Ramp(x, y); }, "integer triangle");

    // Fractional corners reaching past column 0 and past yLimit: rows 1 to 7,
    // left edge at 1.75 - y / 2 (rounded up, clipped at 0), right edge at 6 - y.
    auto clipped = Blank(8, 8);
    Draw(Flat(1.5f, 0.5f, 5.5f, 0.5f, -2.5f, 8.5f, 1, 1), *src, *clipped, 7, 7);
    ExpectPixels(
        *clipped,
        [](int32_t x, int32_t y) { return y >= 1 && x >= std::ceil(1.75f - y / 2.0f) && x <= 6 - y; },
        [](int32_t, int32_t) { return Ramp(1, 1); }, "fractional triangle");
}

TEST(WarpTriangle, BottomEdgeOnTheLastRowIsDrawnByTheClosingPass) {
    auto src = RampSource(8, 8);
    const auto ramp = [](int32_t x, int32_t y) { return Ramp(x, y); };
    const Triangle flatBottom = Tri({0, 1, 0, 1}, {0, 3, 0, 3}, {4, 3, 4, 3});
    // Row 1 is the apex (zero span), row 2 spans 0..2, row 3 is the bottom edge.
    auto atLimit = Blank(8, 6);
    Draw(flatBottom, *src, *atLimit, 7, 3);
    ExpectPixels(
        *atLimit, [](int32_t x, int32_t y) { return (y == 2 && x <= 2) || (y == 3 && x <= 4); }, ramp,
        "bottom edge on yLimit");
    auto aboveLimit = Blank(8, 6);
    Draw(flatBottom, *src, *aboveLimit, 7, 5);
    ExpectPixels(
        *aboveLimit, [](int32_t x, int32_t y) { return y == 2 && x <= 2; }, ramp, "bottom edge above yLimit");

    // Zero height: nothing, except on row yLimit. The first corner lies
    // between the other two, so the span is 0..3 whichever two bound it.
    const Triangle line = Tri({2, 4, 2, 4}, {0, 4, 0, 4}, {3, 4, 3, 4});
    auto lineOnLimit = Blank(8, 6);
    Draw(line, *src, *lineOnLimit, 7, 4);
    ExpectPixels(
        *lineOnLimit, [](int32_t x, int32_t y) { return y == 4 && x <= 3; }, ramp, "line on yLimit");
    auto lineAboveLimit = Blank(8, 6);
    Draw(line, *src, *lineAboveLimit, 7, 5);
    ExpectPixels(
        *lineAboveLimit, [](int32_t, int32_t) { return false; }, nullptr, "line above yLimit");
}

TEST(WarpTriangle, SharedDiagonalBelongsToTheLaterTriangle) {
    auto src = RampSource(4, 4);
    const Triangle upper = Flat(0, 0, 4, 0, 0, 4, 1, 1);  // writes Ramp(1, 1) = 20
    const Triangle lower = Flat(4, 4, 4, 0, 0, 4, 2, 2);  // writes Ramp(2, 2) = 40
    // The upper one covers x <= 4 - y on rows 0 to 3; the lower one starts
    // with a zero span on row 0 and covers 4 - y <= x <= 4 on rows 1 to 3.
    const auto inUpper = [](int32_t x, int32_t y) { return y <= 3 && x <= 4 - y; };
    const auto inLower = [](int32_t x, int32_t y) { return y >= 1 && y <= 3 && x >= 4 - y && x <= 4; };
    const auto inEither = [&](int32_t x, int32_t y) { return inUpper(x, y) || inLower(x, y); };
    auto lowerLast = Blank(6, 6);
    Draw(upper, *src, *lowerLast, 5, 5);
    Draw(lower, *src, *lowerLast, 5, 5);
    ExpectPixels(
        *lowerLast, inEither, [&](int32_t x, int32_t y) { return inLower(x, y) ? 40.0f : 20.0f; },
        "lower last");
    auto upperLast = Blank(6, 6);
    Draw(lower, *src, *upperLast, 5, 5);
    Draw(upper, *src, *upperLast, 5, 5);
    ExpectPixels(
        *upperLast, inEither, [&](int32_t x, int32_t y) { return inUpper(x, y) ? 20.0f : 40.0f; },
        "upper last");
}

TEST(WarpTriangle, SpansBelowTheThresholdsDrawNothing) {
    // A sliver on column 0 from y = -1 to 3 of width w at the bottom: its span
    // on row y is w * (y + 1) / 4, and row 3 (= yLimit) is the closing pass's.
    auto src = RampSource(2, 2);
    const auto drawSliver = [&](float w) {
        auto dst = Blank(2, 5);
        Draw(Flat(0, -1, 0, 3, w, 3, 1, 1), *src, *dst, 1, 3);
        return dst;
    };
    const auto value = [](int32_t, int32_t) { return Ramp(1, 1); };
    // Row 0's span is 8e-9: pixel 0's centre lies in it, yet it is not drawn.
    ExpectPixels(
        *drawSliver(3.2e-8f), [](int32_t x, int32_t y) { return x == 0 && (y == 1 || y == 2); }, value,
        "w 3.2e-8");
    // The scan draws rows 0 to 2; the closing pass needs more than 1e-5.
    ExpectPixels(
        *drawSliver(5e-6f), [](int32_t x, int32_t y) { return x == 0 && y <= 2; }, value, "w 5e-6");
    ExpectPixels(
        *drawSliver(2e-5f), [](int32_t x, int32_t y) { return x == 0 && y <= 3; }, value, "w 2e-5");
}

TEST(WarpTriangle, IntegerTargetsRoundByAddingOneHalfWithoutClamp) {
    struct Case {
        float value;
        float uchar;
        float ushort;
    };
    const Case cases[] = {{2.49f, 2, 2},         {2.5f, 3, 3},  {254.6f, 255, 255},  {300.0f, 44, 300},
                          {70000.0f, 112, 4464}, {-0.4f, 0, 0}, {-2.0f, 255, 65535}, {kNaN, 0, 0}};
    for (const Case& k : cases) {
        auto src = MakeImage(2, 2, 1, PLPixelFloat, [&](int32_t, int32_t, int32_t) { return k.value; });
        EXPECT_EQ(Probe(*src, 0.5f, 0.5f, PLPixelUChar)[0], k.uchar) << "value " << k.value;
        EXPECT_EQ(Probe(*src, 0.5f, 0.5f, PLPixelUShort)[0], k.ushort) << "value " << k.value;
    }
    auto src = MakeImage(2, 2, 1, PLPixelFloat, [](int32_t, int32_t, int32_t) { return 2.49f; });
    EXPECT_EQ(Probe(*src, 0.5f, 0.5f, PLPixelFloat)[0], 2.49f);
}

TEST(WarpTriangle, BilinearSampleAndItsGuards) {
    auto src = RampSource(5, 4);
    struct Case {
        float u, v, want;
        const char* what;
    };
    const Case cases[] = {
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
    for (const Case& k : cases) EXPECT_EQ(Probe(*src, k.u, k.v)[0], k.want) << k.what;

    // One column or one row: the neighbour is the pixel itself. The bytes
    // right of and below the image hold infinity, which would show as NaN.
    const auto padded = [](int32_t w, int32_t h, std::vector<float>& block) {
        block.assign((w + 1) * (h + 1), std::numeric_limits<float>::infinity());
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) block[y * (w + 1) + x] = Ramp(x, y);
        return std::make_unique<PLImage>(block.data(), w, h, (w + 1) * 4, 1, PLPixelFloat, 0);
    };
    std::vector<float> columnBlock;
    auto column = padded(1, 3, columnBlock);
    EXPECT_EQ(Probe(*column, 0.3f, 1.5f)[0], 24.0f) << "one column";
    EXPECT_EQ(Probe(*column, 5, 7)[0], 32.0f) << "one column, beyond";
    std::vector<float> rowBlock;
    auto row = padded(3, 1, rowBlock);
    EXPECT_EQ(Probe(*row, 1.5f, 0.2f)[0], 6.0f) << "one row";
    auto single = MakeImage(1, 1, 1, PLPixelFloat, [](int32_t, int32_t, int32_t) { return 9.0f; });
    EXPECT_EQ(Probe(*single, 0.5f, 0.5f)[0], 9.0f) << "one pixel";
    EXPECT_EQ(Probe(*single, -4, kNaN)[0], 9.0f) << "one pixel, off it";
}

TEST(WarpTriangle, FamilyMembersInterpolateEveryChannel) {
    for (int32_t sourceType : {PLPixelUChar, PLPixelUShort, PLPixelFloat}) {
        for (int32_t targetType : {PLPixelUChar, PLPixelUShort, PLPixelFloat}) {
            for (int32_t channels = 1; channels <= 4; ++channels) {
                auto src = MakeImage(5, 4, channels, sourceType,
                                     [](int32_t x, int32_t y, int32_t c) { return Ramp(x, y) + c; });
                const std::vector<float> exact = Probe(*src, 1.25f, 2.5f, targetType);
                const std::vector<float> half = Probe(*src, 1.125f, 0.5f, targetType);
                for (int32_t c = 0; c < channels; ++c) {
                    EXPECT_EQ(exact[c], 45.0f + c) << sourceType << "->" << targetType << " x" << channels;
                    // 12.5 + c: kept in a float target, rounded up in an integer one.
                    const float want = targetType == PLPixelFloat ? 12.5f + c : 13.0f + c;
                    EXPECT_EQ(half[c], want) << sourceType << "->" << targetType << " x" << channels;
                }
            }
        }
    }
}

TEST(WarpTriangle, LimitsBeyondTheTargetStayInside) {
    auto src = RampSource(2, 2);
    for (int32_t flipped : {0, 1}) {
        // A 4 x 3 float target in the middle of a larger block: 2 floats of
        // padding per row and 10 spare rows on either side, all of which must
        // stay untouched.
        const int32_t rowFloats = 6;
        const int32_t firstRow = 10;
        std::vector<float> block(rowFloats * 23, kSentinel);
        PLImage dst(block.data() + firstRow * rowFloats, 4, 3, rowFloats * 4, 1, PLPixelFloat, flipped);
        Draw(Flat(-1, -1, 30, -1, -1, 30, 1, 1), *src, dst, 50, 50);
        Draw(Flat(0, 8, 3, 8, 1, 8, 0, 0), *src, dst, 50, 8);  // closing pass on a row past the target
        // Closing pass on the last row with xLimit past the last column.
        Draw(Flat(-5, 2, 20, 2, 0, 2, 0, 0), *src, dst, 40, 2);
        const int32_t lastStoredRow = firstRow + (flipped ? 0 : 2);
        for (int32_t i = 0; i < static_cast<int32_t>(block.size()); ++i) {
            const int32_t storedRow = i / rowFloats;
            const bool inside = storedRow >= firstRow && storedRow < firstRow + 3 && i % rowFloats < 4;
            const float want = storedRow == lastStoredRow ? Ramp(0, 0) : Ramp(1, 1);
            EXPECT_EQ(block[i], inside ? want : kSentinel) << "flipped " << flipped << ", float " << i;
        }
    }
}

TEST(WarpTriangle, TallTargetScanStopsWhereAFloatRowStillSteps) {
    // Past 2^24 a float row plus 1 rounds back to itself: the scan must end.
    // The triangle starts just above that row, so only a few rows are scanned.
    const int32_t steppable = 1 << 24;
    const int32_t height = steppable + 2;
    auto src = RampSource(2, 2);
    PLImage dst(1, height, 1, PLPixelUChar, 0);
    std::memset(dst.data, 0, static_cast<size_t>(height));
    Draw(Flat(0, steppable - 16, 0, 2e7f, 3, 2e7f, 0.5f, 0), *src, dst, 0, height - 1);
    EXPECT_EQ(dst.data[steppable - 16], 0) << "apex row, zero span";
    for (int32_t y = steppable - 15; y < steppable; ++y) EXPECT_EQ(dst.data[y], 2) << "row " << y;
    EXPECT_EQ(dst.data[steppable], 0);
    EXPECT_EQ(dst.data[steppable + 1], 0);
}

TEST(SampleFlow, DirectReadAndBilinearSample) {
    // Channel 0 holds x + 10y, channel 1 its negation; stored bottom up.
    auto flow = MakeImage(
        4, 3, 2, PLPixelFloat,
        [](int32_t x, int32_t y, int32_t c) { return (c ? -1.0f : 1.0f) * (x + 10.0f * y); }, 1);
    float dx = -1;
    float dy = -1;
    PLSampleFlow(2.7f, 1.2f, 1, 1, flow.get(), &dx, &dy);
    EXPECT_EQ(dx, 12.0f);
    EXPECT_EQ(dy, -12.0f);
    PLSampleFlow(-1, 5, 1, 1, flow.get(), &dx, &dy);  // off the flow: its edge
    EXPECT_EQ(dx, 20.0f);
    PLSampleFlow(3, 6, 0.5f, 0.25f, flow.get(), &dx, &dy);  // at (1.5, 1.5)
    EXPECT_EQ(dx, 16.5f);
    EXPECT_EQ(dy, -16.5f);
    PLSampleFlow(100, 100, 0.5f, 0.25f, flow.get(), &dx, &dy);
    EXPECT_EQ(dx, 23.0f);
    auto notFlow = Blank(4, 3, 2, PLPixelUChar);
    PLSampleFlow(1, 1, 1, 1, notFlow.get(), &dx, &dy);
    EXPECT_EQ(dx, 0.0f);
    EXPECT_EQ(dy, 0.0f);
}

struct Mesh {
    std::unique_ptr<PLImage> flow;
    PLMeshWarp record;
};

// A mesh with one grid point per source pixel and a flow of the given size.
Mesh MakeMesh(const PLImage& src, PLImage& dst, int32_t flowWidth, int32_t flowHeight, float fx, float fy) {
    Mesh m;
    m.flow = MakeImage(flowWidth, flowHeight, 2, PLPixelFloat,
                       [&](int32_t, int32_t, int32_t c) { return c ? fy : fx; });
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
    for (int32_t sourceType : {PLPixelUChar, PLPixelUShort, PLPixelFloat}) {
        for (int32_t targetType : {PLPixelUChar, PLPixelUShort, PLPixelFloat}) {
            for (int32_t channels = 1; channels <= 4; ++channels) {
                const PixelValue value = [](int32_t x, int32_t y, int32_t c) {
                    return static_cast<float>((3 * x + 7 * y + 11 * c) % 200);
                };
                auto src = MakeImage(5, 4, channels, sourceType, value);
                auto dst = Blank(5, 4, 4, targetType);
                Mesh m = MakeMesh(*src, *dst, 5, 4, 0, 0);
                m.record.reserved0 = 7;
                m.record.reserved1 = 9;
                PLWarpMesh(1.5f, &m.record);
                EXPECT_EQ(m.record.reserved0, 0u);
                EXPECT_EQ(m.record.reserved1, 0u);
                for (int32_t y = 0; y < 4; ++y)
                    for (int32_t x = 0; x < 5; ++x)
                        for (int32_t c = 0; c < 4; ++c)
                            EXPECT_EQ(Get(*dst, x, y, c), c < channels ? value(x, y, c) : kSentinel)
                                << sourceType << "->" << targetType << " x" << channels << " at (" << x
                                << ", " << y << ", " << c << ")";
            }
        }
    }
}

TEST(WarpMesh, UniformIntegerFlowTranslates) {
    const int32_t w = 6;
    const int32_t h = 5;
    const PixelValue value = [](int32_t x, int32_t y, int32_t) { return 3.0f * x + 7.0f * y + 1.0f; };
    auto src = MakeImage(w, h, 1, PLPixelFloat, value);
    struct Case {
        int32_t dx, dy, flowScale;
    };
    // A flow twice as fine as the grid holds vectors twice as long.
    for (const Case& k : {Case{2, 1, 1}, Case{-2, -1, 1}, Case{1, 0, 1}, Case{2, 1, 2}}) {
        auto dst = Blank(w, h);
        Mesh m = MakeMesh(*src, *dst, (w - 1) * k.flowScale + 1, (h - 1) * k.flowScale + 1,
                          static_cast<float>(k.dx * k.flowScale), static_cast<float>(k.dy * k.flowScale));
        PLWarpMesh(1.0f, &m.record);
        // Each source pixel lands at (x + dx, y + dy); the source's last row
        // only where it lands on yLimit, through the closing pass.
        ExpectPixels(
            *dst,
            [&](int32_t x, int32_t y) {
                const int32_t sx = x - k.dx;
                const int32_t sy = y - k.dy;
                return sx >= 0 && sx < w && sy >= 0 && (sy < h - 1 || (sy == h - 1 && y == h - 1));
            },
            [&](int32_t x, int32_t y) { return value(x - k.dx, y - k.dy, 0); }, "translation");
    }
}

TEST(WarpMesh, MeshExtentSetsTheCellSizeOnBothAxes) {
    // A 3 x 3 grid over 5 x 5 target pixels: cells of 2, so target (x, y)
    // samples the source at (x / 2, y / 2).
    auto src = RampSource(3, 3);
    auto dst = Blank(5, 5);
    Mesh m = MakeMesh(*src, *dst, 3, 3, 0, 0);
    PLWarpMesh(1.0f, &m.record);
    ExpectPixels(
        *dst, [](int32_t, int32_t) { return true; },
        [](int32_t x, int32_t y) { return Ramp(x / 2.0f, y / 2.0f); }, "cells of 2");
}

TEST(WarpMesh, UnusableInputsLeaveTheTargetAlone) {
    auto src = RampSource(3, 3);
    const auto untouched = [](int32_t, int32_t) { return false; };
    const auto run = [&](const char* what, const std::function<void(Mesh&)>& spoil) {
        auto dst = Blank(3, 3);
        Mesh m = MakeMesh(*src, *dst, 3, 3, 0, 0);
        spoil(m);
        PLWarpMesh(1.0f, &m.record);
        ExpectPixels(*dst, untouched, nullptr, what);
    };
    run("one grid column", [](Mesh& m) { m.record.gridColumns = 1; });
    run("no flow", [](Mesh& m) { m.record.flow = nullptr; });
    run("no mesh extent", [](Mesh& m) { m.record.meshExtent = 0; });
    auto signedSource = MakeImage(3, 3, 1, PLPixelChar, [](int32_t, int32_t, int32_t) { return 1.0f; });
    run("source type without a member", [&](Mesh& m) { m.record.source = signedSource.get(); });
    auto fiveChannels = MakeImage(3, 3, 5, PLPixelFloat, [](int32_t, int32_t, int32_t) { return 1.0f; });
    run("five channels", [&](Mesh& m) { m.record.source = fiveChannels.get(); });
    auto twoChannels = MakeImage(3, 3, 2, PLPixelFloat, [](int32_t, int32_t, int32_t) { return 1.0f; });
    run("target with fewer channels", [&](Mesh& m) { m.record.source = twoChannels.get(); });
    PLImage empty(static_cast<void*>(nullptr), 3, 3, 1, PLPixelFloat, 0);
    run("empty source", [&](Mesh& m) { m.record.source = &empty; });
}

}  // namespace
