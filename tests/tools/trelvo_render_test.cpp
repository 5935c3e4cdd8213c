// trelvo-render end to end: exit status, messages, and the output folder.
#include <sys/stat.h>

#include "cli_rig.h"

namespace {

class RenderCli : public ToolFolder {
  protected:
    // An 8-bit RGB PNG source and 16-bit RGBA TIFF vectors (all moving right
    // by dx) for each frame.
    void WriteShot(const std::vector<int>& frames, int w, int h, float dx = 8.0f, float maxDisplace = 32.0f) {
        const uint16_t vector[4] = {static_cast<uint16_t>((dx / maxDisplace + 1.0) * 32767.0), 32767, 0,
                                    65535};
        for (int f : frames) {
            std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
            for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>((i * 7 + f * 13) % 251);
            WriteImage(Seq("src", f, "png"), OIIO::ImageSpec(w, h, 3, OIIO::TypeDesc::UINT8), rgb.data());
            std::vector<uint16_t> vec;
            for (int i = 0; i < w * h; ++i) vec.insert(vec.end(), vector, vector + 4);
            WriteImage(Seq("vec", f, "tif"), OIIO::ImageSpec(w, h, 4, OIIO::TypeDesc::UINT16), vec.data());
        }
    }
    // The shot rendered into out/res.####.png; later options win.
    std::vector<std::string> Args(const std::vector<std::string>& extra) const {
        std::vector<std::string> args = {"--source",  dir_ + "/src.####.png",
                                         "--vectors", dir_ + "/vec.%04d.tif",
                                         "--output",  dir_ + "/out/res.####.png"};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }
    Outcome Render(const std::vector<std::string>& extra) {
        return RunTool(TRELVO_RENDER_BINARY, Args(extra));
    }
    std::string Format(const std::string& path) {
        OIIO::ImageBuf written(path);
        EXPECT_TRUE(written.init_spec(path, 0, 0)) << path;
        return written.nativespec().format.c_str() + std::to_string(written.nativespec().nchannels);
    }
};

TEST_F(RenderCli, FramesAndDepthOfTheOutput) {
    WriteShot({1, 2, 3, 4, 5}, 48, 20);
    Outcome run = Render({"--frames", "2-4", "--amount", "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Listing(dir_ + "/out"),
              (std::vector<std::string>{"res.0002.png", "res.0003.png", "res.0004.png"}));
    EXPECT_EQ(Format(dir_ + "/out/res.0003.png"), "uint84") << "the depth follows the 8-bit source";
    EXPECT_THAT(run.err, HasSubstr("frame 4 (3/3) -> " + dir_ + "/out/res.0004.png"));

    run = Render({"--frames", "1-5x2", "--depth", "16"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Listing(dir_ + "/out").size(), 5u) << "1, 3 and 5 added";
    EXPECT_EQ(Format(dir_ + "/out/res.0005.png"), "uint164");
}

// Each refusal is found before the first frame, names the problem and exits 2.
TEST_F(RenderCli, RefusalsNameTheProblemBeforeAnyFrame) {
    WriteShot({1, 2, 3, 4}, 16, 8);
    WriteImage(Seq("huge", 1, "ppm"), OIIO::ImageSpec(16, 8, 3, OIIO::TypeDesc::UINT8),
               std::vector<uint8_t>(16 * 8 * 3).data());
    WriteClaimingPpm(Seq("huge", 2, "ppm"), 100000, 100000);
    const struct {
        std::vector<std::string> extra;
        std::string said;
    } cases[] = {
        {{"--vectors", dir_ + "/none.####.tif", "--frames", "2"},
         "vector frame 2 is missing: " + Seq("none", 2, "tif")},
        {{"--frames", "4-6"}, "source frame 5 is missing: " + Seq("src", 5, "png")},
        {{"--vectors", dir_ + "/huge.####.ppm", "--frames", "1-2"},
         Seq("huge", 2, "ppm") + ": its header gives a frame of 100000 x 100000 pixels"},
        {{"--bogus"}, "unknown option '--bogus'"},
        {{"--amount", "lots"}, "option '--amount': 'lots' is not a number"},
        {{"--frames", "1-x"}, "--frames '1-x'"},
        {{"--depth", "12"}, "option '--depth': '12' is not 8, 16, half or float"},
        {{"--proxy", "2"}, "option '--proxy': '2' is not a scale in (0, 1]"},
        {{"--param", "valBlur=1"}, "unknown parameter 'valBlur'"},
        {{"--param", "valMBAmount"}, "'valMBAmount' is not NAME=NUMBER"},
        {{"--amount", "10.5"}, "--amount 10.5: valMBAmount (Blur Amount) must be from -2 to 10"},
        {{"--param", "valMaxDisplace=-1"}, "valMaxDisplace (Max Displacement) must be from 0 to 10000"},
        {{"--scale-y", "-2.01"}, "valVecScaleY (Vector Scale Y) must be from -2 to 10"},
        {{"--frames", "1", "--output", dir_ + "/nowhere/res.####.png"},
         "the folder '" + dir_ + "/nowhere' does not exist"},
        {{"--frames", "1-2", "--output", dir_ + "/out/res.png"}, "needs a frame pattern"},
    };
    for (const auto& c : cases) ExpectRefused(Render(c.extra), c.said);
    if (geteuid() != 0) {  // root writes anywhere
        chmod((dir_ + "/out").c_str(), 0555);
        const Outcome run = Render({"--frames", "1"});
        chmod((dir_ + "/out").c_str(), 0755);
        ExpectRefused(run, "is not writable");
    }
}

// Ctrl-C inside a slow frame: the plug-in is told to abort through the
// host, the frame is not written, nothing partial stays behind.
TEST_F(RenderCli, SigintInsideAFrameLeavesNoPartialFile) {
    WriteShot({1, 2}, 900, 300, 1000.0f, 1000.0f);
    const Outcome run = Interrupted(TRELVO_RENDER_BINARY,
                                    Args({"--max-displace", "1000", "--amount", "10", "--threads", "1"}),
                                    "frame 1 (1/2) rendering", 300);
    ExpectRefused(run, "interrupted", 130);
    EXPECT_EQ(run.err.find("-> "), std::string::npos) << "no frame finished: " << run.err;
}

}  // namespace
