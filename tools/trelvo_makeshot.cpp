// trelvo-makeshot: writes the demo shot, a short synthetic sequence of source
// frames and their exact motion vectors in the plug-in's float encoding.
#include <OpenImageIO/imageio.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "demo_shot.h"

namespace {

void Usage(FILE* to) {
    std::fprintf(to,
                 "usage: trelvo-makeshot --out DIR [--frames N] [--size WxH]\n"
                 "Writes DIR/source.####.exr and DIR/vectors.####.exr for frames 1..N (default 8),\n"
                 "vectors encoded as (d / 32 + 1) / 2 with alpha 1 where the vector is known.\n");
}

bool WriteExr(const std::string& path, const DemoShot& shot, const std::vector<float>& pixels) {
    auto out = OIIO::ImageOutput::create(path);
    if (!out) {
        std::fprintf(stderr, "trelvo-makeshot: %s: %s\n", path.c_str(), OIIO::geterror().c_str());
        return false;
    }
    OIIO::ImageSpec format(shot.width, shot.height, 4, OIIO::TypeDesc::FLOAT);
    format.attribute("compression", "zip");
    if (!out->open(path, format) || !out->write_image(OIIO::TypeDesc::FLOAT, pixels.data()) ||
        !out->close()) {
        std::fprintf(stderr, "trelvo-makeshot: %s: %s\n", path.c_str(), out->geterror().c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    DemoShot shot;
    std::string dir;
    int frames = 8;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char* name) -> const char* {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "trelvo-makeshot: %s needs a value\n", name);
                std::exit(2);
            }
            return argv[++i];
        };
        if (a == "--out") {
            dir = value("--out");
        } else if (a == "--frames") {
            frames = std::atoi(value("--frames"));
            if (frames < 1 || frames > 1000) {
                std::fprintf(stderr, "trelvo-makeshot: --frames must be 1..1000\n");
                return 2;
            }
        } else if (a == "--size") {
            const char* v = value("--size");
            if (std::sscanf(v, "%dx%d", &shot.width, &shot.height) != 2 || shot.width < 16 ||
                shot.height < 16 || shot.width > 8192 || shot.height > 8192) {
                std::fprintf(stderr, "trelvo-makeshot: --size '%s' is not WxH within 16..8192\n", v);
                return 2;
            }
        } else if (a == "--help" || a == "-h") {
            Usage(stdout);
            return 0;
        } else {
            std::fprintf(stderr, "trelvo-makeshot: unknown option '%s'\n", a.c_str());
            Usage(stderr);
            return 2;
        }
    }
    if (dir.empty()) {
        Usage(stderr);
        return 2;
    }
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "trelvo-makeshot: %s: %s\n", dir.c_str(), std::strerror(errno));
        return 1;
    }
    for (int f = 1; f <= frames; ++f) {
        char name[64];
        std::snprintf(name, sizeof name, "/source.%04d.exr", f);
        if (!WriteExr(dir + name, shot, RenderSource(shot, f))) return 1;
        std::snprintf(name, sizeof name, "/vectors.%04d.exr", f);
        if (!WriteExr(dir + name, shot, RenderVectors(shot, f))) return 1;
    }
    std::printf("wrote %d frames of %dx%d to %s\n", frames, shot.width, shot.height, dir.c_str());
    return 0;
}
