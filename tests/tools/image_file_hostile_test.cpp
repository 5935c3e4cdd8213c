// Image files whose headers claim absurd sizes: refused, with the file named,
// before anything of that size is allocated (a truncated file would otherwise
// have its whole claimed frame allocated before the read fails, and OpenEXR
// allocates an attribute's stated size before reading it).
#include <cstdint>
#include <iterator>

#include "channel_layout.h"
#include "cli_rig.h"
#include "header_check.h"
#include "image_file.h"

namespace {

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
}

}  // namespace
