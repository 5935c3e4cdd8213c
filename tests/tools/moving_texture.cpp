#include "moving_texture.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

double Lattice(uint32_t seed, int32_t x, int32_t y) {
    uint32_t h =
        seed * 0x9E3779B9u ^ static_cast<uint32_t>(x) * 0x85EBCA6Bu ^ static_cast<uint32_t>(y) * 0xC2B2AE35u;
    h = (h ^ (h >> 16)) * 0x7FEB352Du;
    h = (h ^ (h >> 15)) * 0x846CA68Bu;
    return ((h ^ (h >> 16)) >> 8) / 16777216.0;
}

// Value noise with a quintic fade, smooth to the second derivative, in
// octaves from 4 to 32 pixels: fine enough to pin a vector to a fraction of
// a pixel, coarse enough that nothing aliases.
double Texture(uint32_t seed, double x, double y) {
    static constexpr double kPeriod[] = {4, 8, 16, 32}, kWeight[] = {0.3, 0.3, 0.2, 0.2};
    const auto fade = [](double t) { return t * t * t * (t * (t * 6 - 15) + 10); };
    double sum = 0;
    for (int o = 0; o < 4; ++o) {
        const uint32_t s = seed * 4 + o;
        const double px = x / kPeriod[o], py = y / kPeriod[o], fx = std::floor(px), fy = std::floor(py);
        const int32_t ix = static_cast<int32_t>(fx), iy = static_cast<int32_t>(fy);
        const double u = fade(px - fx), v = fade(py - fy);
        const double bottom = Lattice(s, ix, iy) + u * (Lattice(s, ix + 1, iy) - Lattice(s, ix, iy));
        const double top = Lattice(s, ix, iy + 1) + u * (Lattice(s, ix + 1, iy + 1) - Lattice(s, ix, iy + 1));
        sum += kWeight[o] * (bottom + v * (top - bottom));
    }
    return 0.05 + 0.9 * sum;
}

// The distance from the pixel centre to the centre of the disc at time t.
double FromCentre(const MovingDisc& disc, int t, int i, int j) {
    return std::hypot(i + 0.5 - disc.x - disc.vx * t, j + 0.5 - disc.y - disc.vy * t);
}

}  // namespace

HostPixels RenderScene(const MovingScene& scene, int t, PixelDepth depth) {
    HostPixels image;
    image.width = scene.width;
    image.height = scene.height;
    image.depth = depth;
    image.data.resize(static_cast<size_t>(scene.height) * image.rowBytes());
    const double ox = scene.vx * t + 0.5 * scene.ax * t * t, oy = scene.vy * t + 0.5 * scene.ay * t * t;
    unsigned char* p = image.data.data();
    for (int j = 0; j < scene.height; ++j)
        for (int i = 0; i < scene.width; ++i) {
            const double grey = Texture(scene.seed, i + 0.5 - ox, j + 0.5 - oy);
            float rgba[4] = {float(grey), float(grey), float(grey), 1.0f};
            for (const MovingDisc& disc : scene.discs) {
                const double cover = std::clamp(disc.radius - FromCentre(disc, t, i, j) + 0.5, 0.0, 1.0);
                if (cover <= 0) continue;
                const double tex =
                    Texture(disc.seed, i + 0.5 - disc.x - disc.vx * t, j + 0.5 - disc.y - disc.vy * t);
                const double tint[3] = {1.0, 0.85, 0.7};
                for (int c = 0; c < 3; ++c) rgba[c] = float(rgba[c] + cover * (tex * tint[c] - rgba[c]));
            }
            for (int c = 0; c < 4; ++c, p += image.bytesPerComponent()) {
                if (depth == PixelDepth::Float) std::memcpy(p, &rgba[c], 4);
                const uint16_t code = static_cast<uint16_t>(std::lround(rgba[c] * 65535.0));
                if (depth == PixelDepth::Short) std::memcpy(p, &code, 2);
                if (depth == PixelDepth::Byte) *p = static_cast<unsigned char>(std::lround(rgba[c] * 255.0));
            }
        }
    return image;
}

int DiscAt(const MovingScene& scene, int t, int i, int j) {
    int found = -1;
    for (size_t k = 0; k < scene.discs.size(); ++k)
        if (FromCentre(scene.discs[k], t, i, j) < scene.discs[k].radius) found = static_cast<int>(k);
    return found;
}

double DistanceToOutline(const MovingScene& scene, int t, int i, int j) {
    double nearest = std::numeric_limits<double>::infinity();
    for (const MovingDisc& disc : scene.discs)
        nearest = std::min(nearest, std::abs(FromCentre(disc, t, i, j) - disc.radius));
    return nearest;
}
