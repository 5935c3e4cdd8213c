// Vectors from plain footage, end to end: synthetic footage with known
// motion written as a sequence, its motion estimated by trelvo-render
// --vectors estimate and by trelvo-vectors. The render blurs exactly as the
// clip trelvo-vectors writes; a frame's neighbours outside the frames asked
// for are used, and the footage's ends are one-sided; options that describe
// a vector clip are refused; Ctrl-C while a frame is estimated leaves nothing.
#include <signal.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "cli_rig.h"
#include "image_file.h"
#include "moving_texture.h"

namespace {

class FromFootage : public ToolFolder {
  protected:
    // Scene times 0, 1, ... as files plate.0001.exr, plate.0002.exr, ...
    void WriteFootage(const MovingScene& scene, int count) {
        for (int t = 0; t < count; ++t) {
            std::string error;
            ASSERT_TRUE(writeHostPixels(Path("plate", t + 1), RenderScene(scene, t), {"float", ""}, error))
                << error;
        }
    }
    std::string Path(const std::string& stem, int frame) const {
        char name[32];
        std::snprintf(name, sizeof name, ".%04d.exr", frame);
        return dir_ + "/" + stem + name;
    }
    Outcome Render(std::vector<std::string> args) {
        args.insert(args.begin(), {"--source", dir_ + "/plate.####.exr"});
        return RunTool(TRELVO_RENDER_BINARY, std::move(args));
    }
    Outcome Vectors(std::vector<std::string> args) {
        args.insert(args.begin(), {"--source", dir_ + "/plate.####.exr"});
        return RunTool(TRELVO_VECTORS_BINARY, std::move(args));
    }
};

// The median of dx and dy over the known vectors of a clip's frame, away
// from its border, decoded with the M its file says.
void MedianMotion(const std::string& path, double& dx, double& dy, double& known) {
    OIIO::ImageBuf clip(path);
    ASSERT_TRUE(clip.init_spec(path, 0, 0)) << path;
    const float m = clip.nativespec().get_float_attribute("trelvo:MaxDisplace", 0.0f);
    ASSERT_GT(m, 0.0f) << path;
    const int w = clip.nativespec().width, h = clip.nativespec().height;
    std::vector<float> px(static_cast<size_t>(w) * h * 4);
    ASSERT_TRUE(clip.get_pixels(clip.roi(), OIIO::TypeDesc::FLOAT, px.data()));
    std::vector<double> xs, ys;
    size_t inside = 0;
    for (int y = 8; y < h - 8; ++y)
        for (int x = 8; x < w - 8; ++x) {
            const float* p = &px[(static_cast<size_t>(y) * w + x) * 4];
            ++inside;
            if (p[3] != 1.0f) continue;
            xs.push_back((2.0 * p[0] - 1.0) * m);
            ys.push_back((2.0 * p[1] - 1.0) * m);
        }
    ASSERT_FALSE(xs.empty()) << path << " has no known vector";
    std::nth_element(xs.begin(), xs.begin() + xs.size() / 2, xs.end());
    std::nth_element(ys.begin(), ys.begin() + ys.size() / 2, ys.end());
    dx = xs[xs.size() / 2];
    dy = ys[ys.size() / 2];
    known = double(xs.size()) / double(inside);
}

TEST_F(FromFootage, RenderingBlursExactlyAsTheClipTrelvoVectorsWrites) {
    // Every frame's largest vector lies between 2 and 4 px, so the M that
    // trelvo-render chooses per frame is the clip's M of trelvo-vectors, and
    // the two roads encode the same floats.
    MovingScene scene;
    scene.width = 96;
    scene.height = 64;
    scene.vx = 2.6;
    scene.vy = -1.3;
    WriteFootage(scene, 4);
    // With a preset of the flow other than the default: both tools take it.
    Outcome run = Vectors({"--vectors", "estimate", "--estimate-preset", "fast", "--output",
                           dir_ + "/out/mv.####.exr", "--preview", dir_ + "/out/look.####.png"});
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_NE(run.err.find("Max Displacement: 4\n"), std::string::npos) << run.err;
    OIIO::ImageBuf look(dir_ + "/out/look.0004.png");
    ASSERT_TRUE(look.init_spec(look.name(), 0, 0)) << look.geterror();
    EXPECT_EQ(look.nativespec().width, 96);
    EXPECT_EQ(look.nativespec().format, OIIO::TypeDesc::UINT8);
    run = Render({"--vectors", "estimate", "--estimate-preset", "fast", "--output", dir_ + "/out/a.####.exr",
                  "--amount", "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    run = Render(
        {"--vectors", dir_ + "/out/mv.####.exr", "--output", dir_ + "/out/b.####.exr", "--amount", "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    for (int f = 1; f <= 4; ++f) {
        const std::vector<float> a = FilePixels(Path("out/a", f));
        EXPECT_EQ(a, FilePixels(Path("out/b", f))) << "frame " << f;
        EXPECT_NE(a, FilePixels(Path("plate", f))) << "frame " << f << " is blurred";
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
        Vectors({"--vectors", "estimate", "--frames", "3,1,5", "--output", dir_ + "/out/mv.####.exr"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Listing(dir_ + "/out"),
              (std::vector<std::string>{"mv.0001.exr", "mv.0003.exr", "mv.0005.exr"}));
    const std::pair<int, double> expected[] = {{1, 1.0}, {3, 2.5}, {5, 4.0}};
    for (const auto& [frame, dx] : expected) {
        double mx = 0, my = 0, known = 0;
        MedianMotion(Path("out/mv", frame), mx, my, known);
        EXPECT_NEAR(mx, dx, 0.1) << "frame " << frame;
        EXPECT_NEAR(my, -0.5, 0.1) << "frame " << frame << ": y points up the picture";
        EXPECT_GT(known, 0.9) << "frame " << frame;
    }

    // trelvo-render's frame 3 alone is its frame 3 of the whole footage.
    run = Render({"--vectors", "estimate", "--frames", "3", "--output", dir_ + "/out/one.####.exr"});
    ASSERT_EQ(run.status, 0) << run.err;
    run = Render({"--vectors", "estimate", "--output", dir_ + "/out/all.####.exr"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(FilePixels(Path("out/one", 3)), FilePixels(Path("out/all", 3)));
}

TEST_F(FromFootage, WhatDoesNotFitEstimationIsRefusedBeforeTheFirstFrame) {
    MovingScene scene;
    scene.width = 40;
    scene.height = 32;
    scene.vx = 1;
    // Frames 1-3, a wider frame 4, no frame 5, and frame 6.
    WriteFootage(scene, 3);
    std::string error;
    ASSERT_TRUE(writeHostPixels(Path("plate", 6), RenderScene(scene, 5), {"float", ""}, error)) << error;
    scene.width = 41;
    ASSERT_TRUE(writeHostPixels(Path("plate", 4), RenderScene(scene, 3), {"float", ""}, error)) << error;
    const std::string out = dir_ + "/out/o.####.exr";
    const struct {
        bool render;
        std::vector<std::string> args;
        std::string said;
    } cases[] = {
        {true,
         {"--vectors", "estimate", "--max-displace", "4"},
         "--max-displace 4: with --vectors estimate the tool chooses Max Displacement itself"},
        {true,
         {"--vectors", "estimate", "--vector-channels", "R,G"},
         "--vector-channels describes a vector clip; with --vectors estimate the motion comes from the "
         "Source"},
        {true,
         {"--vectors", "estimate", "--vectors-from", "blender"},
         "--vectors-from describes a vector clip"},
        {false, {"--vectors", "estimate", "--vector-flip-y"}, "--vector-flip-y describes a motion pass"},
        {false,
         {"--vectors", "estimate", "--preview", dir_ + "/out/look.exr"},
         "--preview '" + dir_ + "/out/look.exr': write a preview as .png, .jpg or .tif"},
        {true,
         {"--vectors", "estimate", "--frames", "4"},
         "source frame 5 is missing: " + Path("plate", 5) +
             "; the motion of frame 4 is estimated with it (the footage on disk runs 1-6)"},
        {true, {"--vectors", "estimate", "--frames", "7"}, "source frame 7 is missing"},
        {true,
         {"--vectors", Path("plate", 1), "--estimate-preset", "fast"},
         "--estimate-preset applies to --vectors estimate"},
        {false,
         {"--vectors", "estimate", "--estimate-preset", "slow"},
         "option '--estimate-preset': 'slow' is not ultrafast, fast or medium"},
        {false,
         {"--vectors", "estimate", "--frames", "3"},
         Path("plate", 4) + " is 41x32 but " + Path("plate", 2) + " is 40x32"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"--output", out});
        const Outcome run = c.render ? Render(args) : Vectors(args);
        EXPECT_EQ(run.status, 2) << run.err;
        EXPECT_NE(run.err.find(c.said), std::string::npos) << run.err;
    }
    const Outcome single = RunTool(TRELVO_RENDER_BINARY, {"--source", Path("plate", 1), "--vectors",
                                                          "estimate", "--output", dir_ + "/out/o.exr"});
    EXPECT_EQ(single.status, 2);
    EXPECT_NE(single.err.find("is one file; motion is estimated from a sequence"), std::string::npos)
        << single.err;
    const Outcome noSource = RunTool(TRELVO_VECTORS_BINARY, {"--vectors", "estimate", "--output", out});
    EXPECT_EQ(noSource.status, 2);
    EXPECT_NE(noSource.err.find("--vectors estimate needs the footage: --source PATH"), std::string::npos)
        << noSource.err;
    const Outcome sourceOfAPass =
        Vectors({"--vectors", Path("plate", 1), "--vector-units", "pixels", "--output", out});
    EXPECT_EQ(sourceOfAPass.status, 2);
    EXPECT_NE(sourceOfAPass.err.find("--source is the footage of --vectors estimate"), std::string::npos)
        << sourceOfAPass.err;
    EXPECT_TRUE(Listing(dir_ + "/out").empty());
}

// Ctrl-C while the first frame's motion is estimated: exit 130, nothing written.
TEST_F(FromFootage, SigintWhileEstimatingLeavesNoFile) {
    MovingScene scene;
    scene.width = 1280;
    scene.height = 720;
    scene.vx = 3;
    WriteFootage(scene, 2);
    for (const char* binary : {TRELVO_RENDER_BINARY, TRELVO_VECTORS_BINARY}) {
        bool sent = false;
        const Outcome run = RunTool(binary,
                                    {"--source", dir_ + "/plate.####.exr", "--vectors", "estimate",
                                     "--output", dir_ + "/out/o.####.exr"},
                                    [&](pid_t pid, const std::string& err) {
                                        if (!sent && err.find("frame 1 (1/2)") != std::string::npos) {
                                            kill(pid, SIGINT);
                                            sent = true;
                                        }
                                    });
        ASSERT_TRUE(sent) << run.err;
        EXPECT_EQ(run.status, 130) << run.err;
        EXPECT_NE(run.err.find("interrupted"), std::string::npos) << run.err;
        EXPECT_TRUE(Listing(dir_ + "/out").empty()) << binary;
    }
}

}  // namespace
