// libFuzzer target: trelvo-render's image loading (tools/image_file) on any
// bytes a file may hold. The first byte picks the extension, and with it the
// reader (EXR, PNG or TIFF), and how the file is read: as the Source is,
// scaled for a proxy, by channel names, or as a renderer's raw passes; the
// rest is the file. A read gives a frame whose pixels are all there, or fails
// with a message that names the file. OpenImageIO is not built for coverage:
// seeds of valid files (tests/fuzz/seeds/image_file) give the formats' structure.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "channel_layout.h"
#include "image_file.h"

namespace {

std::string gFolder;

void expect(bool ok, const std::string& what) {
    if (ok) return;
    std::fprintf(stderr, "image_file_fuzzer: %s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

void removeFolder() {
    for (const char* ext : {"exr", "png", "tif"}) std::remove((gFolder + "/frame." + ext).c_str());
    rmdir(gFolder.c_str());
}

// Up to four channel names of the file, some left out, for reads by name.
std::vector<std::string> someChannels(const std::string& path, unsigned pickBits) {
    ChannelLayout layout;
    std::string error;
    std::vector<std::string> names;
    if (!layout.read(path, error)) return {"R", "G", "B", "A"};
    for (int part = 0; part < layout.parts(); ++part)
        for (const std::string& name : layout.header(part).channelnames)
            if (names.size() < 4) names.push_back((pickBits >> names.size()) & 1 ? "" : name);
    return names;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char folder[] = "/tmp/trelvo-image-fuzz-XXXXXX";
    expect(mkdtemp(folder) != nullptr, "cannot make a temporary folder");
    gFolder = folder;
    std::atexit(removeFolder);
    OIIO::attribute("try_all_readers", 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    static const char* const kExtensions[] = {"exr", "png", "tif"};
    const unsigned choice = data[0];
    const std::string path = gFolder + "/frame." + kExtensions[(choice & 3) % 3];
    FILE* file = std::fopen(path.c_str(), "wb");
    const bool written = file && std::fwrite(data + 1, 1, size - 1, file) == size - 1;
    expect(file && std::fclose(file) == 0 && written, "cannot write " + path);

    std::string error;
    const unsigned mode = (choice >> 2) % 5;
    bool read = false;
    if (mode == 4) {
        // Raw passes: named channels as float planes, by nearest pixel.
        const std::vector<std::string> names = someChannels(path, 0);
        ChannelPlanes planes;
        const double scale = choice & 0x80 ? 0.5 : 1.0;
        read = readChannelPlanes(path, {names.begin(), names.begin() + std::min<size_t>(names.size(), 3)},
                                 scale, planes, error);
        expect(!read || (planes.width > 0 && planes.height > 0), "planes of no pixels");
        for (const std::vector<float>& plane : planes.planes)
            expect(!read || plane.size() == static_cast<size_t>(planes.width) * planes.height,
                   "a plane short of pixels");
    } else {
        ReadSettings settings;
        if (mode == 1) settings.scale = 0.5, settings.nearest = true;
        if (mode == 2) settings.scale = 0.3;
        if (mode == 3) settings.channels = someChannels(path, choice >> 5);
        HostPixels image;
        read = readHostPixels(path, settings, image, error);
        expect(!read || (image.width > 0 && image.height > 0), "a frame of no pixels");
        expect(!read || image.data.size() == image.rowBytes() * static_cast<size_t>(image.height),
               "a frame short of pixels");
    }
    expect(read || error.compare(0, path.size(), path) == 0,
           "a refusal that does not name the file: " + error);
    return 0;
}
