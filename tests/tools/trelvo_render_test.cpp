// trelvo-render end to end, as a compositor or a render farm runs it: small
// generated sequences, the process's exit status and its messages, and what
// lands in the output folder.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "cli_rig.h"

namespace {

Outcome RunRender(std::vector<std::string> args,
                  const std::function<void(pid_t, const std::string&)>& whileRunning = nullptr) {
    return RunTool(TRELVO_RENDER_BINARY, std::move(args), whileRunning);
}

class RenderCli : public ToolFolder {
  protected:
    // An 8-bit RGB PNG source and 16-bit RGBA TIFF vectors (all moving right
    // by dx) for each frame.
    void WriteShot(const std::vector<int>& frames, int w, int h, float dx = 8.0f, float maxDisplace = 32.0f) {
        for (int f : frames) {
            std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
            for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>((i * 7 + f * 13) % 251);
            WriteImage(Name("src", f, "png"), OIIO::ImageSpec(w, h, 3, OIIO::TypeDesc::UINT8), rgb.data());
            std::vector<uint16_t> vec(static_cast<size_t>(w) * h * 4);
            const double code = (dx / maxDisplace + 1.0) * 32767.0;
            for (size_t i = 0; i < vec.size(); i += 4) {
                vec[i] = static_cast<uint16_t>(code);
                vec[i + 1] = 32767;
                vec[i + 2] = 0;
                vec[i + 3] = 65535;
            }
            WriteImage(Name("vec", f, "tif"), OIIO::ImageSpec(w, h, 4, OIIO::TypeDesc::UINT16), vec.data());
        }
    }
    std::string Name(const char* stem, int frame, const char* ext) const {
        char name[64];
        std::snprintf(name, sizeof name, "/%s.%04d.%s", stem, frame, ext);
        return dir_ + name;
    }
    std::vector<std::string> Common() const {
        return {"--source", dir_ + "/src.####.png",    "--vectors", dir_ + "/vec.%04d.tif",
                "--output", dir_ + "/out/res.####.png"};
    }
    std::vector<std::string> With(std::vector<std::string> extra) const {
        std::vector<std::string> args = Common();
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }
};

TEST_F(RenderCli, AFrameRangeRendersEveryFrameOfIt) {
    WriteShot({1, 2, 3, 4, 5}, 48, 20);
    Outcome run = RunRender(With({"--frames", "2-4", "--amount", "1"}));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Listing(dir_ + "/out"),
              (std::vector<std::string>{"res.0002.png", "res.0003.png", "res.0004.png"}));
    OIIO::ImageBuf written(dir_ + "/out/res.0003.png");
    ASSERT_TRUE(written.init_spec(written.name(), 0, 0));
    EXPECT_EQ(written.nativespec().format, OIIO::TypeDesc::UINT8)
        << "the Output's depth follows the 8-bit source";
    EXPECT_EQ(written.nativespec().nchannels, 4);
    EXPECT_NE(run.err.find("frame 4 (3/3) -> " + dir_ + "/out/res.0004.png"), std::string::npos) << run.err;

    // Without a range: every source frame on disk; a step; a list.
    run = RunRender(With({"--frames", "1-5x2", "--depth", "16"}));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Listing(dir_ + "/out").size(), 5u);
    OIIO::ImageBuf sixteen(dir_ + "/out/res.0005.png");
    ASSERT_TRUE(sixteen.init_spec(sixteen.name(), 0, 0));
    EXPECT_EQ(sixteen.nativespec().format, OIIO::TypeDesc::UINT16);
}

TEST_F(RenderCli, AMissingVectorFrameStopsTheJobBeforeAnyFrame) {
    WriteShot({1, 2, 3, 4}, 16, 8);
    std::remove(Name("vec", 3, "tif").c_str());
    Outcome run = RunRender(Common());
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("vector frame 3 is missing: " + Name("vec", 3, "tif")), std::string::npos)
        << run.err;
    EXPECT_TRUE(Listing(dir_ + "/out").empty()) << "nothing renders";

    run = RunRender(With({"--frames", "4-6"}));
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("source frame 5 is missing: " + Name("src", 5, "png")), std::string::npos)
        << run.err;
}

TEST_F(RenderCli, BadOptionsAndParametersAreNamed) {
    WriteShot({1}, 16, 8);
    struct Case {
        std::vector<std::string> extra;
        std::string message;
    } cases[] = {
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
    };
    for (const Case& c : cases) {
        Outcome run = RunRender(With(c.extra));
        EXPECT_EQ(run.status, 2) << c.message;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    }
    EXPECT_TRUE(Listing(dir_ + "/out").empty());
}

TEST_F(RenderCli, TheOutputFolderMustExistAndBeWritable) {
    WriteShot({1}, 16, 8);
    Outcome run = RunRender({"--source", Name("src", 1, "png"), "--vectors", Name("vec", 1, "tif"),
                             "--output", dir_ + "/nowhere/res.png"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("the folder '" + dir_ + "/nowhere' does not exist"), std::string::npos) << run.err;

    if (geteuid() != 0) {  // root writes anywhere
        chmod((dir_ + "/out").c_str(), 0555);
        run = RunRender({"--source", Name("src", 1, "png"), "--vectors", Name("vec", 1, "tif"), "--output",
                         dir_ + "/out/res.png"});
        chmod((dir_ + "/out").c_str(), 0755);
        EXPECT_EQ(run.status, 2);
        EXPECT_NE(run.err.find("is not writable"), std::string::npos) << run.err;
    }
    // Many frames need a pattern in the output name.
    WriteShot({2}, 16, 8);
    run = RunRender({"--source", dir_ + "/src.####.png", "--vectors", dir_ + "/vec.####.tif", "--output",
                     dir_ + "/out/res.png"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("needs a frame pattern"), std::string::npos) << run.err;
}

// Ctrl-C inside a slow frame: the plug-in is told to abort through the
// host, the orange frame is not written, nothing partial stays behind.
TEST_F(RenderCli, SigintInsideAFrameLeavesNoPartialFile) {
    WriteShot({1, 2}, 900, 300, 1000.0f, 1000.0f);
    bool sent = false;
    Outcome run = RunRender(With({"--max-displace", "1000", "--amount", "10", "--threads", "1"}),
                            [&](pid_t pid, const std::string& err) {
                                if (!sent && err.find("frame 1 (1/2) rendering") != std::string::npos) {
                                    std::this_thread::sleep_for(std::chrono::milliseconds(300));
                                    kill(pid, SIGINT);
                                    sent = true;
                                }
                            });
    ASSERT_TRUE(sent) << run.err;
    EXPECT_EQ(run.status, 130) << run.err;
    EXPECT_NE(run.err.find("interrupted"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("-> "), std::string::npos) << "no frame finished: " << run.err;
    EXPECT_TRUE(Listing(dir_ + "/out").empty());
}

}  // namespace
