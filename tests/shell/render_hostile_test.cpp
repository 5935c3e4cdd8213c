// The render action on hosts that hand out what no well-behaved host does:
// images of components or depths the plug-in did not declare or that are left
// unanswered, row bytes too short, negative or absurd, bounds that overflow,
// more processors than the pool has slots, rows that lie gigabytes apart. The
// plug-in reads and writes only inside what each image's bounds and row bytes
// say it holds (guard bytes around every buffer show a stray write), refuses
// what it can't read with the red failure and success, and renders what it
// can read exactly as it renders a plain frame.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "common/render_rig.h"

using namespace trelvotest;

namespace {

constexpr size_t kGuard = 64;
const std::vector<double> kFloatRed = {1, 0, 0, 1};

std::shared_ptr<ImageBuffer>& imageOf(Rig& rig, const std::string& clip) {
    return clip == "Source" ? rig.source : clip == "Output" ? rig.output : rig.vectors;
}

// Gives the clip a new image: its current format changed by `change`, with
// guard bytes, and the current pixels where the layout is still the same.
void hand(Rig& rig, const std::string& clip, const std::function<void(ImageFormat&)>& change) {
    std::shared_ptr<ImageBuffer>& image = imageOf(rig, clip);
    ImageFormat f = image->format();
    f.guardBytes = kGuard;
    change(f);
    auto replacement = std::make_shared<ImageBuffer>(f);
    const bool sameLayout = f.components == image->format().components && f.depth == image->format().depth &&
                            !f.statedBounds &&
                            std::abs(static_cast<int64_t>(replacement->rowBytes())) >=
                                replacement->width() * replacement->pixelBytes();
    if (sameLayout) {
        const OfxRectI& b = f.bounds;
        for (int y = b.y1; y < b.y2; ++y)
            for (int x = b.x1; x < b.x2; ++x)
                for (int c = 0; c < image->components(); ++c)
                    setComponent(*replacement, x, y, c, component(*image, x, y, c));
    }
    image = replacement;
    rig.e->clip(clip)->setImage(image);
}

auto components(const std::string& clip, const std::string& text) {
    return [clip, text](Rig& r) { hand(r, clip, [&](ImageFormat& f) { f.components = text; }); };
}
auto depth(const std::string& clip, const std::string& text) {
    return [clip, text](Rig& r) { hand(r, clip, [&](ImageFormat& f) { f.depth = text; }); };
}
// The property unanswered over a buffer laid out as `layout` says.
auto unanswered(const std::string& clip, const char* property, std::function<void(ImageFormat&)> layout) {
    return [clip, property, layout](Rig& r) {
        hand(r, clip, [&](ImageFormat& f) {
            layout(f);
            f.unanswered = {property};
        });
    };
}
auto rowBytes(const std::string& clip, int bytes) {
    return [clip, bytes](Rig& r) { hand(r, clip, [&](ImageFormat& f) { f.rowBytes = bytes; }); };
}
auto statedBounds(const std::string& clip, OfxRectI bounds) {
    return [clip, bounds](Rig& r) { hand(r, clip, [&](ImageFormat& f) { f.statedBounds = bounds; }); };
}

}  // namespace

TEST(RenderHostile, ImagesItCannotReadAreRefusedAndNothingOutsideABufferIsTouched) {
    struct Case {
        const char* cause;
        std::function<void(Rig&)> setUp;
        const std::vector<double>* colour;  // null: the Output untouched
    };
    auto both = [](std::function<void(Rig&)> a, std::function<void(Rig&)> b) {
        return [a, b](Rig& r) {
            a(r);
            b(r);
        };
    };
    auto oneChannel = [](ImageFormat& f) { f.components = kOfxImageComponentAlpha; };
    auto sixteenBits = [](ImageFormat& f) { f.depth = kOfxBitDepthShort; };
    auto asIs = [](ImageFormat&) {};
    const Case cases[] = {
        // An Alpha Source makes the clip preferences ask for an Alpha Output.
        {"Alpha Source and the Alpha Output it asks for",
         both(components("Source", kOfxImageComponentAlpha), components("Output", kOfxImageComponentAlpha)),
         &kRed},
        {"Alpha Output under an RGBA Source", components("Output", kOfxImageComponentAlpha), &kRed},
        {"RGB Output", components("Output", kOfxImageComponentRGB), &kRed},
        {"RGB Source", components("Source", kOfxImageComponentRGB), &kRed},
        {"RGB vectors", components("Motion Vectors", kOfxImageComponentRGB), &kRed},
        {"vectors' components unanswered over one channel",
         unanswered("Motion Vectors", kOfxImageEffectPropComponents, oneChannel), &kRed},
        {"Source components unanswered", unanswered("Source", kOfxImageEffectPropComponents, asIs), &kRed},
        {"Output components unanswered", unanswered("Output", kOfxImageEffectPropComponents, asIs), nullptr},
        // Under a float Output, a Source taken for float would be read past its end.
        {"half-float Source", both(depth("Output", kOfxBitDepthFloat), depth("Source", kOfxBitDepthHalf)),
         &kFloatRed},
        {"half-float vectors", depth("Motion Vectors", kOfxBitDepthHalf), &kRed},
        {"Source of no depth", both(depth("Output", kOfxBitDepthFloat), depth("Source", kOfxBitDepthNone)),
         &kFloatRed},
        {"Source depth unanswered over 16 bits",
         both(depth("Output", kOfxBitDepthFloat),
              unanswered("Source", kOfxImageEffectPropPixelDepth, sixteenBits)),
         &kFloatRed},
        {"half-float Output", depth("Output", kOfxBitDepthHalf), nullptr},
        {"Output depth unanswered over 8 bits", unanswered("Output", kOfxImageEffectPropPixelDepth, asIs),
         nullptr},
        {"Source rows shorter than their pixels", rowBytes("Source", 95), &kRed},
        {"vectors' rows of no bytes", rowBytes("Motion Vectors", 0), &kRed},
        {"Output rows shorter than their pixels", rowBytes("Output", -95), nullptr},
        {"Output bounds of negative height", statedBounds("Output", {0, 4, 24, 0}), nullptr},
        {"Source bounds wider than an int", statedBounds("Source", {INT_MIN, 0, INT_MAX, 4}), &kRed},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.cause);
        Rig rig;
        rig.uniformVectors(1.0);
        fillPixels(*rig.source, {40, 80, 120, 255});
        fillPixels(*rig.output, kMarker);
        for (const char* clip : {"Source", "Motion Vectors", "Output"}) hand(rig, clip, [](ImageFormat&) {});
        c.setUp(rig);
        const std::vector<unsigned char> source = rig.source->bytes();
        const std::vector<unsigned char> vectors = rig.vectors->bytes();
        const std::vector<unsigned char> output = rig.output->bytes();

        EXPECT_EQ(rig.render().status, kOfxStatOK);
        if (c.colour)
            EXPECT_TRUE(allPixels(*rig.output, *c.colour));
        else
            EXPECT_TRUE(rig.output->bytes() == output) << "the Output was written";
        EXPECT_TRUE(rig.output->guardsIntact()) << "written outside the Output";
        EXPECT_TRUE(rig.source->bytes() == source) << "the Source was written";
        EXPECT_TRUE(rig.vectors->bytes() == vectors) << "the vectors were written";
    }
}

namespace {

// The Output and the Source after one frame, every component in order: a
// pattern with holes in the vectors and motion that varies by row, a Source
// and an Output un-premultiplied (so both are converted in place), and the
// images relaid out by `relayout` before the render. A negative amount runs
// in demo mode, so the blend and the demo mark run too.
std::vector<double> renderedPattern(const char* depth, OfxRectI bounds, double amount,
                                    const std::function<void(Rig&)>& relayout) {
    setenv("TRELVO_DEMO", amount < 0 ? "1" : "0", 1);
    Rig rig({}, depth, bounds);
    rig.e->param("valMBAmount")->setValue(amount);
    const double top = white(depth);
    for (int y = bounds.y1; y < bounds.y2; ++y)
        for (int x = bounds.x1; x < bounds.x2; ++x) {
            const double a = ((x * 7 + y * 3) % 5 + 1) / 5.0;
            for (int c = 0; c < 3; ++c)
                setComponent(*rig.source, x, y, c, ((x * (c + 2) + y * 5) % 17) / 16.0 * top);
            setComponent(*rig.source, x, y, 3, a * top);
            setComponent(*rig.vectors, x, y, 0, vectorCode(depth, 0.75));
            setComponent(*rig.vectors, x, y, 1, vectorCode(depth, (y - bounds.y1) / 60.0));
            setComponent(*rig.vectors, x, y, 3, (x + y) % 9 == 0 ? 0.0 : top);
        }
    for (const char* clip : {"Source", "Output"})
        hand(rig, clip, [](ImageFormat& f) { f.premultiplication = kOfxImageUnPreMultiplied; });
    relayout(rig);
    EXPECT_EQ(rig.render().status, kOfxStatOK);
    unsetenv("TRELVO_DEMO");
    EXPECT_TRUE(rig.output->guardsIntact());
    std::vector<double> pixels;
    for (const auto& image : {rig.output, rig.source})
        for (int y = bounds.y1; y < bounds.y2; ++y)
            for (int x = bounds.x1; x < bounds.x2; ++x)
                for (int c = 0; c < 4; ++c) pixels.push_back(component(*image, x, y, c));
    return pixels;
}

::testing::AssertionResult sameFrames(const std::vector<double>& expected,
                                      const std::vector<double>& actual) {
    if (expected.size() != actual.size()) return ::testing::AssertionFailure() << "sizes differ";
    const size_t half = expected.size() / 2;
    for (size_t i = 0; i < expected.size(); ++i)
        if (actual[i] != expected[i])
            return ::testing::AssertionFailure()
                   << (i < half ? "Output" : "Source") << " component " << i % half << " is " << actual[i]
                   << ", not " << expected[i];
    return ::testing::AssertionSuccess();
}

// Gives each named clip rows `rowBytes` apart, in sparse storage if asked.
std::function<void(Rig&)> rowsApart(const std::string& clips, int rowBytes, bool sparse) {
    return [clips, rowBytes, sparse](Rig& rig) {
        for (const char* clip : {"Source", "Motion Vectors", "Output"})
            if (clips.find(clip) != std::string::npos)
                hand(rig, clip, [&](ImageFormat& f) {
                    f.rowBytes = rowBytes;
                    f.sparse = sparse;
                });
    };
}

}  // namespace

// Negative row bytes store the rows top-down from the bottom row at data, as
// OFX allows: the frame comes out as from rows stored bottom-up, bit for bit,
// through the premultiplication in place, the blur, the blend of a negative
// amount and the demo mark, also with only some images top-down.
TEST(RenderHostile, RowsStoredTopDownRenderAsRowsStoredBottomUp) {
    const OfxRectI bounds = {-3, 2, 37, 43};
    for (const char* depth : {kOfxBitDepthByte, kOfxBitDepthShort, kOfxBitDepthFloat}) {
        for (double amount : {1.5, -1.0}) {
            const std::vector<double> plain = renderedPattern(depth, bounds, amount, [](Rig&) {});
            for (const char* topDown : {"Source Motion Vectors Output", "Source", "Output"}) {
                SCOPED_TRACE(testing::Message()
                             << depth << ", amount " << amount << ", top-down: " << topDown);
                const int rowBytes = -(40 * 4 * ofxhost::bytesPerComponent(depth) + 12);
                EXPECT_TRUE(sameFrames(
                    plain, renderedPattern(depth, bounds, amount, rowsApart(topDown, rowBytes, false))));
            }
        }
    }
}

// Rows so far apart that the frame spans more than 2^31 bytes: 40 rows 64 MiB
// apart, either way, and 3 rows 2^31 bytes apart top-down. In sparse storage
// only the pages the frame touches cost memory.
TEST(RenderHostile, FramesPastTwoGigabytesRenderAsPackedFrames) {
    const OfxRectI tall = {0, 0, 32, 40};
    const OfxRectI low = {0, 0, 32, 3};
    for (const char* depth : {kOfxBitDepthByte, kOfxBitDepthFloat}) {
        for (double amount : {1.5, -1.0}) {
            for (auto [bounds, rowBytes] : {std::pair{tall, 1 << 26}, {tall, -(1 << 26)}, {low, INT_MIN}}) {
                SCOPED_TRACE(testing::Message()
                             << depth << ", amount " << amount << ", rows " << rowBytes << " bytes apart");
                const std::vector<double> packed = renderedPattern(depth, bounds, amount, [](Rig&) {});
                EXPECT_TRUE(sameFrames(
                    packed, renderedPattern(depth, bounds, amount,
                                            rowsApart("Source Motion Vectors Output", rowBytes, true))));
            }
        }
    }
}

// A host named as Nuke that reports more processors than the pool has slots,
// and a frame tall enough to be shared among more threads than that: it
// renders, here through zero vectors to the Source itself.
TEST(RenderHostile, MoreProcessorsThanThePoolHasSlots) {
    HostConfig config = hostNamed(kNuke);
    config.numCPUs = 2000;
    config.threadLimit = 4;  // the shares in turn on a few threads, as a host's pool would run them
    Rig rig(config, kOfxBitDepthFloat, {0, 0, 1, 16 * 1025});
    for (int y = 0; y < 16 * 1025; ++y)
        for (int c = 0; c < 4; ++c) setComponent(*rig.source, 0, y, c, (y % 251 + c) / 256.0);
    fillPixels(*rig.output, kMarker);
    EXPECT_EQ(rig.render().status, kOfxStatOK);
    for (int y = 0; y < 16 * 1025; ++y)
        for (int c = 0; c < 4; ++c)
            ASSERT_EQ(component(*rig.output, 0, y, c), component(*rig.source, 0, y, c)) << "row " << y;
}
