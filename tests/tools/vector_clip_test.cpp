// trelvo-vectors' job: costly motion is made once for the two passes, kept in
// a temporary file that leaves nothing, and gives the clip made afresh.
#include "vector_clip.h"

#include <map>

#include "cli_rig.h"

namespace {

// Motion that counts how often each frame is made: a turn, with a hole at
// pixel 9 of frame 2.
class CountingMotion : public MotionSource {
  public:
    bool read(int frame, double, RawVectors& motion, std::string&) override {
        ++made[frame];
        motion = {7, 5, {}, {}, {}};
        for (int y = 0; y < motion.height; ++y)
            for (int x = 0; x < motion.width; ++x) {
                motion.dx.push_back(-(y - 2) * 0.37f * frame);
                motion.dy.push_back((x - 3) * 0.37f * frame);
            }
        if (frame == 2) motion.known.assign(motion.size(), 1), motion.known[9] = 0;
        return true;
    }
    std::string name(int frame) const override { return "motion " + std::to_string(frame); }
    std::string whyNoneKnown() const override { return "none"; }
    std::map<int, int> made;
};

class VectorClip : public ToolFolder {};

TEST_F(VectorClip, KeptMotionIsMadeOnceLeavesNoFileAndWritesTheSameClip) {
    std::string error;
    VectorClipJob job;
    job.frames = {3, 1, 2};
    for (const bool keep : {true, false}) {
        ASSERT_TRUE(job.output.parse(dir_ + (keep ? "/kept.####.exr" : "/fresh.####.exr"), error)) << error;
        job.keepMotion = keep;
        CountingMotion motion;
        ASSERT_EQ(writeVectorClip(job, motion, ProgressReport::Style::Quiet), 0);
        const int times = keep ? 1 : 2;
        EXPECT_EQ(motion.made, (std::map<int, int>{{1, times}, {2, times}, {3, times}})) << "keep " << keep;
    }
    EXPECT_EQ(Listing(dir_).size(), 6u) << "three frames each, no temporary file";
    for (int frame : {1, 2, 3})
        EXPECT_EQ(FilePixels(Seq("kept", frame)), FilePixels(Seq("fresh", frame))) << frame;
    // Pixel 9, bottom row first, is (2, 1): row 3 of the file, which runs top down.
    EXPECT_EQ(FilePixels(Seq("kept", 2))[(3 * 7 + 2) * 4 + 3], 0.0f) << "the hole is kept";
}

}  // namespace
