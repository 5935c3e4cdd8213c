#include "header_check.h"

#include <cstring>
#include <fstream>

namespace {

int32_t littleEndian32(const unsigned char* p) {
    return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                                static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24);
}

// The header of an OpenEXR file: per part a list of attributes (name, type,
// 32-bit size, value) closed by an empty name; a multi-part file closes its
// list of parts with an empty header.
class ExrHeaderReader {
  public:
    ExrHeaderReader(const std::string& path, std::ifstream& in, int64_t fileBytes)
        : path_(path), in_(in), fileBytes_(fileBytes) {}

    bool check(bool multipart, std::string& error) {
        for (;;) {
            int attributes = 0;
            for (std::string name;; ++attributes) {
                if (!readText(name)) return cutShort(error);
                if (name.empty()) break;
                if (!checkAttribute(name, error)) return false;
            }
            if (!multipart || attributes == 0) return true;
        }
    }

  private:
    // A zero-terminated name or type: at most 255 bytes.
    bool readText(std::string& text) {
        text.clear();
        for (char c; in_.get(c);) {
            if (c == '\0') return true;
            if (text.size() == 255) return false;
            text += c;
        }
        return false;
    }

    bool cutShort(std::string& error) const {
        error = path_ + ": its OpenEXR header is cut short or corrupt";
        return false;
    }

    bool checkAttribute(const std::string& name, std::string& error) {
        std::string type;
        unsigned char sizeBytes[4];
        if (!readText(type) || !in_.read(reinterpret_cast<char*>(sizeBytes), 4)) return cutShort(error);
        const int32_t size = littleEndian32(sizeBytes);
        const int64_t left = fileBytes_ - static_cast<int64_t>(in_.tellg());
        if (size < 0 || size > left) {
            error = path_ + ": its OpenEXR header's attribute " + name + " claims " + std::to_string(size) +
                    " bytes, more than the file holds";
            return false;
        }
        if (type == "tiledesc" && size >= 8) return checkTiles(size, error);
        in_.seekg(size, std::ios::cur);
        return true;
    }

    // OpenEXR allocates a buffer of a whole tile for each of its threads on
    // opening a tiled file: a tile claimed as large as a frame or larger took
    // gigabytes before a pixel was read. Real files use tiles of a few hundred
    // pixels a side.
    bool checkTiles(int32_t size, std::string& error) {
        unsigned char sides[8];
        if (!in_.read(reinterpret_cast<char*>(sides), 8)) return cutShort(error);
        if (!checkTileSize(path_, static_cast<uint32_t>(littleEndian32(sides)),
                           static_cast<uint32_t>(littleEndian32(sides + 4)), error))
            return false;
        in_.seekg(size - 8, std::ios::cur);
        return true;
    }

    const std::string& path_;
    std::ifstream& in_;
    int64_t fileBytes_;
};

}  // namespace

bool checkFrameSize(const std::string& path, int64_t width, int64_t height, std::string& error) {
    const std::string size = std::to_string(width) + " x " + std::to_string(height);
    if (width < 1 || height < 1) {
        error = path + ": its header gives a frame of " + size + " pixels";
        return false;
    }
    if (width > kMaxFrameSide || height > kMaxFrameSide) {
        error = path + ": its header gives a frame of " + size +
                " pixels, larger than the 16384 x 16384 the tools read";
        return false;
    }
    return true;
}

bool checkTileSize(const std::string& path, int64_t width, int64_t height, std::string& error) {
    if (width < 1 || height < 1 || width > kMaxFrameSide || height > kMaxFrameSide ||
        width * height > kMaxTilePixels) {
        error = path + ": its OpenEXR header gives tiles of " + std::to_string(width) + " x " +
                std::to_string(height) + " pixels, more than the 4096 x 4096 the tools read";
        return false;
    }
    return true;
}

bool checkParsedTiles(const std::string& path, const char* formatName, int64_t tileWidth, int64_t tileHeight,
                      std::string& error) {
    if (tileWidth <= 0 || std::strcmp(formatName, "openexr") != 0) return true;
    return checkTileSize(path, tileWidth, tileHeight, error);
}

bool checkExrHeader(const std::string& path, std::string& error) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) return true;  // whoever opens it next says why it can't
    const int64_t fileBytes = static_cast<int64_t>(in.tellg());
    in.seekg(0);
    unsigned char start[8];
    if (!in.read(reinterpret_cast<char*>(start), 8) || std::memcmp(start, "\x76\x2f\x31\x01", 4) != 0)
        return true;
    const bool multipart = (start[5] & 0x10) != 0;  // bit 12 of the version word
    if (!ExrHeaderReader(path, in, fileBytes).check(multipart, error)) return false;
    // OpenEXR reads some attributes at their type's own size whatever size the
    // file states, so its walk of a corrupt header can find attributes that the
    // walk above stepped over. Every tile description near the start is checked.
    std::string head(static_cast<size_t>(fileBytes < kHeaderScanBytes ? fileBytes : kHeaderScanBytes), '\0');
    in.clear();
    in.seekg(0);
    if (!in.read(&head[0], static_cast<std::streamsize>(head.size()))) return true;
    const std::string type("tiledesc", 9);  // with its terminating zero
    for (size_t at = head.find(type); at != std::string::npos; at = head.find(type, at + 1)) {
        const size_t sides = at + type.size() + 4;  // past the type and the size
        if (sides + 8 > head.size()) break;
        const auto* p = reinterpret_cast<const unsigned char*>(head.data() + sides);
        if (!checkTileSize(path, static_cast<uint32_t>(littleEndian32(p)),
                           static_cast<uint32_t>(littleEndian32(p + 4)), error))
            return false;
    }
    return true;
}
