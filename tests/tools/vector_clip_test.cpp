// trelvo-vectors' job: costly motion (estimated from footage) is made once
// for the two passes, kept in a temporary file that leaves nothing behind,
// and the clip written from what was kept is the clip written from motion
// made afresh.
#include "vector_clip.h"

#include <OpenImageIO/imagebuf.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

// Motion that counts how often each frame is made: a turn, with a hole in
// frame 2.
class CountingMotion : public MotionSource {
  public:
    bool read(int frame, double, RawVectors& motion, std::string&) override {
        ++made[frame];
        motion.width = 7;
        motion.height = 5;
        motion.dx.clear();
        motion.dy.clear();
        for (int y = 0; y < motion.height; ++y)
            for (int x = 0; x < motion.width; ++x) {
                motion.dx.push_back(-(y - 2) * 0.37f * frame);
                motion.dy.push_back((x - 3) * 0.37f * frame);
            }
        motion.known.assign(motion.size(), 1);
        if (frame == 2)
            motion.known[9] = 0;
        else
            motion.known.clear();
        return true;
    }
    std::string name(int frame) const override { return "motion " + std::to_string(frame); }
    std::string whyNoneKnown() const override { return "none"; }
    std::map<int, int> made;
};

std::vector<std::string> Files(const std::string& folder) {
    std::vector<std::string> names;
    DIR* d = opendir(folder.c_str());
    while (dirent* e = d ? readdir(d) : nullptr)
        if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
    if (d) closedir(d);
    return names;
}

std::vector<float> Pixels(const std::string& path) {
    OIIO::ImageBuf image(path);
    std::vector<float> px(7 * 5 * 4, -1.0f);
    EXPECT_TRUE(image.get_pixels(OIIO::ROI(0, 7, 0, 5, 0, 1, 0, 4), OIIO::TypeDesc::FLOAT, px.data()))
        << path;
    return px;
}

TEST(VectorClip, KeptMotionIsMadeOnceLeavesNoFileAndWritesTheSameClip) {
    char folder[] = "/tmp/trelvo-vector-clip-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string dir = folder;
    std::string error;
    VectorClipJob job;
    job.frames = {3, 1, 2};
    for (const bool keep : {true, false}) {
        ASSERT_TRUE(job.output.parse(dir + (keep ? "/kept.####.exr" : "/fresh.####.exr"), error)) << error;
        job.keepMotion = keep;
        CountingMotion motion;
        ASSERT_EQ(writeVectorClip(job, motion, ProgressReport::Style::Quiet), 0);
        const int times = keep ? 1 : 2;
        EXPECT_EQ(motion.made, (std::map<int, int>{{1, times}, {2, times}, {3, times}})) << "keep " << keep;
    }
    EXPECT_EQ(Files(dir).size(), 6u) << "three frames each, no temporary file";
    for (const char* frame : {".0001.exr", ".0002.exr", ".0003.exr"})
        EXPECT_EQ(Pixels(dir + "/kept" + frame), Pixels(dir + "/fresh" + frame)) << frame;
    // Pixel 9, bottom row first, is (2, 1): row 3 of the file, which runs top down.
    EXPECT_EQ(Pixels(dir + "/kept.0002.exr")[(3 * 7 + 2) * 4 + 3], 0.0f) << "the hole is kept";
    for (const std::string& name : Files(dir)) std::remove((dir + "/" + name).c_str());
    rmdir(dir.c_str());
}

}  // namespace
