// Frame lists and sequence paths as a render farm's job files write them.
#include "frames.h"

#include "cli_rig.h"

namespace {

TEST(ParseFrames, RangesStepsListsAndSignsOrTheTextNamed) {
    const std::pair<const char*, std::vector<int>> good[] = {
        {"7", {7}},
        {"1-5", {1, 2, 3, 4, 5}},
        {"1-10x3", {1, 4, 7, 10}},
        {"1-9x3", {1, 4, 7}},
        {"5-3", {5, 4, 3}},
        {"-2-1", {-2, -1, 0, 1}},
        {"-5--3", {-5, -4, -3}},
        {"1,5,10-12", {1, 5, 10, 11, 12}},
        {"3,1-4", {3, 1, 2, 4}},  // a frame named twice renders once, where it first appears
    };
    std::vector<int> frames;
    std::string error;
    for (const auto& [text, expected] : good) {
        EXPECT_TRUE(parseFrames(text, frames, error)) << text << ": " << error;
        EXPECT_EQ(frames, expected) << text;
    }
    for (const char* text :
         {"", "a", "1-", "-", "1-5x0", "1-5x-1", "1-5x", "1,,2", "1,", "7x2", "1.5", "1-100000000", " 1"}) {
        EXPECT_FALSE(parseFrames(text, frames, error)) << text;
        EXPECT_THAT(error, HasSubstr(std::string("'") + text + "'"));
    }
}

class Sequence : public ToolFolder {};

TEST_F(Sequence, PatternsFramePathsAndFramesOnDisk) {
    std::string error;
    SequencePath p;
    ASSERT_TRUE(p.parse("shots/a.b/beauty.####.exr", error)) << error;
    EXPECT_TRUE(p.isSequence());
    EXPECT_EQ(p.frame(7), "shots/a.b/beauty.0007.exr");
    EXPECT_EQ(p.frame(12345), "shots/a.b/beauty.12345.exr");
    EXPECT_EQ(p.frame(-3), "shots/a.b/beauty.-003.exr");
    ASSERT_TRUE(p.parse("v_%06d.png", error)) << error;
    EXPECT_EQ(p.frame(42), "v_000042.png");
    ASSERT_TRUE(p.parse("v.%d.png", error)) << error;
    EXPECT_EQ(p.frame(42), "v.42.png");
    // A pattern in a folder name is a folder, not a frame number.
    ASSERT_TRUE(p.parse("render#1/still.exr", error)) << error;
    EXPECT_FALSE(p.isSequence());
    EXPECT_EQ(p.frame(9), "render#1/still.exr");
    for (const auto& [text, said] :
         {std::pair{"a.####.####.exr", "more than one"}, {"a.%4d.exr", "%04d"}, {"100%.exr", "100%.exr"}}) {
        EXPECT_FALSE(p.parse(text, error));
        EXPECT_THAT(error, HasSubstr(said));
    }

    for (const char* name : {"f.0003.exr", "f.0001.exr", "f.0010.exr", "f.12.exr", "f.0002.exr.partial",
                             "g.0004.exr", "f.00a5.exr"})
        std::ofstream(dir_ + "/" + name).put('x');
    ASSERT_TRUE(p.parse(dir_ + "/f.####.exr", error));
    EXPECT_EQ(p.framesOnDisk(), (std::vector<int>{1, 3, 10})) << "the pattern's frames only";
}

}  // namespace
