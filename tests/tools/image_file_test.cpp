// Image files to and from the host's layout, and headers claiming absurd
// sizes refused, naming the file, before anything of that size is allocated.
#include "image_file.h"

#include <cstring>
#include <iterator>

#include "channel_layout.h"
#include "cli_rig.h"
#include "header_check.h"

namespace {

// Sample (x, y, c) of the files, y from the top, by depth.
template <typename T>
T Code(int x, int y, int c) {
    if constexpr (sizeof(T) == 1) return static_cast<T>(10 * y + 3 * x + c);
    if constexpr (sizeof(T) == 2) return static_cast<T>(1000 * y + 7 * x + c + 1);
    return 0.25f * y - 0.5f * x + c + 0.125f;
}

template <typename T>
T Sample(const HostPixels& im, int x, int yFromBottom, int c) {
    T v;
    std::memcpy(&v, im.data.data() + yFromBottom * im.rowBytes() + (x * 4 + c) * sizeof(T), sizeof v);
    return v;
}

class ImageFileTest : public ToolFolder {
  protected:
    // Writes a file of Code<T> samples and reads it back.
    template <typename T>
    HostPixels WriteAndRead(const std::string& name, int w, int h, int channels, ReadSettings settings = {}) {
        std::vector<T> px(static_cast<size_t>(w) * h * channels);
        for (size_t i = 0; i < px.size(); ++i)
            px[i] = Code<T>(int(i / channels % w), int(i / channels / w), int(i % channels));
        const OIIO::TypeDesc type = sizeof(T) == 1   ? OIIO::TypeDesc::UINT8
                                    : sizeof(T) == 2 ? OIIO::TypeDesc::UINT16
                                                     : OIIO::TypeDesc::FLOAT;
        OIIO::ImageSpec header(w, h, channels, type);
        if (channels == 2) header.channelnames = {"Y", "A"}, header.alpha_channel = 1;
        header.attribute("oiio:UnassociatedAlpha", 1);  // PNG's straight alpha: the codes as they are
        header.attribute("Artist", "trelvo test");
        WriteImage(dir_ + "/" + name, header, px.data());
        HostPixels im;
        std::string error;
        EXPECT_TRUE(readHostPixels(dir_ + "/" + name, settings, im, error)) << error;
        return im;
    }
};

TEST_F(ImageFileTest, RowsTurnOverAndDepthFollowsTheFile) {
    auto check = [&](const HostPixels& im, auto code, PixelDepth depth) {
        EXPECT_EQ(im.depth, depth);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                for (int c = 0; c < 4; ++c)
                    ASSERT_EQ(Sample<decltype(code)>(im, x, 2 - y, c), Code<decltype(code)>(x, y, c))
                        << x << y << c;
    };
    check(WriteAndRead<uint8_t>("a.png", 5, 3, 4), uint8_t(), PixelDepth::Byte);
    check(WriteAndRead<uint16_t>("b.tif", 5, 3, 4), uint16_t(), PixelDepth::Short);
    const HostPixels exr = WriteAndRead<float>("c.exr", 5, 3, 4);
    check(exr, float(), PixelDepth::Float);
    EXPECT_EQ(exr.alpha, AlphaState::Premultiplied) << "an EXR's alpha";
}

TEST_F(ImageFileTest, ChannelsCompleteToRgbaOrAreRefusedByName) {
    HostPixels im = WriteAndRead<uint16_t>("rgb.tif", 2, 2, 3);
    EXPECT_EQ(im.alpha, AlphaState::Opaque);
    EXPECT_EQ(Sample<uint16_t>(im, 1, 0, 2), Code<uint16_t>(1, 1, 2));
    EXPECT_EQ(Sample<uint16_t>(im, 1, 0, 3), 65535);
    im = WriteAndRead<uint8_t>("y.png", 2, 2, 1);
    for (int c = 0; c < 4; ++c) EXPECT_EQ(Sample<uint8_t>(im, 1, 1, c), c < 3 ? Code<uint8_t>(1, 0, 0) : 255);
    im = WriteAndRead<float>("ya.exr", 2, 2, 2);
    for (int c = 0; c < 4; ++c) EXPECT_EQ(Sample<float>(im, 0, 1, c), Code<float>(0, 0, c < 3 ? 0 : 1));

    std::ofstream(dir_ + "/junk.exr") << "not an image";
    WriteImage(dir_ + "/five.exr", OIIO::ImageSpec(2, 2, 5, OIIO::TypeDesc::FLOAT),
               std::vector<float>(20).data());
    for (const auto& [name, said] :
         {std::pair{"five.exr", "five.exr: channels R, G, B, A, channel4 are not RGB, RGBA, Y or YA"},
          {"none.exr", "none.exr: No such file"},
          {"junk.exr", "junk.exr: cannot read it"}}) {
        std::string error;
        EXPECT_FALSE(readHostPixels(dir_ + "/" + name, {}, im, error));
        EXPECT_THAT(error, HasSubstr(said));
    }
}

TEST_F(ImageFileTest, WritingRoundTripsAlphaDepthAndMetadataAndLeavesNoPartialFile) {
    // A straight-alpha PNG keeps its stored colour (OpenImageIO would multiply
    // it by alpha on its own) and says so; written back, the same codes.
    std::string error;
    HostPixels im = WriteAndRead<uint8_t>("s.png", 4, 2, 4), back;
    EXPECT_EQ(im.alpha, AlphaState::Unpremultiplied);
    EXPECT_EQ(Sample<uint8_t>(im, 1, 0, 0), Code<uint8_t>(1, 1, 0));
    ASSERT_TRUE(writeHostPixels(dir_ + "/t.png", im, {}, error)) << error;
    ASSERT_TRUE(readHostPixels(dir_ + "/t.png", {}, back, error));
    EXPECT_EQ(back.data, im.data);

    im = WriteAndRead<float>("in.exr", 3, 2, 4);
    ASSERT_TRUE(writeHostPixels(dir_ + "/out.exr", im, {"", "piz"}, error)) << error;
    ASSERT_TRUE(readHostPixels(dir_ + "/out.exr", {}, back, error));
    EXPECT_EQ(back.data, im.data);
    EXPECT_EQ(back.fileHeader.get_string_attribute("compression"), "piz");
    EXPECT_EQ(back.fileHeader.get_string_attribute("Artist"), "trelvo test");
    ASSERT_TRUE(writeHostPixels(dir_ + "/half.exr", im, {"half", ""}, error)) << error;
    ASSERT_TRUE(readHostPixels(dir_ + "/half.exr", {}, back, error));
    EXPECT_EQ(back.fileHeader.format, OIIO::TypeDesc::HALF);
    EXPECT_EQ(Sample<float>(back, 2, 0, 1), Code<float>(2, 1, 1));  // exact in half
    ASSERT_TRUE(writeHostPixels(dir_ + "/16.tif", im, {"16", ""}, error)) << error;
    ASSERT_TRUE(readHostPixels(dir_ + "/16.tif", {}, back, error));
    EXPECT_EQ(back.depth, PixelDepth::Short);

    EXPECT_FALSE(writeHostPixels(dir_ + "/missing/out.exr", im, {}, error));
    EXPECT_THAT(error, HasSubstr(dir_ + "/missing/out.exr"));
    for (const std::string& name : Listing(dir_)) EXPECT_EQ(name.find("partial"), std::string::npos) << name;
}

TEST_F(ImageFileTest, ProxyScalesTheImage) {
    const HostPixels im = WriteAndRead<uint8_t>("p.png", 10, 6, 4, {0.5, true, {}});
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
    for (auto [width, height] :
         {std::pair{60000u, 60000u}, {16385u, 16384u}, {40000u, 10000u}, {200000u, 1u}}) {
        const std::string size = std::to_string(width) + " x " + std::to_string(height);
        SCOPED_TRACE(size);
        const std::string path = dir_ + "/claims.ppm";
        WriteClaimingPpm(path, width, height);
        const std::string expected = path + ": its header gives a frame of " + size + " pixels, larger than";
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
    }
    // The bounds, and sizes whose area would overflow.
    const struct {
        int width, height;
        bool readable;
    } cases[] = {{16384, 16384, true},      {1, 1 << 28, false}, {16385, 16384, false},
                 {1 << 15, 1 << 15, false}, {0, 4, false},       {4, -1, false}};
    for (const auto& c : cases) {
        std::string error;
        EXPECT_EQ(checkFrameSize("f.exr", c.width, c.height, error), c.readable)
            << c.width << " x " << c.height;
    }
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
