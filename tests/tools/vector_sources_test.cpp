// Vectors from anywhere, end to end: a Blender multilayer render, a pass in
// pixels with y down and a coverage mask, and the clip trelvo-vectors
// writes, each rendered through the plug-in and compared bit for bit with
// the same motion given in the plug-in's encoding. The motion is in
// multiples of 1/8 px and M = 8, so encoding and decoding are exact and any
// difference is a fault.
#include <functional>
#include <utility>

#include "cli_rig.h"

namespace {

constexpr int kW = 64, kH = 48;

// A function of the column and of the row counted up from the bottom.
using Field = std::function<float(int x, int yUp)>;
using Channels = std::vector<std::pair<std::string, Field>>;
using Args = std::vector<std::string>;

struct Motion {
    Field dx, dy;
};

// Frame 1: a translation; frame 2: a turn about (32, 24) by 1/8 radian per frame.
Motion MotionOf(int frame) {
    if (frame == 1) return {[](int, int) { return 5.25f; }, [](int, int) { return -2.5f; }};
    return {[](int, int y) { return -(y - 24) / 8.0f; }, [](int x, int) { return (x - 32) / 8.0f; }};
}

// A picture's R, G, B and A under the given prefix.
Channels Beauty(const std::string& prefix) {
    Channels channels;
    for (int c = 0; c < 4; ++c)
        channels.push_back({prefix + "RGBA"[c], [c](int x, int y) {
                                return c == 3 ? 1.0f
                                              : static_cast<float>((x * 7 + y * 13 + c * 5) % 17) / 16.0f;
                            }});
    return channels;
}

// Blender's vector pass for `frame`'s motion: X,Y = previous - current and
// Z,W = current - next, y up, with an acceleration (1.5, 0.75) between.
Channels BlenderPass(int frame, const std::string& prefix, const std::string& names = "XYZW") {
    const Motion m = MotionOf(frame);
    Channels pass;
    for (size_t k = 0; k < names.size(); ++k) {
        const Field d = k % 2 ? m.dy : m.dx;
        const float change = (k < 2 ? -1.0f : 1.0f) * (k % 2 ? 0.75f : 1.5f);
        pass.push_back({prefix + names[k], [d, change](int x, int y) { return -(d(x, y) + change); }});
    }
    return pass;
}

Field Constant(float v) {
    return [v](int, int) { return v; };
}

Channels operator+(Channels a, const Channels& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Args With(Args a, const Args& more) {
    a.insert(a.end(), more.begin(), more.end());
    return a;
}

// The pass in pixels as read from `file`.
Args Pass(const std::string& file) {
    return {"--vectors", file, "--vector-units", "pixels", "--vector-channels", "u,v,cover"};
}

class VectorSources : public ToolFolder {
  protected:
    // A float EXR with the named channels.
    void WriteExr(const std::string& name, const Channels& channels) {
        const int n = static_cast<int>(channels.size());
        OIIO::ImageSpec header(kW, kH, n, OIIO::TypeDesc::FLOAT);
        header.channelnames.clear();
        for (const auto& c : channels) header.channelnames.push_back(c.first);
        header.alpha_channel = -1;
        std::vector<float> px;
        for (int row = 0; row < kH; ++row)
            for (int x = 0; x < kW; ++x)
                for (int c = 0; c < n; ++c) px.push_back(channels[c].second(x, kH - 1 - row));
        WriteImage(dir_ + "/" + name, header, px.data());
    }
    // A Blender render of `frame` with a beauty and a vector pass in each layer.
    void WriteBlender(const std::string& name, int frame,
                      const std::vector<std::string>& layers = {"ViewLayer"}) {
        Channels channels;
        for (const std::string& layer : layers)
            channels = channels + Beauty(layer + ".Combined.") + BlenderPass(frame, layer + ".Vector.");
        WriteExr(name, channels);
    }
    // Frames 1 and 2 as a Blender render, a plain picture, the Blender pass
    // alone as RGBA, a pass in pixels with y down whose mask leaves x < 16
    // unknown, and the plug-in's float encoding (M = 8) without and with those holes.
    void WriteShot() {
        for (int f : {1, 2}) {
            const std::string frame = ".000" + std::to_string(f) + ".exr";
            const Motion m = MotionOf(f);
            WriteBlender("beauty" + frame, f);
            WriteExr("src" + frame, Beauty(""));
            WriteExr("rgba" + frame, BlenderPass(f, "", "RGBA"));
            WriteExr("pass" + frame, {{"u", m.dx},
                                      {"v", [m](int x, int y) { return -m.dy(x, y); }},
                                      {"cover", [](int x, int) { return x < 16 ? 0.25f : 0.5f; }}});
            for (const bool holes : {false, true}) {
                auto hole = [holes](int x) { return holes && x < 16; };
                auto encode = [hole](const Field& d) {
                    return [hole, d](int x, int y) { return hole(x) ? 0.5f : 0.5f + d(x, y) / 16.0f; };
                };
                WriteExr((holes ? "holes" : "enc") + frame,
                         {{"R", encode(m.dx)},
                          {"G", encode(m.dy)},
                          {"B", Constant(0)},
                          {"A", [hole](int x, int) { return hole(x) ? 0.0f : 1.0f; }}});
            }
        }
    }
    std::vector<float> Pixels(const std::string& name) { return FilePixels(dir_ + "/" + name); }
    // Runs a tool with the file names of --source, --vectors and --output in the scratch folder.
    Outcome Run(const char* binary, Args args) {
        for (size_t i = 1; i < args.size(); ++i)
            if (args[i - 1] == "--source" || args[i - 1] == "--vectors" || args[i - 1] == "--output")
                args[i] = dir_ + "/" + args[i];
        return RunTool(binary, args);
    }
    Outcome Render(const Args& args) { return Run(TRELVO_RENDER_BINARY, With(args, {"--amount", "1"})); }
    Outcome Vectors(const Args& args) { return Run(TRELVO_VECTORS_BINARY, args); }
};

TEST_F(VectorSources, EachKindBlursLikeTheSameVectorsEncoded) {
    WriteShot();
    // trelvo-vectors writes one M for the clip, says it, and stores it.
    Outcome run =
        Vectors({"--vectors", "beauty.####.exr", "--vectors-from", "blender", "--output", "out/mv.####.exr"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err, HasSubstr("Max Displacement: 8\n"));
    // Each row renders src (unless it names another source) into out/<name>
    // and is or is not bit for bit `like` a file rendered before.
    const struct {
        std::string name;
        Args args;
        std::string like;
        bool same = true;
    } rows[] = {
        {"enc", {"--vectors", "enc.####.exr", "--max-displace", "8"}, "src", false},
        {"blender",
         {"--source", "beauty.####.exr", "--vectors", "beauty.####.exr", "--vectors-from", "blender"},
         "out/enc"},
        {"rgba",
         {"--vectors", "rgba.####.exr", "--vectors-from", "blender", "--vector-channels", "R,G,B,A"},
         "out/enc"},
        {"clip",
         {"--source", "beauty.####.exr", "--source-layer", "ViewLayer.Combined", "--vectors",
          "out/mv.####.exr"},
         "out/enc"},
        {"holes", {"--vectors", "holes.####.exr", "--max-displace", "8"}, "out/enc", false},
        {"pass", With(Pass("pass.####.exr"), {"--vector-flip-y"}), "out/holes"},
        {"unflipped", Pass("pass.####.exr"), "out/holes", false},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        run = Render(
            With({"--source", "src.####.exr", "--frames", "1-2", "--output", "out/" + r.name + ".####.exr"},
                 r.args));
        ASSERT_EQ(run.status, 0) << run.err;
        for (const std::string f : {".0001.exr", ".0002.exr"})
            EXPECT_EQ(Pixels("out/" + r.name + f) == Pixels(r.like + f), r.same) << f;
    }
    for (const std::string f : {".0001.exr", ".0002.exr"}) EXPECT_EQ(Pixels("out/mv" + f), Pixels("enc" + f));

    // At 16 bits: c = 32767 + 32767 d / M, rounded, alpha 65535; a hole is 32767 with alpha 0.
    run =
        Vectors(With(Pass("pass.0001.exr"), {"--vector-flip-y", "--output", "out/mv.png", "--depth", "16"}));
    ASSERT_EQ(run.status, 0) << run.err;
    OIIO::ImageSpec asStored;  // straight alpha: a hole's colour is not multiplied away
    asStored.attribute("oiio:UnassociatedAlpha", 1);
    OIIO::ImageBuf png(dir_ + "/out/mv.png", 0, 0, nullptr, &asStored);
    std::vector<uint16_t> row(kW * 4);
    ASSERT_TRUE(png.get_pixels(OIIO::ROI(0, kW, 5, 6, 0, 1, 0, 4), OIIO::TypeDesc::UINT16, row.data()));
    // 32767 * (1 + 5.25 / 8) = 54270.34, 32767 * (1 - 2.5 / 8) = 22527.31
    using ::testing::_;
    EXPECT_THAT(std::vector<uint16_t>(&row[20 * 4], &row[21 * 4]),
                ::testing::ElementsAre(54270, 22527, _, 65535));
    EXPECT_THAT(std::vector<uint16_t>(&row[3 * 4], &row[4 * 4]), ::testing::ElementsAre(32767, 32767, _, 0));
    EXPECT_THAT(png.nativespec().get_string_attribute("ImageDescription"),
                HasSubstr("Max Displacement 8 px"));
}

TEST_F(VectorSources, AClipWithNoKnownVectorWarnsAndStrictStops) {
    WriteExr("src.exr", Beauty(""));
    WriteExr("enc.exr",
             {{"R", Constant(0.75f)}, {"G", Constant(0.5f)}, {"B", Constant(0)}, {"A", Constant(0.999f)}});
    Outcome run = Render({"--source", "src.exr", "--vectors", "enc.exr", "--output", "out/a.exr"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err,
                HasSubstr("warning: frame 1: " + dir_ +
                          "/enc.exr has no known vector: alpha is exactly 1 nowhere (largest alpha 0.999)"));
    EXPECT_EQ(Pixels("out/a.exr"), Pixels("src.exr")) << "unblurred, as the warning says";

    run = Render({"--source", "src.exr", "--vectors", "enc.exr", "--output", "out/b.exr", "--strict"});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_THAT(run.err, HasSubstr("Stopped (--strict)"));
    EXPECT_EQ(Listing(dir_ + "/out"), std::vector<std::string>{"a.exr"});
}

TEST_F(VectorSources, FilesThatDontFitStopTheJobBeforeItsFirstFrame) {
    WriteShot();
    WriteBlender("two.0001.exr", 1, {"Left", "Right"});
    // Frame 2 of this one lacks W: found before frame 1 renders.
    WriteBlender("late.0001.exr", 1);
    WriteExr("late.0002.exr", Beauty("ViewLayer.Combined.") + BlenderPass(2, "ViewLayer.Vector.", "XYZ"));

    const struct {
        Args args;
        std::vector<std::string> said;
    } cases[] = {
        {{"--source", "late.####.exr", "--vectors", "late.####.exr", "--vectors-from", "blender"},
         {"--vectors-from blender: " + dir_ + "/late.0002.exr has no channel ViewLayer.Vector.W.",
          "    ViewLayer.Vector: X, Y, Z\n"}},
        {{"--source", "beauty.####.exr", "--vectors", "enc.####.exr"},
         {"--source: " + dir_ + "/beauty.0001.exr is not an RGB, RGBA, Y or YA picture.",
          "    ViewLayer.Combined: R, G, B, A\n    ViewLayer.Vector: X, Y, Z, W\n",
          "--source-layer ViewLayer.Combined"}},
        {{"--source", "beauty.####.exr", "--vectors", "beauty.####.exr"},
         {"--vectors: " + dir_ + "/beauty.0001.exr is not", "read it with --vectors-from blender"}},
        {{"--source", "enc.####.exr", "--vectors", "beauty.####.exr", "--vector-units", "pixels",
          "--vector-channels", "ViewLayer.Vector.X,ViewLayer.Vector.Q"},
         {"--vector-channels ViewLayer.Vector.X,ViewLayer.Vector.Q: " + dir_ +
          "/beauty.0001.exr has no channel ViewLayer.Vector.Q."}},
        {{"--source", "two.0001.exr", "--vectors", "two.0001.exr", "--vectors-from", "blender"},
         {"has a Vector pass in several layers: Left, Right. Pick one with --vector-layer NAME."}},
        {{"--source", "enc.####.exr", "--vectors", "enc.####.exr", "--vector-flip-y"},
         {"--vector-flip-y applies to vectors in pixels"}},
        {With({"--source", "src.####.exr", "--max-displace", "4"}, Pass("pass.####.exr")),
         {"--max-displace 4: with vectors in pixels the tool chooses Max Displacement"}},
        // Writing over a file the job reads would lose it.
        {{"--source", "beauty.%04d.exr", "--vectors", "enc.####.exr", "--output", "beauty.####.exr"},
         {"--output: frame 1 would overwrite " + dir_ + "/beauty.0001.exr, which the job reads"}},
    };
    for (const auto& c : cases) {
        const Outcome run = Render(With({"--output", "out/o.####.exr"}, c.args));
        for (const std::string& text : c.said) ExpectRefused(run, text);
    }
    ExpectRefused(
        Vectors({"--vectors", "beauty.####.exr", "--vectors-from", "blender", "--output", "beauty.####.exr"}),
        "--output: frame 1 would overwrite " + dir_ + "/beauty.0001.exr, which the job reads");
    const Outcome run = Render({"--source", "two.0001.exr", "--vectors", "two.0001.exr", "--vectors-from",
                                "blender", "--vector-layer", "Right", "--output", "out/right.exr"});
    EXPECT_EQ(run.status, 0) << run.err;
}

}  // namespace
