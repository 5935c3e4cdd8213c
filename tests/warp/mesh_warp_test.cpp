// Off the plug-in's path: a uniform flow moves every member's pixels by whole cells.
#include "warp/mesh_warp.h"

#include "common/library.h"

namespace {

TEST(WarpMesh, UniformFlowsInEveryMember) {
    const float sentinel = 250.0f;
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
                    ImagePtr src = Pattern(6, 5, channels, sourceType, value);
                    ImagePtr dst =
                        Pattern(6, 5, 4, targetType, [=](int32_t, int32_t, int32_t) { return sentinel; });
                    ImagePtr flow = UniformFlow(5 * f.scale + 1, 4 * f.scale + 1, float(f.dx * f.scale),
                                                float(f.dy * f.scale));
                    // Mesh height 5 and extent 6, a 6 x 5 grid; reserved0 is cleared.
                    PLMeshWarp record{{},          src.get(),    dst.get(), 7, 0, flow.get(), 0,
                                      flow->width, flow->height, 5,         6, 6, 5};
                    PLWarpMesh(1.0f, &record);
                    EXPECT_EQ(record.reserved0, 0u);
                    // Source pixel (sx, sy) lands at (sx + dx, sy + dy); the source's last
                    // row only where it lands on the last row, by the closing pass.
                    for (int32_t y = 0; y < 5; ++y)
                        for (int32_t x = 0; x < 6; ++x) {
                            const int32_t sx = x - f.dx, sy = y - f.dy;
                            const bool covered =
                                sx >= 0 && sx < 6 && sy >= 0 && (sy < 4 || (sy == 4 && y == 4));
                            for (int32_t c = 0; c < 4; ++c)
                                ASSERT_EQ(Value(*dst, x, y, c),
                                          covered && c < channels ? value(sx, sy, c) : sentinel)
                                    << "at " << x << "," << y << "," << c;
                        }
                }
}

}  // namespace
