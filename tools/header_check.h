// Limits on what the tools read, checked from a file's header before an image
// library reads the pixels, or opens the file at all where the library would
// take a size from the header on trust and allocate it whole before finding
// the file too short, or a tile's buffers from its claimed size: a corrupt or hostile file of a few hundred
// bytes could otherwise make the tools take gigabytes.
#pragma once

#include <cstdint>
#include <string>

// The largest frame the tools read: 16384 pixels a side. A bound on each side,
// not only on the area: OpenImageIO converts a read in chunks of 256 rows, so
// a header claiming one row of 2^28 pixels would take gigabytes of scratch.
inline constexpr int64_t kMaxFrameSide = 16384;
inline constexpr int64_t kMaxFramePixels = kMaxFrameSide * kMaxFrameSide;
// The largest tile of a tiled OpenEXR file the tools read, in pixels.
inline constexpr int64_t kMaxTilePixels = int64_t{4096} * 4096;
// How far into an OpenEXR file tile descriptions are looked for.
inline constexpr int64_t kHeaderScanBytes = int64_t{1} << 20;

// False, with a message naming the file, for a frame of no pixels or with a
// side longer than kMaxFrameSide.
bool checkFrameSize(const std::string& path, int64_t width, int64_t height, std::string& error);

// False, with a message naming the file, for tiles of no pixels, past
// kMaxTilePixels or with a side past kMaxFrameSide.
bool checkTileSize(const std::string& path, int64_t width, int64_t height, std::string& error);
// checkTileSize on the tiles an opened file's reader parsed, for OpenEXR files
// (the read's tile buffers come from these); other formats and untiled files pass.
bool checkParsedTiles(const std::string& path, const char* formatName, int64_t tileWidth, int64_t tileHeight,
                      std::string& error);

// False, with a message naming the file, for an OpenEXR file whose header is
// cut short or has an attribute whose size runs past the end of the file
// (OpenEXR allocates and clears the stated size of a string before it finds
// the file too short, up to 2 GB), or whose tiles are past kMaxTilePixels or
// kMaxFrameSide. Other files pass, for their reader to judge.
bool checkExrHeader(const std::string& path, std::string& error);
