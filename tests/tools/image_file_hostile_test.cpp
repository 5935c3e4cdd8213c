// Image files whose headers claim absurd sizes: refused, with the file named,
// before anything of that size is allocated (a truncated file would otherwise
// have its whole claimed frame allocated before the read fails, and OpenEXR
// allocates an attribute's stated size before reading it), and before
// trelvo-render renders its first frame.
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "channel_layout.h"
#include "cli_rig.h"
#include "header_check.h"
#include "image_file.h"

namespace {

uint32_t crc32(const std::string& bytes) {
    uint32_t crc = 0xFFFFFFFFu;
    for (unsigned char b : bytes) {
        crc ^= b;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

std::string bigEndian(uint32_t v) {
    return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
            static_cast<char>(v)};
}

std::string chunk(const std::string& type, const std::string& data) {
    return bigEndian(static_cast<uint32_t>(data.size())) + type + data + bigEndian(crc32(type + data));
}

// A PNG whose header claims an 8-bit RGBA frame of width x height, with
// pixel data of a few bytes: 64 zero bytes, deflated.
void writeClaimingPng(const std::string& path, uint32_t width, uint32_t height) {
    const std::string header = bigEndian(width) + bigEndian(height) + std::string("\x08\x06\x00\x00\x00", 5);
    const std::string pixels("\x78\x9c\x63\x60\xa0\x0c\x00\x00\x00\x40\x00\x01", 12);
    std::ofstream(path, std::ios::binary)
        << "\x89PNG\r\n\x1a\n"
        << chunk("IHDR", header) << chunk("IDAT", pixels) << chunk("IEND", "");
}

class ImageFileHostile : public ToolFolder {};

TEST_F(ImageFileHostile, AFrameClaimedPastTheLimitIsRefusedNamingTheFile) {
    for (auto [width, height] :
         {std::pair{60000u, 60000u}, {16385u, 16384u}, {40000u, 10000u}, {200000u, 1u}}) {
        const std::string size = std::to_string(width) + " x " + std::to_string(height);
        SCOPED_TRACE(size);
        const std::string path = dir_ + "/claims.png";
        writeClaimingPng(path, width, height);
        const std::string expected = path + ": its header gives a frame of " + size + " pixels, larger than";

        std::string error;
        HostPixels image;
        EXPECT_FALSE(readHostPixels(path, {}, image, error));
        EXPECT_EQ(error.rfind(expected, 0), 0u) << error;
        error.clear();
        ChannelPlanes planes;
        EXPECT_FALSE(readChannelPlanes(path, {"R", "G"}, 1.0, planes, error));
        EXPECT_EQ(error.rfind(expected, 0), 0u) << error;
        error.clear();
        ChannelLayout layout;
        EXPECT_FALSE(layout.read(path, error));
        EXPECT_EQ(error.rfind(expected, 0), 0u) << error;
    }
}

// A small OpenEXR file with a string attribute, in one part or two (the
// second a copy of the first), whose bytes a case then corrupts.
std::string writeExr(const std::string& path, int parts = 1) {
    OIIO::ImageSpec header(4, 3, 4, OIIO::TypeDesc::HALF);
    header.attribute("note", "a string of some length");
    std::vector<uint16_t> pixels(4 * 3 * 4, 0x3c00);  // 1.0 in half
    const std::vector<OIIO::ImageSpec> headers(static_cast<size_t>(parts), header);
    auto out = OIIO::ImageOutput::create(path);
    bool written = out && out->open(path, parts, headers.data());
    for (int part = 0; written && part < parts; ++part)
        written = (part == 0 || out->open(path, header, OIIO::ImageOutput::AppendSubimage)) &&
                  out->write_image(OIIO::TypeDesc::HALF, pixels.data());
    EXPECT_TRUE(written && out->close());
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Sets the size of the string attribute "note" in the given part's header
// (0 the first) to `size`.
// Writes v over the four bytes at `at`, as OpenEXR stores its integers.
void putLittleEndian(std::string& bytes, size_t at, uint32_t v) {
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(v >> (8 * i));
}

void claimNoteSize(std::string& bytes, int part, int32_t size) {
    using std::string_literals::operator""s;
    const std::string marker = "note\0string\0"s;
    size_t at = bytes.find(marker);
    for (int i = 0; i < part && at != std::string::npos; ++i) at = bytes.find(marker, at + 1);
    ASSERT_NE(at, std::string::npos);
    putLittleEndian(bytes, at + marker.size(), static_cast<uint32_t>(size));
}

TEST_F(ImageFileHostile, OpenExrAttributesRunningPastTheFileAreRefused) {
    const std::string path = dir_ + "/frame.exr";
    for (int parts : {1, 2}) {
        for (int32_t size : {0x7ffffff0, -5}) {  // 2 GB, and negative
            SCOPED_TRACE("size " + std::to_string(size) + ", parts " + std::to_string(parts));
            std::string bytes = writeExr(path, parts);
            std::string error;
            ChannelLayout layout;
            ASSERT_TRUE(layout.read(path, error)) << error;
            EXPECT_EQ(layout.parts(), parts);
            // The last part's header: every part's is checked.
            claimNoteSize(bytes, parts - 1, size);
            std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;

            const std::string message = "attribute note claims " + std::to_string(size) + " bytes";
            EXPECT_FALSE(layout.read(path, error));
            EXPECT_EQ(error.rfind(path + ": ", 0), 0u) << error;
            EXPECT_NE(error.find(message), std::string::npos) << error;
            HostPixels image;
            error.clear();
            EXPECT_FALSE(readHostPixels(path, {}, image, error));
            EXPECT_NE(error.find(message), std::string::npos) << error;
        }
    }
}

// A tiled file whose tiles are claimed far larger than any real one is refused
// before OpenEXR takes a tile's buffers (gigabytes for one a fuzzer made).
TEST_F(ImageFileHostile, OpenExrTilesPastTheLimitAreRefused) {
    const std::string path = dir_ + "/tiled.exr";
    OIIO::ImageSpec header(40, 30, 4, OIIO::TypeDesc::HALF);
    header.tile_width = header.tile_height = 16;
    const std::vector<uint16_t> pixels(40 * 30 * 4, 0x3c00);
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out && out->open(path, header) && out->write_image(OIIO::TypeDesc::HALF, pixels.data()) &&
                out->close());
    std::ifstream in(path, std::ios::binary);
    const std::string original{std::istreambuf_iterator<char>(in), {}};
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
        std::string bytes = original;
        putLittleEndian(bytes, sides, c.width);
        putLittleEndian(bytes, sides + 4, c.height);
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
        std::string error;
        ChannelLayout layout;
        EXPECT_EQ(layout.read(path, error), c.readable) << error;
        if (!c.readable) {
            EXPECT_EQ(error.rfind(path + ": its OpenEXR header gives tiles of ", 0), 0u) << error;
        }
    }
}

TEST(ImageFileLimits, FramesUpTo16384Squared) {
    struct Case {
        int width, height;
        bool readable;
    } const cases[] = {{16384, 16384, true},      {1, 1 << 28, false}, {16385, 16384, false},
                       {1 << 15, 1 << 15, false}, {0, 4, false},       {4, -1, false}};
    for (const Case& c : cases) {
        std::string error;
        EXPECT_EQ(checkFrameSize("f.exr", c.width, c.height, error), c.readable)
            << c.width << " x " << c.height << ": " << error;
    }
}

class RenderCliHostileFile : public ToolFolder {};

// A sequence whose third vector frame claims an absurd size stops the job
// before the first frame, naming that file.
TEST_F(RenderCliHostileFile, AnAbsurdFrameSizeStopsTheJobBeforeAnyFrame) {
    for (int frame = 1; frame <= 3; ++frame) {
        char name[32];
        std::snprintf(name, sizeof name, "/src.%04d.png", frame);
        const std::vector<unsigned char> pixels(4 * 3 * 4, 200);
        WriteImage(dir_ + name, OIIO::ImageSpec(4, 3, 4, OIIO::TypeDesc::UINT8), pixels.data());
        std::snprintf(name, sizeof name, "/vec.%04d.png", frame);
        std::ifstream good(dir_ + "/src.0001.png", std::ios::binary);
        if (frame == 3)
            writeClaimingPng(dir_ + name, 100000, 100000);
        else
            std::ofstream(dir_ + name, std::ios::binary) << good.rdbuf();
    }
    const Outcome run = RunTool(TRELVO_RENDER_BINARY,
                                {"--source", dir_ + "/src.####.png", "--vectors", dir_ + "/vec.####.png",
                                 "--output", dir_ + "/out/o.####.png", "--quiet"});
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_NE(run.err.find(dir_ + "/vec.0003.png: its header gives a frame of 100000 x 100000 pixels"),
              std::string::npos)
        << run.err;
    EXPECT_TRUE(Listing(dir_ + "/out").empty());
}

}  // namespace
