// Image files to and from the host's layout: rows turned over, channels
// completed to RGBA, depth kept, straight alpha left alone, and a write that
// either lands whole or leaves nothing.
#include "image_file.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "cli_rig.h"

namespace {

class ImageFileTest : public ToolFolder {
  protected:
    // A file whose sample (x, y, c), y from the top, is code(x, y, c).
    template <typename T>
    std::string WriteFile(const std::string& name, int w, int h, int channels, OIIO::TypeDesc type,
                          T (*code)(int, int, int)) {
        std::vector<T> px(static_cast<size_t>(w) * h * channels);
        for (size_t i = 0; i < px.size(); ++i)
            px[i] = code(static_cast<int>(i / channels % w), static_cast<int>(i / channels / w),
                         static_cast<int>(i % channels));
        OIIO::ImageSpec header(w, h, channels, type);
        if (channels == 2) header.channelnames = {"Y", "A"}, header.alpha_channel = 1;
        // PNG stores straight alpha: the codes go in as they are, not divided by alpha.
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".png") == 0)
            header.attribute("oiio:UnassociatedAlpha", 1);
        header.attribute("Artist", "trelvo test");
        WriteImage(dir_ + "/" + name, header, px.data());
        return dir_ + "/" + name;
    }
};

uint8_t Code8(int x, int y, int c) {
    return static_cast<uint8_t>(10 * y + 3 * x + c);
}
uint16_t Code16(int x, int y, int c) {
    return static_cast<uint16_t>(1000 * y + 7 * x + c + 1);
}
float CodeF(int x, int y, int c) {
    return 0.25f * y - 0.5f * x + c + 0.125f;
}

template <typename T>
T Sample(const HostPixels& im, int x, int yFromBottom, int c) {
    T v;
    std::memcpy(&v, im.data.data() + yFromBottom * im.rowBytes() + (x * 4 + c) * sizeof(T), sizeof v);
    return v;
}

TEST_F(ImageFileTest, RowsTurnOverAndDepthFollowsTheFile) {
    const int w = 5, h = 3;
    auto check = [&](const std::string& name, OIIO::TypeDesc type, auto code, PixelDepth depth) {
        using T = decltype(code(0, 0, 0));
        std::string error;
        HostPixels im;
        ASSERT_TRUE(readHostPixels(WriteFile<T>(name, w, h, 4, type, code), {}, im, error)) << error;
        EXPECT_EQ(im.depth, depth) << name;
        ASSERT_EQ(im.data.size(), w * h * 4 * sizeof(T)) << name;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < 4; ++c)
                    ASSERT_EQ(Sample<T>(im, x, h - 1 - y, c), code(x, y, c)) << name << " " << x << y << c;
        EXPECT_TRUE(depth != PixelDepth::Float || im.alpha == AlphaState::Premultiplied) << "an EXR's alpha";
    };
    check("a.png", OIIO::TypeDesc::UINT8, Code8, PixelDepth::Byte);
    check("b.tif", OIIO::TypeDesc::UINT16, Code16, PixelDepth::Short);
    check("c.exr", OIIO::TypeDesc::FLOAT, CodeF, PixelDepth::Float);
}

TEST_F(ImageFileTest, ChannelsCompleteToRgbaOrAreRefusedByName) {
    std::string error;
    HostPixels im;
    ASSERT_TRUE(readHostPixels(WriteFile<uint16_t>("rgb.tif", 2, 2, 3, OIIO::TypeDesc::UINT16, Code16), {},
                               im, error));
    EXPECT_EQ(im.alpha, AlphaState::Opaque);
    EXPECT_EQ(Sample<uint16_t>(im, 1, 0, 2), Code16(1, 1, 2));
    EXPECT_EQ(Sample<uint16_t>(im, 1, 0, 3), 65535);

    ASSERT_TRUE(
        readHostPixels(WriteFile<uint8_t>("y.png", 2, 2, 1, OIIO::TypeDesc::UINT8, Code8), {}, im, error));
    for (int c = 0; c < 3; ++c) EXPECT_EQ(Sample<uint8_t>(im, 1, 1, c), Code8(1, 0, 0));
    EXPECT_EQ(Sample<uint8_t>(im, 1, 1, 3), 255);

    ASSERT_TRUE(
        readHostPixels(WriteFile<float>("ya.exr", 2, 2, 2, OIIO::TypeDesc::FLOAT, CodeF), {}, im, error));
    for (int c = 0; c < 3; ++c) EXPECT_EQ(Sample<float>(im, 0, 1, c), CodeF(0, 0, 0));
    EXPECT_EQ(Sample<float>(im, 0, 1, 3), CodeF(0, 0, 1));

    const std::string five = WriteFile<float>("five.exr", 2, 2, 5, OIIO::TypeDesc::FLOAT, CodeF);
    EXPECT_FALSE(readHostPixels(five, {}, im, error));
    EXPECT_NE(error.find(five), std::string::npos) << error;
    EXPECT_NE(error.find("not RGB, RGBA, Y or YA"), std::string::npos) << error;

    EXPECT_FALSE(readHostPixels(dir_ + "/none.exr", {}, im, error));
    EXPECT_NE(error.find(dir_ + "/none.exr: No such file"), std::string::npos) << error;
    std::FILE* junk = std::fopen((dir_ + "/junk.exr").c_str(), "w");
    std::fputs("not an image", junk);
    std::fclose(junk);
    EXPECT_FALSE(readHostPixels(dir_ + "/junk.exr", {}, im, error));
    EXPECT_NE(error.find("junk.exr: cannot read it"), std::string::npos) << error;
}

// A straight-alpha PNG keeps its stored colour (OpenImageIO would multiply
// it by alpha on its own) and says so; writing it back stores the same codes.
TEST_F(ImageFileTest, StraightAlphaPassesThroughUntouched) {
    auto code = [](int x, int, int c) -> uint8_t { return c == 3 ? static_cast<uint8_t>(x * 60) : 200; };
    std::string error;
    HostPixels im;
    ASSERT_TRUE(
        readHostPixels(WriteFile<uint8_t>("s.png", 4, 1, 4, OIIO::TypeDesc::UINT8, +code), {}, im, error));
    EXPECT_EQ(im.alpha, AlphaState::Unpremultiplied);
    EXPECT_EQ(Sample<uint8_t>(im, 1, 0, 0), 200);
    ASSERT_TRUE(writeHostPixels(dir_ + "/t.png", im, {}, error)) << error;
    HostPixels back;
    ASSERT_TRUE(readHostPixels(dir_ + "/t.png", {}, back, error));
    EXPECT_EQ(back.data, im.data);
}

TEST_F(ImageFileTest, WriteRoundTripsDepthAndMetadataAndLeavesNoPartialFile) {
    std::string error;
    HostPixels im;
    ASSERT_TRUE(
        readHostPixels(WriteFile<float>("in.exr", 3, 2, 4, OIIO::TypeDesc::FLOAT, CodeF), {}, im, error));
    ASSERT_TRUE(writeHostPixels(dir_ + "/out.exr", im, {"", "piz"}, error)) << error;
    HostPixels back;
    ASSERT_TRUE(readHostPixels(dir_ + "/out.exr", {}, back, error));
    EXPECT_EQ(back.data, im.data);
    EXPECT_EQ(back.fileHeader.get_string_attribute("compression"), "piz");
    EXPECT_EQ(back.fileHeader.get_string_attribute("Artist"), "trelvo test");

    ASSERT_TRUE(writeHostPixels(dir_ + "/half.exr", im, {"half", ""}, error)) << error;
    ASSERT_TRUE(readHostPixels(dir_ + "/half.exr", {}, back, error));
    EXPECT_EQ(back.fileHeader.format, OIIO::TypeDesc::HALF);
    EXPECT_EQ(Sample<float>(back, 2, 0, 1), CodeF(2, 1, 1));  // exact in half
    ASSERT_TRUE(writeHostPixels(dir_ + "/16.tif", im, {"16", ""}, error)) << error;
    ASSERT_TRUE(readHostPixels(dir_ + "/16.tif", {}, back, error));
    EXPECT_EQ(back.depth, PixelDepth::Short);

    EXPECT_FALSE(writeHostPixels(dir_ + "/missing/out.exr", im, {}, error));
    EXPECT_NE(error.find(dir_ + "/missing/out.exr"), std::string::npos) << error;
    for (const std::string& name : Listing(dir_)) EXPECT_EQ(name.find("partial"), std::string::npos) << name;
}

TEST_F(ImageFileTest, ProxyScalesTheImage) {
    std::string error;
    HostPixels im;
    const std::string path = WriteFile<uint8_t>("p.png", 10, 6, 4, OIIO::TypeDesc::UINT8, Code8);
    ASSERT_TRUE(readHostPixels(path, {0.5, true, {}}, im, error)) << error;
    EXPECT_EQ(im.width, 5);
    EXPECT_EQ(im.height, 3);
    EXPECT_EQ(im.depth, PixelDepth::Byte);
}

}  // namespace
