// Frame lists and sequence paths as a render farm's job files write them.
#include "frames.h"

#include <cstdio>
#include <string>
#include <vector>

#include "cli_rig.h"

namespace {

std::vector<int> Frames(const std::string& text) {
    std::vector<int> frames;
    std::string error;
    EXPECT_TRUE(parseFrames(text, frames, error)) << text << ": " << error;
    return frames;
}

std::string Refused(const std::string& text) {
    std::vector<int> frames;
    std::string error;
    EXPECT_FALSE(parseFrames(text, frames, error)) << text;
    return error;
}

TEST(ParseFrames, RangesStepsListsAndSigns) {
    EXPECT_EQ(Frames("7"), (std::vector<int>{7}));
    EXPECT_EQ(Frames("1-5"), (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(Frames("1-10x3"), (std::vector<int>{1, 4, 7, 10}));
    EXPECT_EQ(Frames("1-9x3"), (std::vector<int>{1, 4, 7}));
    EXPECT_EQ(Frames("5-3"), (std::vector<int>{5, 4, 3}));
    EXPECT_EQ(Frames("-2-1"), (std::vector<int>{-2, -1, 0, 1}));
    EXPECT_EQ(Frames("-5--3"), (std::vector<int>{-5, -4, -3}));
    EXPECT_EQ(Frames("1,5,10-12"), (std::vector<int>{1, 5, 10, 11, 12}));
    // A frame named twice renders once, where it first appears.
    EXPECT_EQ(Frames("3,1-4"), (std::vector<int>{3, 1, 2, 4}));
}

TEST(ParseFrames, BadTextIsNamed) {
    for (const char* text :
         {"", "a", "1-", "-", "1-5x0", "1-5x-1", "1-5x", "1,,2", "1,", "7x2", "1.5", "1-100000000", " 1"}) {
        const std::string error = Refused(text);
        EXPECT_NE(error.find(std::string("'") + text + "'"), std::string::npos) << error;
    }
}

TEST(SequencePath, PatternsAndFramePaths) {
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

    EXPECT_FALSE(p.parse("a.####.####.exr", error));
    EXPECT_NE(error.find("more than one"), std::string::npos) << error;
    EXPECT_FALSE(p.parse("a.%4d.exr", error));
    EXPECT_NE(error.find("%04d"), std::string::npos) << error;
    EXPECT_FALSE(p.parse("100%.exr", error));
    EXPECT_NE(error.find("100%.exr"), std::string::npos) << error;
}

class FramesOnDisk : public ToolFolder {};

TEST_F(FramesOnDisk, MatchThePatternOnly) {
    const std::vector<std::string> names = {"f.0003.exr",         "f.0001.exr", "f.0010.exr", "f.12.exr",
                                            "f.0002.exr.partial", "g.0004.exr", "f.00a5.exr"};
    for (const std::string& name : names) std::fclose(std::fopen((dir_ + "/" + name).c_str(), "w"));
    SequencePath p;
    std::string error;
    ASSERT_TRUE(p.parse(dir_ + "/f.####.exr", error));
    EXPECT_EQ(p.framesOnDisk(), (std::vector<int>{1, 3, 10}));
}

}  // namespace
