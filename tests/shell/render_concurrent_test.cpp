// Frames of different sizes and depths rendered on four host threads at once,
// through one shared instance (each thread its own time, so its own images and
// amount) and through an instance each: every frame equal, bit for bit, to the
// same frame rendered alone. On our own host, where the plug-in's pool runs
// the rows, and on a host named as Nuke in demo mode, where the host's threads
// run them and the demo mark and the licence warning join in. The tsan
// preset runs this under the thread sanitizer, which sees the host's locking
// as well as the plug-in's.
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/render_rig.h"

using namespace trelvotest;

namespace {

struct Job {
    const char* depth;
    OfxRectI bounds;
    double amount;  // a negative one blends
};

// Tall enough for the rows to be shared among threads.
const Job kJobs[4] = {
    {kOfxBitDepthByte, {0, 0, 61, 37}, 1.5},
    {kOfxBitDepthShort, {-5, 3, 40, 90}, -1.0},
    {kOfxBitDepthFloat, {0, 0, 96, 33}, 0.75},
    {kOfxBitDepthByte, {10, -7, 33, 71}, 2.0},
};

struct Images {
    std::shared_ptr<ImageBuffer> source, vectors, output;
};

// A pattern with holes in the vectors and motion that varies by row and job.
Images imagesFor(const Job& job, int seed) {
    Images images{makeImage(job.bounds, job.depth), makeImage(job.bounds, job.depth),
                  makeImage(job.bounds, job.depth)};
    const double top = white(job.depth);
    const OfxRectI& b = job.bounds;
    for (int y = b.y1; y < b.y2; ++y)
        for (int x = b.x1; x < b.x2; ++x) {
            const double a = ((x * 7 + y * 3 + seed) % 5 + 1) / 5.0;
            for (int c = 0; c < 3; ++c)
                setComponent(*images.source, x, y, c, ((x * (c + 2) + y * 5 + seed) % 17) / 16.0 * a * top);
            setComponent(*images.source, x, y, 3, a * top);
            setComponent(*images.vectors, x, y, 0, vectorCode(job.depth, 0.6 - 0.1 * seed));
            setComponent(*images.vectors, x, y, 1, vectorCode(job.depth, (y - b.y1) / 80.0));
            setComponent(*images.vectors, x, y, 3, (x + y + seed) % 9 == 0 ? 0.0 : top);
        }
    fillPixels(*images.output, kMarker);
    return images;
}

void connect(ImageEffect& effect) {
    for (const char* name : {"Source", "Motion Vectors", "Output"}) {
        ofxhost::Clip* clip = effect.clip(name);
        clip->setConnected(true);
        clip->setFrameRange(0.0, 10.0);
    }
    for (auto [name, value] :
         {std::pair{"valMaxDisplace", 4.0}, {"valVecScaleX", 1.0}, {"valVecScaleY", 1.0}})
        effect.param(name)->setValue(value);
}

OfxStatus renderAt(Plugin& plugin, OfxTime time) {
    ofxhost::RenderArgs args;
    args.time = time;
    return plugin.render(args).status;
}

// Runs render(j) for every job on a thread of its own, all at once, a few
// times over; each time the Outputs start from the marker.
template <typename Render>
void renderAtOnce(std::vector<Images>& images, Render render) {
    for (int round = 0; round < 3; ++round) {
        for (Images& i : images) fillPixels(*i.output, kMarker);
        std::vector<std::thread> threads;
        OfxStatus statuses[4] = {kOfxStatFailed, kOfxStatFailed, kOfxStatFailed, kOfxStatFailed};
        for (int j = 0; j < 4; ++j) threads.emplace_back([&, j] { statuses[j] = render(j); });
        for (std::thread& t : threads) t.join();
        for (OfxStatus s : statuses) EXPECT_EQ(s, kOfxStatOK);
    }
}

::testing::AssertionResult sameBytes(const std::vector<unsigned char>& alone, const ImageBuffer& atOnce) {
    if (alone == atOnce.bytes()) return ::testing::AssertionSuccess();
    for (size_t i = 0; i < alone.size(); ++i)
        if (alone[i] != atOnce.bytes()[i])
            return ::testing::AssertionFailure() << "byte " << i << " is " << int(atOnce.bytes()[i])
                                                 << " at once, " << int(alone[i]) << " alone";
    return ::testing::AssertionFailure() << "sizes differ";
}

struct HostCase {
    const char* name;
    bool demo;
};

class RenderConcurrent : public ::testing::TestWithParam<HostCase> {
  protected:
    void SetUp() override {
        if (GetParam().demo) setenv("TRELVO_DEMO", "1", 1);
        config_.name = GetParam().name;
        config_.numCPUs = 3;
    }
    void TearDown() override { unsetenv("TRELVO_DEMO"); }
    HostConfig config_;
};

// One instance; job j at time j + 1, with its own images and amount.
TEST_P(RenderConcurrent, ThroughOneInstanceEveryFrameIsAsRenderedAlone) {
    Session s(config_);
    ImageEffect& effect = s.instance();
    connect(effect);
    std::vector<Images> images;
    for (int j = 0; j < 4; ++j) {
        images.push_back(imagesFor(kJobs[j], j));
        effect.param("valMBAmount")->setKey(j + 1, kJobs[j].amount);
    }
    auto at = [images](std::shared_ptr<ImageBuffer> Images::*image) {
        return [images, image](OfxTime t) { return images[static_cast<size_t>(t) - 1].*image; };
    };
    effect.clip("Source")->setImageSource(at(&Images::source));
    effect.clip("Motion Vectors")->setImageSource(at(&Images::vectors));
    effect.clip("Output")->setImageSource(at(&Images::output));

    std::vector<std::vector<unsigned char>> alone;
    for (int j = 0; j < 4; ++j) {
        EXPECT_EQ(renderAt(s.plugin(), j + 1), kOfxStatOK);
        alone.push_back(images[j].output->bytes());
        EXPECT_FALSE(allPixels(*images[j].output, kMarker)) << "job " << j << " rendered nothing";
    }
    renderAtOnce(images, [&](int j) { return renderAt(s.plugin(), j + 1); });
    for (int j = 0; j < 4; ++j) EXPECT_TRUE(sameBytes(alone[j], *images[j].output)) << "job " << j;
    EXPECT_EQ(s.host().images().counts().outstanding(), 0u);
    EXPECT_EQ(s.host().memory().counts().liveBytes, 0u);
}

// An instance each, all at time 0.
TEST_P(RenderConcurrent, ThroughAnInstanceEachEveryFrameIsAsRenderedAlone) {
    Session s(config_);
    s.describe();
    std::vector<std::unique_ptr<Plugin>> instances;
    std::vector<Images> images;
    for (int j = 0; j < 4; ++j) {
        instances.push_back(std::make_unique<Plugin>(s.host(), *s.bundle().plugin(0)));
        Plugin& p = *instances.back();
        ASSERT_EQ(p.describeInContext(kOfxImageEffectContextGeneral).status, kOfxStatOK);
        ASSERT_EQ(p.createInstance().status, kOfxStatOK);
        connect(*p.instance());
        images.push_back(imagesFor(kJobs[j], j));
        p.instance()->param("valMBAmount")->setValue(kJobs[j].amount);
        p.instance()->clip("Source")->setImage(images[j].source);
        p.instance()->clip("Motion Vectors")->setImage(images[j].vectors);
        p.instance()->clip("Output")->setImage(images[j].output);
    }
    std::vector<std::vector<unsigned char>> alone;
    for (int j = 0; j < 4; ++j) {
        EXPECT_EQ(renderAt(*instances[j], 0), kOfxStatOK);
        alone.push_back(images[j].output->bytes());
    }
    renderAtOnce(images, [&](int j) { return renderAt(*instances[j], 0); });
    for (int j = 0; j < 4; ++j) EXPECT_TRUE(sameBytes(alone[j], *images[j].output)) << "job " << j;
    for (auto& p : instances) p->destroyInstance();
    EXPECT_EQ(s.host().images().counts().outstanding(), 0u);
    EXPECT_EQ(s.host().memory().counts().liveBytes, 0u);
}

INSTANTIATE_TEST_SUITE_P(Hosts, RenderConcurrent,
                         ::testing::Values(HostCase{"com.corvane.trelvo-render", false},
                                           HostCase{kNuke, true}),
                         [](const auto& test) { return std::string(test.param.demo ? "NukeDemo" : "Ours"); });

}  // namespace
