// Hosts that hand out what no well-behaved host does. Guard bytes show any
// stray write; what can't be read is refused in red, what can is rendered.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "common/plugin_session.h"

using namespace trelvotest;

namespace {

using Change = std::function<void(ImageFormat&)>;
using Changes = std::vector<std::pair<const char*, Change>>;  // by clip

// Gives the clip a new image: its current format changed by `change`, with
// guard bytes, and the current pixels where the layout is still the same.
void hand(Rig& rig, const std::string& clip, const Change& change) {
    BufferPtr& image = rig.image(clip);
    ImageFormat f = image->format();
    f.guardBytes = 64;
    change(f);
    auto replacement = std::make_shared<ImageBuffer>(f);
    if (f.components == image->format().components && f.depth == image->format().depth && !f.statedBounds &&
        std::abs(static_cast<int64_t>(replacement->rowBytes())) >=
            replacement->width() * replacement->pixelBytes())
        for (int y = f.bounds.y1; y < f.bounds.y2; ++y)
            for (int x = f.bounds.x1; x < f.bounds.x2; ++x)
                for (int c = 0; c < image->components(); ++c)
                    setComponent(*replacement, x, y, c, component(*image, x, y, c));
    image = replacement;
    rig.e->clip(clip)->setImage(image);
}

// The format's field set to the value.
template <auto Field, typename T>
Change set(T value) {
    return [value](ImageFormat& f) { f.*Field = value; };
}
const auto components = set<&ImageFormat::components, std::string>;
const auto depth = set<&ImageFormat::depth, std::string>;
const auto rowBytes = set<&ImageFormat::rowBytes, int>;
const auto statedBounds = set<&ImageFormat::statedBounds, OfxRectI>;
// The property unanswered, over a buffer laid out as `layout` says if given.
Change unanswered(const char* property, Change layout = nullptr) {
    return [property, layout](ImageFormat& f) {
        if (layout) layout(f);
        f.unanswered = {property};
    };
}

// The Output and the un-premultiplied Source after a frame of the pattern,
// the clips in `relaid` changed; a negative amount blends in demo mode.
std::vector<double> renderedPattern(const char* bits, OfxRectI bounds, double amount,
                                    const std::string& relaid = "", const Change& relayout = {}) {
    setenv("TRELVO_DEMO", amount < 0 ? "1" : "0", 1);
    Rig rig({}, bits, bounds);
    rig.e->param("valMBAmount")->setValue(amount);
    fillPattern(*rig.source, *rig.vectors, bits, 0);
    for (const std::string clip : kClips)
        hand(rig, clip, [&](ImageFormat& f) {
            if (clip != "Motion Vectors") f.premultiplication = kOfxImageUnPreMultiplied;
            if (relaid.find(clip) != std::string::npos) relayout(f);
        });
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

}  // namespace

TEST(RenderHostile, ImagesItCannotReadAreRefusedAndNothingOutsideABufferIsTouched) {
    const std::vector<double> floatRed = {1, 0, 0, 1};
    const std::pair<const char*, Change> floatOutput = {"Output", depth(kOfxBitDepthFloat)};
    const struct {
        const char* cause;
        Changes changes;
        const std::vector<double>* colour;  // null: the Output untouched
    } cases[] = {
        // An Alpha Source makes the clip preferences ask for an Alpha Output.
        {"Alpha Source and the Alpha Output it asks for",
         {{"Source", components(kOfxImageComponentAlpha)}, {"Output", components(kOfxImageComponentAlpha)}},
         &kRed},
        {"Alpha Output under an RGBA Source", {{"Output", components(kOfxImageComponentAlpha)}}, &kRed},
        {"RGB Output", {{"Output", components(kOfxImageComponentRGB)}}, &kRed},
        {"vectors' components unanswered over one channel",
         {{"Motion Vectors", unanswered(kOfxImageEffectPropComponents, components(kOfxImageComponentAlpha))}},
         &kRed},
        {"Output components unanswered", {{"Output", unanswered(kOfxImageEffectPropComponents)}}, nullptr},
        // Under a float Output, a Source taken for float would be read past its end.
        {"half-float Source", {floatOutput, {"Source", depth(kOfxBitDepthHalf)}}, &floatRed},
        {"half-float vectors", {{"Motion Vectors", depth(kOfxBitDepthHalf)}}, &kRed},
        {"Source of no depth", {floatOutput, {"Source", depth(kOfxBitDepthNone)}}, &floatRed},
        {"Source depth unanswered over 16 bits",
         {floatOutput, {"Source", unanswered(kOfxImageEffectPropPixelDepth, depth(kOfxBitDepthShort))}},
         &floatRed},
        {"half-float Output", {{"Output", depth(kOfxBitDepthHalf)}}, nullptr},
        {"Output depth unanswered", {{"Output", unanswered(kOfxImageEffectPropPixelDepth)}}, nullptr},
        {"Source rows shorter than their pixels", {{"Source", rowBytes(95)}}, &kRed},
        {"Output rows shorter than their pixels", {{"Output", rowBytes(-95)}}, nullptr},
        {"Output bounds of negative height", {{"Output", statedBounds({0, 4, 24, 0})}}, nullptr},
        {"Source bounds wider than an int", {{"Source", statedBounds({INT_MIN, 0, INT_MAX, 4})}}, &kRed},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cause);
        Rig rig;
        rig.uniformVectors(1.0);
        fillPixels(*rig.source, kGrey);
        fillPixels(*rig.output, kMarker);
        for (const char* clip : kClips) hand(rig, clip, [](ImageFormat&) {});
        for (const auto& [clip, change] : c.changes) hand(rig, clip, change);
        const std::vector<unsigned char> source = rig.source->bytes(), vectors = rig.vectors->bytes(),
                                         output = rig.output->bytes();
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

// Rows stored top-down or so far apart that the frame spans over 2^31 bytes
// (sparse storage) render bit for bit as packed rows, through every stage.
TEST(RenderHostile, RowsTopDownOrGigabytesApartRenderAsPackedRows) {
    const OfxRectI wide = {-3, 2, 37, 43}, tall = {0, 0, 32, 40}, low = {0, 0, 32, 3};
    const char* all = "Source Motion Vectors Output";
    const struct {
        OfxRectI bounds;
        int rowBytes;  // 0: top-down with 12 bytes of padding
        const char* clips;
        bool sparse;
    } layouts[] = {{wide, 0, all, false},      {wide, 0, "Source", false},    {wide, 0, "Output", false},
                   {tall, 1 << 26, all, true}, {tall, -(1 << 26), all, true}, {low, INT_MIN, all, true}};
    for (const char* bits : {kOfxBitDepthByte, kOfxBitDepthShort, kOfxBitDepthFloat})
        for (double amount : {1.5, -1.0})
            for (const auto& l : layouts) {
                const int bytes = l.rowBytes ? l.rowBytes : -(40 * 4 * bytesPerComponent(bits) + 12);
                SCOPED_TRACE(testing::Message() << bits << ", amount " << amount << ", " << l.clips
                                                << " rows " << bytes << " bytes apart");
                EXPECT_TRUE(renderedPattern(bits, l.bounds, amount) ==
                            renderedPattern(bits, l.bounds, amount, l.clips, [&](ImageFormat& f) {
                                f.rowBytes = bytes;
                                f.sparse = l.sparse;
                            }));
            }
}
// Nuke reporting more processors than the pool has slots, a frame shared
// among that many: it renders (zero vectors give the Source itself).
TEST(RenderHostile, MoreProcessorsThanThePoolHasSlots) {
    HostConfig config = hostNamed(kNuke, 2000);
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
