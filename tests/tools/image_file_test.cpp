// Image files to and from the host's layout: rows turned over, channels
// completed to RGBA, depth kept, straight alpha left alone, a proxy scale,
// and a write that either lands whole or leaves nothing.
#include "image_file.h"

#include <cstring>

#include "cli_rig.h"

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

}  // namespace
