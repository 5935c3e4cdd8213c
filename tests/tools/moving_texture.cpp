#include "moving_texture.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

uint32_t Hash(uint32_t seed, int32_t x, int32_t y) {
    uint32_t h =
        seed * 0x9E3779B9u ^ static_cast<uint32_t>(x) * 0x85EBCA6Bu ^ static_cast<uint32_t>(y) * 0xC2B2AE35u;
    h ^= h >> 16;
    h *= 0x7FEB352Du;
    h ^= h >> 15;
    h *= 0x846CA68Bu;
    h ^= h >> 16;
    return h;
}

double Lattice(uint32_t seed, int32_t x, int32_t y) {
    return (Hash(seed, x, y) >> 8) / 16777216.0;
}

// Quintic fade: the noise has continuous first and second derivatives, so a
// sub-pixel shift changes every pixel smoothly.
double Fade(double t) {
    return t * t * t * (t * (t * 6 - 15) + 10);
}

double Noise(uint32_t seed, double x, double y) {
    const double fx = std::floor(x), fy = std::floor(y);
    const int32_t ix = static_cast<int32_t>(fx), iy = static_cast<int32_t>(fy);
    const double u = Fade(x - fx), v = Fade(y - fy);
    const double bottom = Lattice(seed, ix, iy) + u * (Lattice(seed, ix + 1, iy) - Lattice(seed, ix, iy));
    const double top =
        Lattice(seed, ix, iy + 1) + u * (Lattice(seed, ix + 1, iy + 1) - Lattice(seed, ix, iy + 1));
    return bottom + v * (top - bottom);
}

// Octaves from 4 to 32 pixels: fine enough to pin a vector to a fraction of a
// pixel, coarse enough that nothing aliases.
double Texture(uint32_t seed, double x, double y) {
    static constexpr double kPeriod[] = {4, 8, 16, 32};
    static constexpr double kWeight[] = {0.3, 0.3, 0.2, 0.2};
    double sum = 0;
    for (int o = 0; o < 4; ++o) sum += kWeight[o] * Noise(seed * 4 + o, x / kPeriod[o], y / kPeriod[o]);
    return 0.05 + 0.9 * sum;
}

void DiscCentre(const MovingDisc& disc, int t, double& x, double& y) {
    x = disc.x + disc.vx * t;
    y = disc.y + disc.vy * t;
}

}  // namespace

void BackgroundOffset(const MovingScene& scene, int t, double& x, double& y) {
    x = scene.vx * t + 0.5 * scene.ax * t * t;
    y = scene.vy * t + 0.5 * scene.ay * t * t;
}

HostPixels RenderScene(const MovingScene& scene, int t, PixelDepth depth) {
    HostPixels image;
    image.width = scene.width;
    image.height = scene.height;
    image.depth = depth;
    image.data.resize(static_cast<size_t>(scene.height) * image.rowBytes());
    double ox, oy;
    BackgroundOffset(scene, t, ox, oy);
    for (int j = 0; j < scene.height; ++j)
        for (int i = 0; i < scene.width; ++i) {
            const double x = i + 0.5, y = j + 0.5;
            const double grey = Texture(scene.seed, x - ox, y - oy);
            float rgba[4] = {float(grey), float(grey), float(grey), 1.0f};
            for (const MovingDisc& disc : scene.discs) {
                double cx, cy;
                DiscCentre(disc, t, cx, cy);
                const double cover = std::clamp(disc.radius - std::hypot(x - cx, y - cy) + 0.5, 0.0, 1.0);
                if (cover <= 0) continue;
                const double tex = Texture(disc.seed, x - cx, y - cy);
                const double tint[3] = {1.0, 0.85, 0.7};
                for (int c = 0; c < 3; ++c) rgba[c] = float(rgba[c] + cover * (tex * tint[c] - rgba[c]));
            }
            unsigned char* p = image.data.data() + static_cast<size_t>(j) * image.rowBytes() +
                               static_cast<size_t>(i) * 4 * image.bytesPerComponent();
            for (int c = 0; c < 4; ++c) {
                if (depth == PixelDepth::Float) {
                    std::memcpy(p + 4 * c, &rgba[c], 4);
                } else if (depth == PixelDepth::Short) {
                    const uint16_t code = static_cast<uint16_t>(std::lround(rgba[c] * 65535.0));
                    std::memcpy(p + 2 * c, &code, 2);
                } else {
                    p[c] = static_cast<unsigned char>(std::lround(rgba[c] * 255.0));
                }
            }
        }
    return image;
}

int DiscAt(const MovingScene& scene, int t, int i, int j) {
    int found = -1;
    for (size_t k = 0; k < scene.discs.size(); ++k) {
        double cx, cy;
        DiscCentre(scene.discs[k], t, cx, cy);
        if (std::hypot(i + 0.5 - cx, j + 0.5 - cy) < scene.discs[k].radius) found = static_cast<int>(k);
    }
    return found;
}

double DistanceToOutline(const MovingScene& scene, int t, int i, int j) {
    double nearest = std::numeric_limits<double>::infinity();
    for (const MovingDisc& disc : scene.discs) {
        double cx, cy;
        DiscCentre(disc, t, cx, cy);
        nearest = std::min(nearest, std::abs(std::hypot(i + 0.5 - cx, j + 0.5 - cy) - disc.radius));
    }
    return nearest;
}
