#include "image_file.h"

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "channel_layout.h"
#include "header_check.h"

namespace {

// What one read may take: a frame of the largest size in four float channels.
constexpr int64_t kMaxReadBytes = kMaxFramePixels * 4 * 4;

OIIO::TypeDesc typeOf(PixelDepth depth) {
    switch (depth) {
        case PixelDepth::Byte:
            return OIIO::TypeDesc::UINT8;
        case PixelDepth::Short:
            return OIIO::TypeDesc::UINT16;
        case PixelDepth::Float:
            break;
    }
    return OIIO::TypeDesc::FLOAT;
}

PixelDepth depthOf(OIIO::TypeDesc format) {
    if (format.basetype == OIIO::TypeDesc::UINT8) return PixelDepth::Byte;
    if (format.basetype == OIIO::TypeDesc::UINT16) return PixelDepth::Short;
    return PixelDepth::Float;
}

std::string channelList(const OIIO::ImageSpec& header) {
    std::string list;
    for (int c = 0; c < header.nchannels; ++c) {
        if (c) list += ", ";
        list += c < static_cast<int>(header.channelnames.size()) ? header.channelnames[c] : "?";
    }
    return list;
}

// The depth a set of channels is read in: the widest of theirs.
PixelDepth depthOfChannels(const OIIO::ImageSpec& header, const std::vector<int>& channels) {
    PixelDepth depth = PixelDepth::Byte;
    for (int c : channels) {
        const PixelDepth one = depthOf(header.channelformat(c));
        if (one == PixelDepth::Float || (one == PixelDepth::Short && depth == PixelDepth::Byte)) depth = one;
    }
    return depth;
}

// Channels [first, end) of one part, whose header this is, as `type`,
// scaled for a proxy.
bool readChannelRange(OIIO::ImageInput& in, const std::string& path, const OIIO::ImageSpec& header, int part,
                      int first, int end, OIIO::TypeDesc type, double scale, bool nearest,
                      OIIO::ImageBuf& file, std::string& error) {
    if (!checkFrameSize(path, header.width, header.height, error)) return false;
    if (!checkParsedTiles(path, in.format_name(), header.tile_width, header.tile_height, error)) return false;
    const int64_t bytes = static_cast<int64_t>(header.width) * header.height * (end - first) *
                          static_cast<int64_t>(type.size());
    if (bytes > kMaxReadBytes) {
        error = path + ": reading " + std::to_string(end - first) + " channels of its " +
                std::to_string(header.width) + " x " + std::to_string(header.height) + " pixels takes " +
                std::to_string(bytes >> 20) + " MiB, more than the 4 GiB read at once";
        return false;
    }
    file.reset(OIIO::ImageSpec(header.width, header.height, end - first, type));
    if (!in.read_image(part, 0, first, end, type, file.localpixels())) {
        error = path + ": " + in.geterror();
        return false;
    }
    if (scale != 1.0) {
        const int w = std::max(1, static_cast<int>(std::lround(header.width * scale)));
        const int h = std::max(1, static_cast<int>(std::lround(header.height * scale)));
        const OIIO::ROI roi(0, w, 0, h, 0, 1, 0, end - first);
        OIIO::ImageBuf scaled = nearest ? OIIO::ImageBufAlgo::resample(file, false, roi)
                                        : OIIO::ImageBufAlgo::resize(file, "", 0.0f, roi);
        if (scaled.has_error()) {
            error = path + ": cannot scale it (" + scaled.geterror() + ")";
            return false;
        }
        file = std::move(scaled);
    }
    return true;
}

// Opens a file for reading with straight alpha left alone.
std::unique_ptr<OIIO::ImageInput> openImage(const std::string& path, std::string& error) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    if (!checkExrHeader(path, error)) return nullptr;
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    std::unique_ptr<OIIO::ImageInput> in = OIIO::ImageInput::open(path, &config);
    if (!in) error = path + ": cannot read it as an image (" + OIIO::geterror() + ")";
    return in;
}

std::string partialPath(const std::string& path) {
    return path + "." + std::to_string(getpid()) + ".partial";
}

}  // namespace

size_t HostPixels::bytesPerComponent() const {
    return depth == PixelDepth::Byte ? 1 : depth == PixelDepth::Short ? 2 : 4;
}

float HostPixels::at(int x, int y, int c) const {
    const unsigned char* p = data.data() + static_cast<size_t>(y) * rowBytes() +
                             (static_cast<size_t>(x) * 4 + static_cast<size_t>(c)) * bytesPerComponent();
    switch (depth) {
        case PixelDepth::Byte:
            return *p / 255.0f;
        case PixelDepth::Short: {
            uint16_t v;
            std::memcpy(&v, p, sizeof v);
            return v / 65535.0f;
        }
        case PixelDepth::Float:
            break;
    }
    float v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

bool defaultChannelOrder(const OIIO::ImageSpec& header, int order[4], bool& hasAlpha) {
    static const int rgba[4] = {0, 1, 2, 3}, rgb[4] = {0, 1, 2, -1}, y[4] = {0, 0, 0, -1},
                     ya[4] = {0, 0, 0, 1};
    const int* chosen = nullptr;
    if (header.nchannels == 4 && (header.alpha_channel == 3 || header.alpha_channel < 0))
        chosen = rgba;
    else if (header.nchannels == 3 && header.alpha_channel < 0)
        chosen = rgb;
    else if (header.nchannels == 1 && header.alpha_channel < 0)
        chosen = y;
    else if (header.nchannels == 2 && header.alpha_channel == 1)
        chosen = ya;
    if (!chosen) return false;
    std::memcpy(order, chosen, sizeof rgba);
    hasAlpha = chosen[3] >= 0;
    return true;
}

bool readHostPixels(const std::string& path, const ReadSettings& settings, HostPixels& image,
                    std::string& error) {
    std::unique_ptr<OIIO::ImageInput> in = openImage(path, error);
    if (!in) return false;
    ChannelLayout layout;
    layout.read(*in, path);
    if (!layout.parts()) {
        error = path + ": holds no image";
        return false;
    }
    int part = 0, order[4];
    bool hasAlpha = false;
    std::vector<int> used;
    if (settings.channels.empty()) {
        if (!defaultChannelOrder(layout.header(), order, hasAlpha)) {
            error = path + ": channels " + channelList(layout.header()) + " are not RGB, RGBA, Y or YA";
            return false;
        }
        for (int c = 0; c < layout.header().nchannels; ++c) used.push_back(c);
    } else {
        std::vector<std::string> named(4);
        for (size_t c = 0; c < 4 && c < settings.channels.size(); ++c) named[c] = settings.channels[c];
        std::vector<std::string> wanted;
        for (const std::string& name : named)
            if (!name.empty()) wanted.push_back(name);
        if (wanted.empty()) {
            error = path + ": no channel named to read";
            return false;
        }
        if (!layout.resolve(wanted, part, used, error)) return false;
        for (size_t c = 0, n = 0; c < 4; ++c) order[c] = named[c].empty() ? -1 : used[n++];
        hasAlpha = !named[3].empty();
    }
    const OIIO::ImageSpec& header = layout.header(part);
    if (header.deep || header.depth > 1) {
        error = path + ": deep and volume images are not supported";
        return false;
    }
    const int first = *std::min_element(used.begin(), used.end());
    const int end = *std::max_element(used.begin(), used.end()) + 1;
    for (int& c : order)
        if (c >= 0) c -= first;
    const PixelDepth depth =
        settings.channels.empty() ? depthOf(header.format) : depthOfChannels(header, used);
    const OIIO::TypeDesc type = typeOf(depth);
    OIIO::ImageBuf file;
    if (!readChannelRange(*in, path, header, part, first, end, type, settings.scale, settings.nearest, file,
                          error))
        return false;
    in->close();

    const float opaque[4] = {0.0f, 0.0f, 0.0f, 1.0f};
    OIIO::ImageBuf rgba = OIIO::ImageBufAlgo::channels(file, 4, order, opaque);
    if (rgba.has_error()) {
        error = path + ": " + rgba.geterror();
        return false;
    }

    image.width = rgba.roi().width();
    image.height = rgba.roi().height();
    image.depth = depth;
    image.alpha = !hasAlpha                                            ? AlphaState::Opaque
                  : header.get_int_attribute("oiio:UnassociatedAlpha") ? AlphaState::Unpremultiplied
                                                                       : AlphaState::Premultiplied;
    image.fileHeader = header;
    image.data.assign(image.rowBytes() * static_cast<size_t>(image.height), 0);
    // The top row of the file lands in the last row of memory.
    const auto rowBytes = static_cast<OIIO::stride_t>(image.rowBytes());
    if (!rgba.get_pixels(OIIO::ROI::All(), type, image.data.data() + (image.height - 1) * rowBytes,
                         OIIO::AutoStride, -rowBytes)) {
        error = path + ": " + rgba.geterror();
        return false;
    }
    return true;
}

bool readChannelPlanes(const std::string& path, const std::vector<std::string>& names, double scale,
                       ChannelPlanes& planes, std::string& error) {
    std::unique_ptr<OIIO::ImageInput> in = openImage(path, error);
    if (!in) return false;
    ChannelLayout layout;
    layout.read(*in, path);
    int part = 0;
    std::vector<int> used;
    if (names.empty()) {
        error = path + ": no channel named to read";
        return false;
    }
    if (!layout.resolve(names, part, used, error)) return false;
    const int first = *std::min_element(used.begin(), used.end());
    const int end = *std::max_element(used.begin(), used.end()) + 1;
    OIIO::ImageBuf file;
    if (!readChannelRange(*in, path, layout.header(part), part, first, end, OIIO::TypeDesc::FLOAT, scale,
                          true, file, error))
        return false;
    in->close();
    planes.width = file.roi().width();
    planes.height = file.roi().height();
    planes.planes.assign(names.size(), {});
    const size_t count = static_cast<size_t>(planes.width) * static_cast<size_t>(planes.height);
    const auto rowBytes = static_cast<OIIO::stride_t>(planes.width * sizeof(float));
    for (size_t n = 0; n < names.size(); ++n) {
        std::vector<float>& plane = planes.planes[n];
        plane.resize(count);
        const OIIO::ROI one(0, planes.width, 0, planes.height, 0, 1, used[n] - first, used[n] - first + 1);
        if (!file.get_pixels(one, OIIO::TypeDesc::FLOAT, plane.data() + (planes.height - 1) * planes.width,
                             OIIO::AutoStride, -rowBytes)) {
            error = path + ": " + file.geterror();
            return false;
        }
    }
    return true;
}

bool isOutputDepth(const std::string& depth) {
    return depth.empty() || depth == "8" || depth == "16" || depth == "half" || depth == "float";
}

bool writeHostPixels(const std::string& path, const HostPixels& image, const WriteSettings& settings,
                     std::string& error) {
    std::unique_ptr<OIIO::ImageOutput> out = OIIO::ImageOutput::create(path);
    if (!out) {
        error = path + ": no image format for this file name (" + OIIO::geterror() + ")";
        return false;
    }
    OIIO::TypeDesc format = typeOf(image.depth);
    if (settings.depth == "8")
        format = OIIO::TypeDesc::UINT8;
    else if (settings.depth == "16")
        format = OIIO::TypeDesc::UINT16;
    else if (settings.depth == "half")
        format = OIIO::TypeDesc::HALF;
    else if (settings.depth == "float")
        format = OIIO::TypeDesc::FLOAT;
    else if (image.depth == PixelDepth::Float && image.fileHeader.format == OIIO::TypeDesc::HALF)
        format = OIIO::TypeDesc::HALF;

    // A format without alpha (JPEG) gets the colour channels alone.
    const int channels = out->supports("alpha") ? 4 : 3;
    OIIO::ImageSpec header(image.width, image.height, channels, format);
    header.extra_attribs = image.fileHeader.extra_attribs;
    if (image.width == image.fileHeader.width && image.height == image.fileHeader.height) {
        header.x = image.fileHeader.x;
        header.y = image.fileHeader.y;
        header.full_x = image.fileHeader.full_x;
        header.full_y = image.fileHeader.full_y;
        header.full_width = image.fileHeader.full_width;
        header.full_height = image.fileHeader.full_height;
    }
    if (format != image.fileHeader.format) header.erase_attribute("oiio:BitsPerSample");
    header.erase_attribute("oiio:UnassociatedAlpha");
    if (image.alpha == AlphaState::Unpremultiplied && channels == 4)
        header.attribute("oiio:UnassociatedAlpha", 1);
    if (!settings.compression.empty()) header.attribute("compression", settings.compression);

    const std::string partial = partialPath(path);
    const auto rowBytes = static_cast<OIIO::stride_t>(image.rowBytes());
    const OIIO::stride_t pixelBytes = static_cast<OIIO::stride_t>(4 * image.bytesPerComponent());
    bool written = out->open(partial, header) &&
                   out->write_image(typeOf(image.depth), image.data.data() + (image.height - 1) * rowBytes,
                                    pixelBytes, -rowBytes) &&
                   out->close();
    if (!written) {
        std::string why = out->geterror();
        error = path + ": cannot write it (" + (why.empty() ? std::string("unknown error") : why) + ")";
        std::remove(partial.c_str());
        return false;
    }
    if (std::rename(partial.c_str(), path.c_str()) != 0) {
        error = path + ": cannot move the finished file into place: " + std::strerror(errno);
        std::remove(partial.c_str());
        return false;
    }
    return true;
}
