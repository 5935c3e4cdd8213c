// Image files to and from the host's layout, and headers claiming absurd
// sizes refused, naming the file, before anything of that size is allocated.
#include "image_file.h"

#include <cstring>
#include <iterator>

#include "channel_layout.h"
#include "cli_rig.h"
#include "header_check.h"

namespace {

// Sample (x, y, c) of the files, y from the top: exact at 8 and 16 bits.
float Code(int x, int y, int c) {
    return static_cast<float>(10 * y + 3 * x + c + 1) / 255.0f;
}

class ImageFileTest : public ToolFolder {
  protected:
    // Writes a file of Code samples stored as `type` (2 channels: Y, A) and reads it back.
    HostPixels WriteAndRead(const std::string& name, OIIO::TypeDesc type, int channels,
                            ReadSettings settings = {}, int w = 5, int h = 3) {
        std::vector<float> px;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < channels; ++c) px.push_back(Code(x, y, c));
        OIIO::ImageSpec header(w, h, channels, type);
        if (channels == 2) header.channelnames = {"Y", "A"}, header.alpha_channel = 1;
        header.attribute("oiio:UnassociatedAlpha", 1);  // straight alpha: the codes as they are
        header.attribute("Artist", "trelvo test");
        const std::string path = dir_ + "/" + name;
        auto out = OIIO::ImageOutput::create(path);
        EXPECT_TRUE(out && out->open(path, header) && out->write_image(OIIO::TypeDesc::FLOAT, px.data()) &&
                    out->close());
        HostPixels im;
        std::string error;
        EXPECT_TRUE(readHostPixels(path, settings, im, error)) << error;
        return im;
    }
};

// Rows turn over, channels complete to RGBA, depth and alpha follow the file;
// a straight-alpha PNG keeps its stored colour (OpenImageIO would multiply it).
TEST_F(ImageFileTest, ReadingTurnsRowsOverAndCompletesRgbaOrRefusesByName) {
    const struct {
        const char* name;
        OIIO::TypeDesc::BASETYPE type;
        int channels;
        PixelDepth depth;
        AlphaState alpha;
    } cases[] = {
        {"a.png", OIIO::TypeDesc::UINT8, 4, PixelDepth::Byte, AlphaState::Unpremultiplied},
        {"b.tif", OIIO::TypeDesc::UINT16, 4, PixelDepth::Short, AlphaState::Unpremultiplied},
        {"c.exr", OIIO::TypeDesc::FLOAT, 4, PixelDepth::Float, AlphaState::Premultiplied},
        {"rgb.tif", OIIO::TypeDesc::UINT16, 3, PixelDepth::Short, AlphaState::Opaque},
        {"y.png", OIIO::TypeDesc::UINT8, 1, PixelDepth::Byte, AlphaState::Opaque},
        {"ya.exr", OIIO::TypeDesc::FLOAT, 2, PixelDepth::Float, AlphaState::Premultiplied},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const HostPixels im = WriteAndRead(c.name, c.type, c.channels);
        EXPECT_EQ(im.depth, c.depth);
        EXPECT_EQ(im.alpha, c.alpha);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                for (int k = 0; k < 4; ++k)
                    ASSERT_EQ(im.at(x, 2 - y, k), k == 3
                                                      ? (c.channels % 2 ? 1.0f : Code(x, y, c.channels - 1))
                                                      : Code(x, y, c.channels < 3 ? 0 : k))
                        << x << y << k;
    }

    std::ofstream(dir_ + "/junk.exr") << "not an image";
    WriteImage(dir_ + "/five.exr", OIIO::ImageSpec(2, 2, 5, OIIO::TypeDesc::FLOAT),
               std::vector<float>(20).data());
    for (const auto& [name, said] :
         {std::pair{"five.exr", "five.exr: channels R, G, B, A, channel4 are not RGB, RGBA, Y or YA"},
          {"none.exr", "none.exr: No such file"},
          {"junk.exr", "junk.exr: cannot read it"}}) {
        std::string error;
        HostPixels im;
        EXPECT_FALSE(readHostPixels(dir_ + "/" + name, {}, im, error));
        EXPECT_THAT(error, HasSubstr(said));
    }
}

TEST_F(ImageFileTest, WritingRoundTripsDepthAndMetadataAndLeavesNoPartialFile) {
    const struct {
        const char* from;
        OIIO::TypeDesc::BASETYPE type;
        const char* to;
        WriteSettings settings;
        OIIO::TypeDesc::BASETYPE written;
        float tolerance;
    } cases[] = {
        {"s.png", OIIO::TypeDesc::UINT8, "t.png", {}, OIIO::TypeDesc::UINT8, 0},
        {"in.exr", OIIO::TypeDesc::FLOAT, "piz.exr", {"", "piz"}, OIIO::TypeDesc::FLOAT, 0},
        {"in.exr", OIIO::TypeDesc::FLOAT, "half.exr", {"half", ""}, OIIO::TypeDesc::HALF, 1e-3f},
        {"in.exr", OIIO::TypeDesc::FLOAT, "16.tif", {"16", ""}, OIIO::TypeDesc::UINT16, 0},
    };
    std::string error;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.to);
        const HostPixels im = WriteAndRead(c.from, c.type, 4);
        HostPixels back;
        ASSERT_TRUE(writeHostPixels(dir_ + "/" + c.to, im, c.settings, error)) << error;
        ASSERT_TRUE(readHostPixels(dir_ + "/" + c.to, {}, back, error)) << error;
        EXPECT_EQ(back.fileHeader.format, c.written);
        EXPECT_EQ(back.fileHeader.get_string_attribute("Artist"), "trelvo test");
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                for (int k = 0; k < 4; ++k) ASSERT_NEAR(back.at(x, y, k), im.at(x, y, k), c.tolerance);
    }
    EXPECT_EQ(OIIO::ImageBuf(dir_ + "/piz.exr").nativespec().get_string_attribute("compression"), "piz");

    EXPECT_FALSE(writeHostPixels(dir_ + "/missing/out.exr", HostPixels(), {}, error));
    EXPECT_THAT(error, HasSubstr(dir_ + "/missing/out.exr"));
    for (const std::string& name : Listing(dir_)) EXPECT_EQ(name.find("partial"), std::string::npos) << name;
}

TEST_F(ImageFileTest, ProxyScalesTheImage) {
    const HostPixels im = WriteAndRead("p.png", OIIO::TypeDesc::UINT8, 4, {0.5, true, {}}, 10, 6);
    EXPECT_EQ(im.width, 5);
    EXPECT_EQ(im.height, 3);
    EXPECT_EQ(im.depth, PixelDepth::Byte);
}

class ImageFileHostile : public ToolFolder {
  protected:
    // A small half-float OpenEXR file with a string attribute, in one part or
    // two (the second a copy of the first), or tiled; gives its bytes.
    std::string WriteExr(int parts, bool tiled = false) {
        OIIO::ImageSpec header(40, 30, 4, OIIO::TypeDesc::HALF);
        header.attribute("note", "a string of some length");
        if (tiled) header.tile_width = header.tile_height = 16;
        const std::vector<uint16_t> pixels(40 * 30 * 4, 0x3c00);  // 1.0 in half
        const std::vector<OIIO::ImageSpec> headers(static_cast<size_t>(parts), header);
        auto out = OIIO::ImageOutput::create(path_);
        bool written = out && out->open(path_, parts, headers.data());
        for (int part = 0; written && part < parts; ++part)
            written = (part == 0 || out->open(path_, header, OIIO::ImageOutput::AppendSubimage)) &&
                      out->write_image(OIIO::TypeDesc::HALF, pixels.data());
        EXPECT_TRUE(written && out->close());
        std::ifstream in(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // Writes `bytes` over the file with v over the four bytes at each of `at`,
    // as OpenEXR stores its integers.
    void Patch(std::string bytes, const std::vector<std::pair<size_t, uint32_t>>& values) {
        for (const auto& [at, v] : values)
            for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(v >> (8 * i));
        std::ofstream(path_, std::ios::binary | std::ios::trunc) << bytes;
    }
    void SetUp() override {
        ToolFolder::SetUp();
        path_ = dir_ + "/frame.exr";
    }
    std::string path_;
};

TEST_F(ImageFileHostile, AFrameClaimedPastTheLimitIsRefusedNamingTheFile) {
    const std::string path = dir_ + "/claims.ppm";
    WriteClaimingPpm(path, 40000, 10000);
    const std::string expected = path + ": its header gives a frame of 40000 x 10000 pixels, larger than";
    std::string error;
    HostPixels image;
    EXPECT_FALSE(readHostPixels(path, {}, image, error));
    EXPECT_EQ(error.rfind(expected, 0), 0u) << error;
    ChannelPlanes planes;
    EXPECT_FALSE(readChannelPlanes(path, {"R", "G"}, 1.0, planes, error));
    EXPECT_EQ(error.rfind(expected, 0), 0u) << error;
    ChannelLayout layout;
    EXPECT_FALSE(layout.read(path, error));
    EXPECT_EQ(error.rfind(expected, 0), 0u) << error;
    // The bounds, and sizes whose area would overflow.
    const struct {
        int width, height;
        bool readable;
    } cases[] = {{16384, 16384, true},      {1, 1 << 28, false}, {16385, 16384, false},
                 {1 << 15, 1 << 15, false}, {0, 4, false},       {4, -1, false}};
    for (const auto& c : cases)
        EXPECT_EQ(checkFrameSize("f.exr", c.width, c.height, error), c.readable)
            << c.width << " x " << c.height;
}

TEST_F(ImageFileHostile, OpenExrAttributesRunningPastTheFileAreRefused) {
    using std::string_literals::operator""s;
    for (int parts : {1, 2}) {
        for (int32_t size : {0x7ffffff0, -5}) {  // 2 GB, and negative
            SCOPED_TRACE("size " + std::to_string(size) + ", parts " + std::to_string(parts));
            const std::string bytes = WriteExr(parts);
            std::string error;
            ChannelLayout layout;
            ASSERT_TRUE(layout.read(path_, error)) << error;
            EXPECT_EQ(layout.parts(), parts);
            // The last part's header: every part's is checked.
            const std::string marker = "note\0string\0"s;
            const size_t at = parts == 1 ? bytes.find(marker) : bytes.rfind(marker);
            ASSERT_NE(at, std::string::npos);
            Patch(bytes, {{at + marker.size(), static_cast<uint32_t>(size)}});

            const std::string message = "attribute note claims " + std::to_string(size) + " bytes";
            EXPECT_FALSE(layout.read(path_, error));
            EXPECT_EQ(error.rfind(path_ + ": ", 0), 0u) << error;
            EXPECT_THAT(error, HasSubstr(message));
            HostPixels image;
            EXPECT_FALSE(readHostPixels(path_, {}, image, error));
            EXPECT_THAT(error, HasSubstr(message));
        }
    }
}

// Tiles claimed far larger than any real one are refused before OpenEXR
// takes a tile's buffers (gigabytes for one a fuzzer made).
TEST_F(ImageFileHostile, OpenExrTilesPastTheLimitAreRefused) {
    const std::string original = WriteExr(1, true);
    const size_t tiles = original.find(std::string("tiles\0tiledesc\0", 15));
    ASSERT_NE(tiles, std::string::npos);
    const size_t sides = tiles + 15 + 4;  // past the name, the type and the size
    const struct {
        uint32_t width, height;
        bool readable;
    } cases[] = {
        {16, 16, true}, {2, 117440514, false}, {0, 16, false}, {4096, 4096, true}, {4097, 4096, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + " x " + std::to_string(c.height));
        Patch(original, {{sides, c.width}, {sides + 4, c.height}});
        std::string error;
        ChannelLayout layout;
        EXPECT_EQ(layout.read(path_, error), c.readable) << error;
        if (c.readable) continue;
        EXPECT_EQ(error.rfind(path_ + ": its OpenEXR header gives tiles of ", 0), 0u) << error;
    }
    // A fuzzer's file: an attribute stating more bytes than OpenEXR reads for
    // its type hides the tiles from a walk that trusts the stated sizes.
    const std::string hidden = TRELVO_TOOLS_TEST_DATA "/tiles_past_a_long_attribute.exr";
    std::string error;
    HostPixels image;
    EXPECT_FALSE(readHostPixels(hidden, {}, image, error));
    EXPECT_THAT(error, HasSubstr("gives tiles of 2 x 117440514 pixels")) << error;
}

}  // namespace
