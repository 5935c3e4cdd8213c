// Frames of four sizes and depths rendered on four host threads at once,
// through one instance and through an instance each, equal bit for bit to the
// frames rendered alone: on our host (the plug-in's pool runs the rows) and on
// Nuke in demo mode (the host's threads do). The tsan preset runs this too.
#include <array>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/plugin_session.h"

using namespace trelvotest;

namespace {

// Tall enough for the rows to be shared among threads; a negative amount blends.
const struct {
    const char* depth;
    OfxRectI bounds;
    double amount;
} kJobs[4] = {
    {kOfxBitDepthByte, {0, 0, 61, 37}, 1.5},
    {kOfxBitDepthShort, {-5, 3, 40, 90}, -1.0},
    {kOfxBitDepthFloat, {0, 0, 96, 33}, 0.75},
    {kOfxBitDepthByte, {10, -7, 33, 71}, 2.0},
};

using Images = std::array<BufferPtr, 3>;  // in the order of kClips

Images imagesFor(int j) {
    Images i;
    for (BufferPtr& image : i) image = makeImage(kJobs[j].bounds, kJobs[j].depth);
    fillPattern(*i[0], *i[1], kJobs[j].depth, j);
    return i;
}

OfxStatus renderAt(Plugin& plugin, OfxTime time) {
    RenderArgs args;
    args.time = time;
    return plugin.render(args).status;
}

class RenderConcurrent : public ::testing::TestWithParam<bool> {  // true: Nuke in demo mode
  protected:
    void SetUp() override {
        if (GetParam()) setenv("TRELVO_DEMO", "1", 1);
    }
    void TearDown() override { unsetenv("TRELVO_DEMO"); }

    // Each job rendered alone by render(j), then all four at once on threads
    // of their own, three rounds over, each frame from the marker.
    template <typename Render>
    void expectAsRenderedAlone(std::vector<Images>& images, Render render) {
        std::vector<std::vector<unsigned char>> alone;
        for (int j = 0; j < 4; ++j) {
            fillPixels(*images[j][2], kMarker);
            EXPECT_EQ(render(j), kOfxStatOK);
            EXPECT_FALSE(allPixels(*images[j][2], kMarker)) << "job " << j << " rendered nothing";
            alone.push_back(images[j][2]->bytes());
        }
        for (int round = 0; round < 3; ++round) {
            for (Images& i : images) fillPixels(*i[2], kMarker);
            std::vector<std::thread> threads;
            OfxStatus statuses[4] = {kOfxStatFailed, kOfxStatFailed, kOfxStatFailed, kOfxStatFailed};
            for (int j = 0; j < 4; ++j) threads.emplace_back([&, j] { statuses[j] = render(j); });
            for (std::thread& t : threads) t.join();
            for (int j = 0; j < 4; ++j) {
                EXPECT_EQ(statuses[j], kOfxStatOK);
                EXPECT_TRUE(alone[j] == images[j][2]->bytes()) << "job " << j << ", round " << round;
            }
        }
    }

    Session s{hostNamed(GetParam() ? kNuke : kOurs, 3)};
};

// One instance, job j at time j + 1 with its own images and amount; then an
// instance each, all at time 0.
TEST_P(RenderConcurrent, ThroughOneInstanceAndAnInstanceEachEveryFrameIsAsRenderedAlone) {
    ImageEffect& effect = s.instance();
    connectClips(effect);
    std::vector<Images> images;
    for (int j = 0; j < 4; ++j) {
        images.push_back(imagesFor(j));
        effect.param("valMBAmount")->setKey(j + 1, kJobs[j].amount);
    }
    for (size_t k = 0; k < 3; ++k)
        effect.clip(kClips[k])->setImageSource(
            [images, k](OfxTime t) { return images[static_cast<size_t>(t) - 1][k]; });
    expectAsRenderedAlone(images, [&](int j) { return renderAt(s.plugin(), j + 1); });

    std::vector<std::unique_ptr<Plugin>> instances;
    for (int j = 0; j < 4; ++j) {
        instances.push_back(std::make_unique<Plugin>(s.host(), *s.bundle().plugin(0)));
        Plugin& p = *instances.back();
        ASSERT_EQ(p.describeInContext(kOfxImageEffectContextGeneral).status, kOfxStatOK);
        ASSERT_EQ(p.createInstance().status, kOfxStatOK);
        connectClips(*p.instance());
        images[j] = imagesFor(j);
        p.instance()->param("valMBAmount")->setValue(kJobs[j].amount);
        for (size_t k = 0; k < 3; ++k) p.instance()->clip(kClips[k])->setImage(images[j][k]);
    }
    expectAsRenderedAlone(images, [&](int j) { return renderAt(*instances[j], 0); });
    for (auto& p : instances) p->destroyInstance();
    EXPECT_EQ(s.host().images().counts().outstanding(), 0u);
    EXPECT_EQ(s.host().memory().counts().liveBytes, 0u);
}

INSTANTIATE_TEST_SUITE_P(Hosts, RenderConcurrent, ::testing::Bool(),
                         [](const auto& test) { return std::string(test.param ? "NukeDemo" : "Ours"); });

}  // namespace
