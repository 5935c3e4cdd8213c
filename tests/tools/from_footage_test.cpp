// Vectors estimated from footage with known motion, by trelvo-render
// --vectors estimate and by trelvo-vectors, end to end.
#include <cmath>

#include "cli_rig.h"
#include "image_file.h"
#include "moving_texture.h"

namespace {

class FromFootage : public ToolFolder {
  protected:
    // Scene time t as plate.<t + 1>.exr, for each t from `first` to `count` - 1.
    void WriteFootage(const MovingScene& scene, int count, int first = 0) {
        for (int t = first; t < count; ++t) {
            std::string error;
            ASSERT_TRUE(writeHostPixels(Seq("plate", t + 1), RenderScene(scene, t), {"float", ""}, error))
                << error;
        }
    }
    Outcome Run(bool render, std::vector<std::string> args) {
        args.insert(args.begin(), {"--source", dir_ + "/plate.####.exr"});
        return RunTool(render ? TRELVO_RENDER_BINARY : TRELVO_VECTORS_BINARY, std::move(args));
    }
};

// The share of a clip frame's pixels, away from its border, whose vector is
// known and within 0.1 px of (dx, dy), decoded with the M its file says.
double ShareNear(const std::string& path, double dx, double dy) {
    OIIO::ImageBuf clip(path);
    const float m = clip.nativespec().get_float_attribute("trelvo:MaxDisplace", 0.0f);
    EXPECT_GT(m, 0.0f) << path;
    const std::vector<float> px = FilePixels(path);
    const int w = clip.nativespec().width, h = clip.nativespec().height;
    int inside = 0, near = 0;
    for (int y = 8; y < h - 8; ++y)
        for (int x = 8; x < w - 8; ++x, ++inside) {
            const float* p = &px[(static_cast<size_t>(y) * w + x) * 4];
            near +=
                p[3] == 1.0f && std::hypot((2.0 * p[0] - 1.0) * m - dx, (2.0 * p[1] - 1.0) * m - dy) <= 0.1;
        }
    return double(near) / inside;
}

TEST_F(FromFootage, RenderingBlursExactlyAsTheClipTrelvoVectorsWrites) {
    // Every frame's largest vector lies between 2 and 4 px, so trelvo-render's
    // M per frame is the clip's M, and the two roads encode the same floats.
    MovingScene scene;
    scene.width = 96;
    scene.height = 64;
    scene.vx = 2.6;
    scene.vy = -1.3;
    WriteFootage(scene, 4);
    // With a preset of the flow other than the default: both tools take it.
    Outcome run = Run(false, {"--vectors", "estimate", "--estimate-preset", "fast", "--output",
                              dir_ + "/out/mv.####.exr", "--preview", dir_ + "/out/look.####.png"});
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_THAT(run.err, HasSubstr("Max Displacement: 4\n"));
    OIIO::ImageBuf look(Seq("out/look", 4, "png"));
    EXPECT_EQ(look.nativespec().width, 96);
    EXPECT_EQ(look.nativespec().format, OIIO::TypeDesc::UINT8);
    run = Run(true, {"--vectors", "estimate", "--estimate-preset", "fast", "--output",
                     dir_ + "/out/a.####.exr", "--amount", "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    run = Run(true, {"--vectors", dir_ + "/out/mv.####.exr", "--output", dir_ + "/out/b.####.exr", "--amount",
                     "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    for (int f = 1; f <= 4; ++f) {
        const std::vector<float> a = FilePixels(Seq("out/a", f));
        EXPECT_EQ(a, FilePixels(Seq("out/b", f))) << "frame " << f;
        EXPECT_NE(a, FilePixels(Seq("plate", f))) << "frame " << f << " is blurred";
    }
}

TEST_F(FromFootage, NeighboursOutsideTheFramesAskedForAndOneSidedEnds) {
    // The background moves by (1, -0.5), (2, -0.5), (3, -0.5), (4, -0.5)
    // from each frame to the next: centred motion through the middle frames
    // is the mean of two of those, at the first and last frame one of them.
    MovingScene scene;
    scene.width = 96;
    scene.height = 80;
    scene.vx = 0.5;
    scene.ax = 1;
    scene.vy = -0.5;
    WriteFootage(scene, 5);
    // Frame 3 alone still sees frames 2 and 4; frame 1 and 5 are the ends.
    Outcome run =
        Run(false, {"--vectors", "estimate", "--frames", "3,1,5", "--output", dir_ + "/out/mv.####.exr"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Listing(dir_ + "/out"),
              (std::vector<std::string>{"mv.0001.exr", "mv.0003.exr", "mv.0005.exr"}));
    for (const auto& [frame, dx] : {std::pair{1, 1.0}, {3, 2.5}, {5, 4.0}})
        EXPECT_GT(ShareNear(Seq("out/mv", frame), dx, -0.5), 0.9) << "frame " << frame << "; y points up";
}

TEST_F(FromFootage, WhatDoesNotFitEstimationIsRefusedBeforeTheFirstFrame) {
    MovingScene scene;
    scene.width = 40;
    scene.height = 32;
    scene.vx = 1;
    // Frames 1-3, a wider frame 4, no frame 5, and frame 6.
    WriteFootage(scene, 3);
    WriteFootage(scene, 6, 5);
    scene.width = 41;
    WriteFootage(scene, 4, 3);
    const std::string out = dir_ + "/out/o.####.exr";
    const struct {
        bool render;
        std::vector<std::string> args;
        std::string said;
    } cases[] = {
        {true,
         {"--max-displace", "4"},
         "--max-displace 4: with --vectors estimate the tool chooses Max Displacement"},
        {true,
         {"--vector-channels", "R,G"},
         "--vector-channels describes a vector clip; with --vectors estimate the motion comes from the "
         "Source"},
        {true, {"--vectors-from", "blender"}, "--vectors-from describes a vector clip"},
        {false, {"--vector-flip-y"}, "--vector-flip-y describes a motion pass"},
        {false,
         {"--preview", dir_ + "/out/look.exr"},
         "--preview '" + dir_ + "/out/look.exr': write a preview as .png, .jpg or .tif"},
        {true,
         {"--frames", "4"},
         "source frame 5 is missing: " + Seq("plate", 5) +
             "; the motion of frame 4 is estimated with it (the footage on disk runs 1-6)"},
        {true, {"--frames", "7"}, "source frame 7 is missing"},
        {true,
         {"--vectors", Seq("plate", 1), "--estimate-preset", "fast"},
         "--estimate-preset applies to --vectors estimate"},
        {false,
         {"--estimate-preset", "slow"},
         "option '--estimate-preset': 'slow' is not ultrafast, fast or medium"},
        {false, {"--frames", "3"}, Seq("plate", 4) + " is 41x32 but " + Seq("plate", 2) + " is 40x32"},
        {true, {"--source", Seq("plate", 1)}, "is one file; motion is estimated from a sequence"},
        {false,
         {"--vectors", Seq("plate", 1), "--vector-units", "pixels"},
         "--source is the footage of --vectors estimate"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = {"--vectors", "estimate", "--output", out};
        args.insert(args.end(), c.args.begin(), c.args.end());
        ExpectRefused(Run(c.render, args), c.said);
    }
    ExpectRefused(RunTool(TRELVO_VECTORS_BINARY, {"--vectors", "estimate", "--output", out}),
                  "--vectors estimate needs the footage: --source PATH");
}

// Ctrl-C while the first frame's motion is estimated: exit 130, nothing written.
TEST_F(FromFootage, SigintWhileEstimatingLeavesNoFile) {
    MovingScene scene;
    scene.width = 1280;
    scene.height = 720;
    scene.vx = 3;
    WriteFootage(scene, 2);
    const Outcome run = Interrupted(
        TRELVO_VECTORS_BINARY,
        {"--source", dir_ + "/plate.####.exr", "--vectors", "estimate", "--output", dir_ + "/out/o.####.exr"},
        "frame 1 (1/2)");
    ExpectRefused(run, "interrupted", 130);
}

}  // namespace
