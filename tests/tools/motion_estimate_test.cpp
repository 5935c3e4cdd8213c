// Motion estimated from synthetic footage with exactly known motion, and the
// preview's colours.
#include "motion_estimate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <map>

#include "flow_preview.h"
#include "moving_texture.h"

#if defined(__SANITIZE_THREAD__)
#include <opencv2/core/utility.hpp>
// OpenCV runs its parallel loops on TBB, whose synchronisation the thread
// sanitizer cannot see; under it, OpenCV works on the calling thread alone.
static const bool kOpenCVSerial = (cv::setNumThreads(1), true);
#endif

namespace {

using Where = std::function<bool(int i, int j)>;

struct Shot {
    MovingScene scene;
    std::vector<HostPixels> frames;

    Shot(const MovingScene& s, int count, PixelDepth depth = PixelDepth::Float) : scene(s) {
        for (int t = 0; t < count; ++t) frames.push_back(RenderScene(scene, t, depth));
    }
    RawVectors motion(int t, const MotionEstimateSettings& settings = {}) const {
        RawVectors motion;
        std::string error;
        const HostPixels* previous = t > 0 ? &frames[t - 1] : nullptr;
        const HostPixels* next = t + 1 < int(frames.size()) ? &frames[t + 1] : nullptr;
        EXPECT_TRUE(estimateMotion(previous, frames[t], next, settings, motion, error)) << error;
        EXPECT_EQ(motion.width, scene.width);
        EXPECT_EQ(motion.height, scene.height);
        return motion;
    }
};

// Share of the pixels chosen by `where` whose vector is known and within
// `tolerance` of (dx, dy); holes count against it.
double ShareNear(const RawVectors& motion, double dx, double dy, double tolerance, const Where& where) {
    size_t chosen = 0, near = 0;
    for (int j = 0; j < motion.height; ++j)
        for (int i = 0; i < motion.width; ++i) {
            if (!where(i, j)) continue;
            const size_t k = static_cast<size_t>(j) * motion.width + i;
            ++chosen;
            near += motion.isKnown(k) && std::hypot(motion.dx[k] - dx, motion.dy[k] - dy) <= tolerance;
        }
    EXPECT_GT(chosen, 0u);
    return chosen ? double(near) / double(chosen) : 0.0;
}

double ShareOfHoles(const RawVectors& motion, const Where& where) {
    return 1.0 - ShareNear(motion, 0, 0, std::numeric_limits<double>::infinity(), where);
}

// A disc about 70 px across moving 60 px a frame, far more than coarse-to-fine
// flow follows from its coarse levels where the disc is a few pixels, over a
// background in sub-pixel translation. What the disc is about to cover has no
// match in the next frame, what it has uncovered none in the previous one.
TEST(MotionEstimate, AFastDiscOverASubPixelBackground) {
    MovingScene scene;
    scene.width = 288;
    scene.height = 160;
    scene.vx = 0.37;
    scene.vy = -0.61;
    scene.discs.push_back(MovingDisc{50, 84, 35, 60, -6, 5});
    const Shot shot(scene, 3);
    // Pixels within 3 of an outline are left out: the flow blurs an edge.
    const auto clear = [&](int t, int i, int j) { return DistanceToOutline(scene, t, i, j) > 3; };
    const auto onDisc = [&](int i, int j) { return DiscAt(scene, 1, i, j) == 0 && clear(1, i, j); };
    // The outermost pixels may see the border.
    const auto background = [&](int i, int j) {
        return i >= 3 && j >= 3 && i < 285 && j < 157 && DiscAt(scene, 1, i, j) < 0 && clear(1, i, j);
    };
    const auto backgroundNowDiscAt = [&](int now, int then) -> Where {
        return [&, now, then](int i, int j) {
            return DiscAt(scene, now, i, j) < 0 && clear(now, i, j) && DiscAt(scene, then, i, j) == 0 &&
                   clear(then, i, j);
        };
    };
    const auto farFromDisc = [&](int i, int j) {
        for (int t = 0; t < 3; ++t)
            if (DiscAt(scene, t, i, j) >= 0 || DistanceToOutline(scene, t, i, j) < 12) return false;
        return background(i, j);
    };
    // Through the sequence the tools use, which reads each frame once.
    std::map<int, int> reads;
    MotionSequence sequence(10, 12, [&](int frame, HostPixels& pixels, std::string&) {
        ++reads[frame];
        pixels = shot.frames[frame - 10];
        return true;
    });
    RawVectors motion[3];
    std::string error;
    for (int t = 0; t < 3; ++t) ASSERT_TRUE(sequence.motionAt(10 + t, motion[t], error)) << error;
    EXPECT_EQ(reads, (std::map<int, int>{{10, 1}, {11, 1}, {12, 1}}));

    // In the middle, the regions seen on one side take the background's motion there.
    EXPECT_GE(ShareNear(motion[1], 60, -6, 2.0, onDisc), 0.9);
    EXPECT_GT(ShareNear(motion[1], scene.vx, scene.vy, 0.25, background), 0.95);
    EXPECT_GT(ShareNear(motion[1], scene.vx, scene.vy, 1.0, backgroundNowDiscAt(1, 0)), 0.8);
    EXPECT_GT(ShareNear(motion[1], scene.vx, scene.vy, 1.0, backgroundNowDiscAt(1, 2)), 0.8);
    // At the ends, one-sided: background the disc covers (first) or has
    // uncovered (last) is a hole; the background away from it is not.
    EXPECT_GT(ShareOfHoles(motion[0], backgroundNowDiscAt(0, 1)), 0.75);
    EXPECT_GT(ShareOfHoles(motion[2], backgroundNowDiscAt(2, 1)), 0.75);
    for (int t : {0, 2}) EXPECT_GT(ShareNear(motion[t], scene.vx, scene.vy, 0.25, farFromDisc), 0.95) << t;

    MotionEstimateSettings plain;
    plain.largeDisplacements = false;
    EXPECT_LT(ShareNear(shot.motion(1, plain), 60, -6, 2.0, onDisc), 0.5)
        << "a case the plain flow gets wrong";
    // A depth read wrong, a flipped y or rows read top down would move the vectors.
    for (const PixelDepth depth : {PixelDepth::Short, PixelDepth::Byte}) {
        const RawVectors fromCodes = Shot(scene, 3, depth).motion(1);
        EXPECT_GE(ShareNear(fromCodes, 60, -6, 2.0, onDisc), 0.9) << int(depth);
        EXPECT_GT(ShareNear(fromCodes, scene.vx, scene.vy, 0.25, background), 0.95) << int(depth);
    }
}

TEST(MotionEstimate, OnePictureAndOddSizes) {
    RawVectors motion;
    std::string error;
    MovingScene scene;
    scene.width = 40;
    scene.height = 30;
    const HostPixels a = RenderScene(scene, 0);
    // One picture shows no motion: all holes.
    ASSERT_TRUE(estimateMotion(nullptr, a, nullptr, {}, motion, error)) << error;
    EXPECT_EQ(ShareOfHoles(motion, [](int, int) { return true; }), 1.0);

    // Pictures smaller than the flow's patches still give a field of their size.
    for (const auto& [w, h] : {std::pair{1, 1}, {7, 3}, {200, 2}}) {
        scene.width = w;
        scene.height = h;
        const HostPixels p = RenderScene(scene, 0), q = RenderScene(scene, 1);
        ASSERT_TRUE(estimateMotion(&p, q, &p, {}, motion, error)) << error;
        EXPECT_EQ(motion.width, w);
        EXPECT_EQ(motion.height, h);
        EXPECT_EQ(motion.dx.size(), motion.size());
    }
}

// Hue the direction as seen on the picture, saturation the length against
// Max Displacement, holes black.
TEST(FlowPreview, DirectionIsHueLengthIsSaturationHolesAreBlack) {
    // Right at full length: red; up the picture: hue 90; left at half length:
    // half-saturated cyan; down beyond M: clamped, hue 270; still: white; a hole.
    const RawVectors motion{6, 1, {8, 0, -4, 0, 0, 3}, {0, 8, 0, -16, 0, 3}, {1, 1, 1, 1, 1, 0}};
    const int rgb[6][3] = {{255, 0, 0},   {128, 255, 0},   {128, 255, 255},
                           {128, 0, 255}, {255, 255, 255}, {0, 0, 0}};
    const HostPixels picture = flowColours(motion, 8.0);
    ASSERT_EQ(picture.data.size(), 6u * 4) << "6 x 1, 8 bits";
    for (int x = 0; x < 6; ++x) {
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(picture.data[x * 4 + c], rgb[x][c], 1) << x << " " << c;
        EXPECT_EQ(picture.data[x * 4 + 3], 255);
    }
}

}  // namespace
