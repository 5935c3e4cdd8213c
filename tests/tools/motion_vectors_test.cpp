// Motion in pixels on its way to the plug-in: renderers' conventions, the
// encoding, and channels found by name in a real Blender render and in parts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <limits>

#include "channel_layout.h"
#include "image_file.h"
#include "motion_pass.h"
#include "vector_encoding.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Plain components, y down, scaled by -0.5; a mask marks known at 0.5 and up.
// (Blender's convention: on a real render below, and end to end.)
TEST(MotionPass, PlainComponentsTurnIntoOurs) {
    RawVectors m;
    const std::vector<float> u = {4, -8, 1, kInf}, v = {2, 6, -1, 0}, cover = {0.5f, 0.49f, kNaN, 1};
    const MotionPass plain{MotionPass::Kind::Components, {}, true, -0.5};
    convertMotionPass(plain, 4, 1, {u.data(), v.data(), cover.data()}, m);
    EXPECT_EQ(m.known, (std::vector<uint8_t>{1, 0, 0, 0}));
    EXPECT_EQ(m.dx, (std::vector<float>{-2, 0, 0, 0})) << "a hole carries no motion";
    EXPECT_EQ(m.dy[0], 1.0f) << "flipped, then scaled";
    convertMotionPass(plain, 4, 1, {u.data(), v.data()}, m);
    EXPECT_EQ(m.known, (std::vector<uint8_t>{1, 1, 1, 0})) << "no mask: all known but the infinite one";
}

TEST(VectorEncoding, MaxDisplacementIsTheSmallestPowerOfTwoThatHoldsTheField) {
    const struct {
        double largest, m;
    } cases[] = {{0.0, 1.0},   {1e-9, 1.0 / 1024}, {0.75, 1.0},    {1.0, 1.0},        {1.01, 2.0},
                 {13.5, 16.0}, {64.0, 64.0},       {8192, 8192.0}, {8192.5, 10000.0}, {1e9, 10000.0}};
    for (const auto& c : cases) EXPECT_EQ(maxDisplaceFor(c.largest), c.m) << c.largest;
    RawVectors m{3, 1, {-3.0f, 1.0f, 100.0f}, {0.5f, -6.5f, kNaN}, {1, 1, 0}};
    EXPECT_EQ(largestComponent(m), 6.5) << "holes don't count";
}

template <typename T>
std::string WhyNone(PixelDepth depth, const std::vector<T>& alphas) {
    HostPixels clip;
    clip.width = static_cast<int>(alphas.size());
    clip.height = 1;
    clip.depth = depth;
    clip.data.assign(clip.rowBytes(), 0);
    for (size_t x = 0; x < alphas.size(); ++x)
        std::memcpy(&clip.data[(x * 4 + 3) * sizeof(T)], &alphas[x], sizeof(T));
    return whyNoKnownVector(clip);
}

TEST(VectorEncoding, AClipWithNoKnownVectorSaysWhy) {
    EXPECT_EQ(WhyNone<float>(PixelDepth::Float, {0.5f, 1.0f}), "");
    EXPECT_EQ(WhyNone<float>(PixelDepth::Float, {0.999f, 0.0f}),
              "alpha is exactly 1 nowhere (largest alpha 0.999)");
    EXPECT_EQ(WhyNone<float>(PixelDepth::Float, {1.5f, kNaN}),
              "alpha is exactly 1 nowhere (largest alpha 1.5; alpha above 1 is a hole too)");
    EXPECT_EQ(WhyNone<uint8_t>(PixelDepth::Byte, {254, 3}), "alpha is 255 nowhere (largest alpha 254)");
    EXPECT_EQ(WhyNone<uint16_t>(PixelDepth::Short, {65534}), "alpha is 65535 nowhere (largest alpha 65534)");
    EXPECT_EQ(WhyNone<uint16_t>(PixelDepth::Short, {65535}), "");
}

// blender_cube.0002.exr, rendered by Blender 3.4 from blender_cube.py: a cube
// at the centre that moved 10 px right and 5 px up to this frame and moves
// 20 px right and 10 px up to the next.
TEST(MotionPass, ARealBlenderRenderReadsAsForwardMotionWithYUp) {
    const std::string path = TRELVO_TOOLS_TEST_DATA "/blender_cube.0002.exr";
    ChannelLayout layout;
    std::string error;
    ASSERT_TRUE(layout.read(path, error)) << error;
    EXPECT_EQ(layout.layersWith({"Vector.X", "Vector.Y", "Vector.Z", "Vector.W"}),
              std::vector<std::string>{"ViewLayer"});
    EXPECT_EQ(layout.listing(), "    ViewLayer.Combined: R, G, B, A\n    ViewLayer.Vector: X, Y, Z, W\n");
    const MotionPass pass{
        MotionPass::Kind::BlenderVector,
        {"ViewLayer.Vector.X", "ViewLayer.Vector.Y", "ViewLayer.Vector.Z", "ViewLayer.Vector.W"},
        false,
        1.0};
    RawVectors m;
    ASSERT_TRUE(readMotionPass(path, pass, 1.0, m, error)) << error;
    ASSERT_EQ(m.width, 160);
    ASSERT_EQ(m.height, 90);
    const size_t centre = (89 - 45) * 160 + 80, corner = (89 - 5) * 160 + 5;  // file rows run top down
    EXPECT_NEAR(m.dx[centre], 15.0f, 1e-4);
    EXPECT_NEAR(m.dy[centre], 7.5f, 1e-4);
    EXPECT_EQ(m.dx[corner], 0.0f);
    EXPECT_EQ(m.dy[corner], 0.0f);
}

TEST(ChannelLayout, AMultiPartFileIsReadByPartAndChannelName) {
    const std::string path = "/tmp/trelvo-multipart-" + std::to_string(getpid()) + ".exr";
    OIIO::ImageSpec parts[2] = {{2, 1, 4, OIIO::TypeDesc::FLOAT}, {2, 1, 2, OIIO::TypeDesc::FLOAT}};
    parts[0].attribute("oiio:subimagename", "beauty");
    parts[1].attribute("oiio:subimagename", "motion");
    parts[1].channelnames = {"u", "v"};
    const float rgba[8] = {1, 2, 3, 4, 5, 6, 7, 8}, uv[4] = {-1.5f, 2.0f, 0.25f, -4.0f};
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out && out->open(path, 2, parts) && out->write_image(OIIO::TypeDesc::FLOAT, rgba) &&
                out->open(path, parts[1], OIIO::ImageOutput::AppendSubimage) &&
                out->write_image(OIIO::TypeDesc::FLOAT, uv) && out->close());

    ChannelLayout layout;
    std::string error;
    ASSERT_TRUE(layout.read(path, error)) << error;
    EXPECT_EQ(layout.parts(), 2);
    EXPECT_EQ(layout.listing(), "    beauty: R, G, B, A\n    motion: u, v\n");
    std::vector<int> picked;
    int part;
    EXPECT_FALSE(layout.resolve({"beauty.R", "motion.u"}, part, picked, error));
    EXPECT_THAT(error, testing::HasSubstr("different parts"));
    ChannelPlanes planes;
    ASSERT_TRUE(readChannelPlanes(path, {"motion.v", "motion.u"}, 1.0, planes, error)) << error;
    EXPECT_EQ(planes.planes[0], (std::vector<float>{2.0f, -4.0f}));
    EXPECT_EQ(planes.planes[1], (std::vector<float>{-1.5f, 0.25f}));
    HostPixels picture;
    ASSERT_TRUE(readHostPixels(path, {1.0, false, {"motion.u", "motion.v", "", ""}}, picture, error))
        << error;
    EXPECT_EQ(picture.at(1, 0, 0), 0.25f);
    EXPECT_EQ(picture.at(1, 0, 2), 0.0f);
    EXPECT_EQ(picture.at(1, 0, 3), 1.0f) << "no alpha named: opaque";
    EXPECT_EQ(picture.alpha, AlphaState::Opaque);
    std::remove(path.c_str());
}

}  // namespace
