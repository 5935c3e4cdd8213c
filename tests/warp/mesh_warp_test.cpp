// The mesh warp, off the plug-in's path: reference cases worked out by hand on
// sources whose bilinear samples are exact, and its guards (unusable inputs,
// samples off the image, limits past the target, a scan that must end).
// Targets start at a sentinel, so a pixel written by mistake shows.
#include "warp/mesh_warp.h"

#include <array>
#include <functional>
#include <limits>

#include "common/library.h"

namespace {

constexpr float kSentinel = 250.0f;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

ImagePtr Blank(int32_t w, int32_t h, int32_t channels = 1, int32_t type = PLPixelFloat) {
    return Pattern(w, h, channels, type, [](int32_t, int32_t, int32_t) { return kSentinel; });
}

// 4x + 16y: linear, so a bilinear sample at a dyadic position is exact.
float Ramp(float x, float y) {
    return 4.0f * x + 16.0f * y;
}

ImagePtr RampSource(int32_t w, int32_t h) {
    return Pattern(w, h, 1, PLPixelFloat, [](int32_t x, int32_t y, int32_t) { return Ramp(x, y); });
}

// A triangle whose corners all map to source position (u, v).
std::array<float, 3 * PLWarpVertexFloats> Flat(float ax, float ay, float bx, float by, float cx, float cy,
                                               float u, float v) {
    return {ax, ay, u, v, 0, bx, by, u, v, 0, cx, cy, u, v, 0};
}

// A mesh with one grid point per source pixel over a uniform flow (fx, fy).
struct Mesh {
    Mesh(const PLImage& src, PLImage& dst, int32_t flowWidth, int32_t flowHeight, float fx, float fy)
        : flow(UniformFlow(flowWidth, flowHeight, fx, fy)) {
        record.source = &src;
        record.target = &dst;
        record.flow = flow.get();
        record.flowWidth = flowWidth;
        record.flowHeight = flowHeight;
        record.meshExtent = dst.width;
        record.meshHeight = dst.height;
        record.gridColumns = src.width;
        record.gridRows = src.height;
    }
    ImagePtr flow;
    PLMeshWarp record;
};

TEST(WarpMesh, UniformFlowsInEveryMember) {
    const auto value = [](int32_t x, int32_t y, int32_t c) { return float((3 * x + 7 * y + 11 * c) % 200); };
    // Flow (dx, dy) per grid cell, on a flow `scale` times finer than the grid.
    const struct { int32_t dx, dy, scale; } flows[] = {{0, 0, 1}, {-2, -1, 1}, {2, 1, 2}};
    for (const auto& f : flows)
        for (int32_t sourceType : {PLPixelUChar, PLPixelUShort, PLPixelFloat})
            for (int32_t targetType : {PLPixelUChar, PLPixelUShort, PLPixelFloat})
                for (int32_t channels = 1; channels <= 4; ++channels) {
                    SCOPED_TRACE(testing::Message()
                                 << "flow " << f.dx << "," << f.dy << " x" << f.scale << ", " << sourceType
                                 << "->" << targetType << " x" << channels);
                    auto src = Pattern(6, 5, channels, sourceType, value);
                    auto dst = Blank(6, 5, 4, targetType);
                    Mesh m(*src, *dst, 5 * f.scale + 1, 4 * f.scale + 1, float(f.dx * f.scale),
                           float(f.dy * f.scale));
                    m.record.reserved0 = 7;
                    PLWarpMesh(1.0f, &m.record);
                    EXPECT_EQ(m.record.reserved0, 0u);
                    // Source pixel (sx, sy) lands at (sx + dx, sy + dy); the source's last
                    // row only where it lands on the last row, by the closing pass.
                    for (int32_t y = 0; y < 5; ++y)
                        for (int32_t x = 0; x < 6; ++x) {
                            const int32_t sx = x - f.dx, sy = y - f.dy;
                            const bool covered =
                                sx >= 0 && sx < 6 && sy >= 0 && (sy < 4 || (sy == 4 && y == 4));
                            for (int32_t c = 0; c < 4; ++c)
                                ASSERT_EQ(Value(*dst, x, y, c),
                                          covered && c < channels ? value(sx, sy, c) : kSentinel)
                                    << "at " << x << "," << y << "," << c;
                        }
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
    for (const auto& k : cases) {
        auto dst = Blank(1, 1);
        PLWarpTriangle(Flat(0, 0, 2, 0, 0, 2, k.u, k.v).data(), 0, src.get(), dst.get(), 0, 0);
        EXPECT_EQ(Value(*dst, 0, 0), k.want) << k.what;
    }
}

TEST(WarpTriangle, LimitsBeyondTheTargetStayInsideAndATallScanEnds) {
    auto src = RampSource(2, 2);
    for (int32_t flipped : {0, 1}) {
        // A 4 x 3 target inside a larger block: 2 floats of padding per row and
        // 10 spare rows on either side, all of which must stay untouched.
        const int32_t rowFloats = 6, firstRow = 10;
        std::vector<float> block(rowFloats * 23, kSentinel);
        PLImage dst(block.data() + firstRow * rowFloats, 4, 3, rowFloats * 4, 1, PLPixelFloat, flipped);
        PLWarpTriangle(Flat(-1, -1, 30, -1, -1, 30, 1, 1).data(), 0, src.get(), &dst, 50, 50);
        // The closing pass on a row past the target, and on its last row with xLimit past it.
        PLWarpTriangle(Flat(0, 8, 3, 8, 1, 8, 0, 0).data(), 0, src.get(), &dst, 50, 8);
        PLWarpTriangle(Flat(-5, 2, 20, 2, 0, 2, 0, 0).data(), 0, src.get(), &dst, 40, 2);
        const int32_t lastStoredRow = firstRow + (flipped ? 0 : 2);
        for (int32_t i = 0; i < static_cast<int32_t>(block.size()); ++i) {
            const int32_t storedRow = i / rowFloats;
            const bool inside = storedRow >= firstRow && storedRow < firstRow + 3 && i % rowFloats < 4;
            const float want = storedRow == lastStoredRow ? Ramp(0, 0) : Ramp(1, 1);
            EXPECT_EQ(block[i], inside ? want : kSentinel) << "flipped " << flipped << ", float " << i;
        }
    }
    // Past 2^24 a float row plus 1 rounds back to itself: the scan must end.
    const int32_t steppable = 1 << 24;
    PLImage tall(1, steppable + 2, 1, PLPixelUChar, 0);
    std::memset(tall.data, 0, static_cast<size_t>(steppable + 2));
    PLWarpTriangle(Flat(0, steppable - 16, 0, 2e7f, 3, 2e7f, 0.5f, 0).data(), 0, src.get(), &tall, 0,
                   steppable + 1);
    for (int32_t y = steppable - 16; y < steppable + 2; ++y)
        EXPECT_EQ(tall.data[y], y > steppable - 16 && y < steppable ? 2 : 0) << "row " << y;
}

TEST(WarpMesh, UnusableInputsLeaveTheTargetAlone) {
    auto src = RampSource(3, 3);
    const auto ones = [](int32_t, int32_t, int32_t) { return 1.0f; };
    auto signedSource = Pattern(3, 3, 1, PLPixelChar, ones);
    auto fiveChannels = Pattern(3, 3, 5, PLPixelFloat, ones);
    auto twoChannels = Pattern(3, 3, 2, PLPixelFloat, ones);
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
        auto dst = Blank(3, 3);
        Mesh m(*src, *dst, 3, 3, 0, 0);
        spoil.second(m.record);
        PLWarpMesh(1.0f, &m.record);
        EXPECT_EQ(RowBytes(*dst), RowBytes(*Blank(3, 3))) << spoil.first;
    }
}

}  // namespace
