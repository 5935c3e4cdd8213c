// Image files in and out of the layout an OFX host hands a plug-in: four
// interleaved channels, red green blue alpha, rows from the bottom of the
// picture up. Files store their rows from the top down, so every read and
// write turns the rows over. OpenImageIO does the file formats.
#pragma once

#include <OpenImageIO/imageio.h>

#include <cstddef>
#include <string>
#include <vector>

enum class PixelDepth { Byte, Short, Float };

enum class AlphaState { Opaque, Premultiplied, Unpremultiplied };

struct HostPixels {
    int width = 0;
    int height = 0;
    PixelDepth depth = PixelDepth::Float;
    AlphaState alpha = AlphaState::Opaque;
    std::vector<unsigned char> data;  // bottom row first, rows packed
    OIIO::ImageSpec fileHeader;       // what the file said, for its metadata

    size_t bytesPerComponent() const;
    size_t rowBytes() const { return static_cast<size_t>(width) * 4 * bytesPerComponent(); }
    // Channel c of pixel (x, y), y counted from the bottom, scaled to 0..1 white.
    float at(int x, int y, int c) const;
};

// How a file is read: at full size or scaled for a proxy render, filtered
// (pictures) or by nearest pixel (vector fields, whose values must not mix
// across an object's outline). Straight alpha is read as stored, never
// multiplied by OpenImageIO.
struct ReadSettings {
    double scale = 1.0;
    bool nearest = false;
    // Empty: the file's own layout, RGBA, RGB (alpha 1), Y (grey, alpha 1)
    // or YA. Otherwise the names of the channels that make R, G, B and A,
    // all in one part of the file; "" for one not taken, which reads 0 (alpha 1).
    std::vector<std::string> channels;
};

// The depth follows the channels read: 8 bits give Byte, 16 bits (10 and 12
// too) Short, anything else Float. Gives false with a message naming the
// file and the problem.
bool readHostPixels(const std::string& path, const ReadSettings& settings, HostPixels& image,
                    std::string& error);

// Named channels as float planes, rows bottom first like HostPixels, scaled
// by nearest pixel: the raw passes of a renderer.
struct ChannelPlanes {
    int width = 0;
    int height = 0;
    std::vector<std::vector<float>> planes;  // one per name, width * height
};
bool readChannelPlanes(const std::string& path, const std::vector<std::string>& names, double scale,
                       ChannelPlanes& planes, std::string& error);

// Where each of R, G, B, A comes from in a file of this header's own layout
// (-1: alpha filled with 1), or false for a layout that is not RGBA, RGB, Y
// or YA.
bool defaultChannelOrder(const OIIO::ImageSpec& header, int order[4], bool& hasAlpha);

struct WriteSettings {
    std::string depth;        // "", "8", "16", "half" or "float"; "" follows the image
    std::string compression;  // "" keeps the input's where the format has one
};

// Writes under a temporary name in the same folder and renames it into place
// once the file is complete, so a reader never sees half a frame and an
// interrupted render leaves nothing behind. The metadata of `image.fileHeader`
// carries over where the format can hold it.
bool writeHostPixels(const std::string& path, const HostPixels& image, const WriteSettings& settings,
                     std::string& error);

// True if the text names a depth writeHostPixels knows.
bool isOutputDepth(const std::string& depth);
