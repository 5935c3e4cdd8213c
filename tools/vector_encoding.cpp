#include "vector_encoding.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

double largestComponent(const RawVectors& motion) {
    double largest = 0.0;
    for (size_t i = 0; i < motion.size(); ++i) {
        if (!motion.isKnown(i) || !std::isfinite(motion.dx[i]) || !std::isfinite(motion.dy[i])) continue;
        largest = std::max({largest, std::fabs(static_cast<double>(motion.dx[i])),
                            std::fabs(static_cast<double>(motion.dy[i]))});
    }
    return largest;
}

double maxDisplaceFor(double largest) {
    constexpr double kSmallest = 1.0 / 1024.0, kLargest = 10000.0;
    if (!(largest > 0.0)) return 1.0;
    double m = kSmallest;
    while (m < largest && m < kLargest) m *= 2.0;
    return std::min(m, kLargest);
}

void encodeVectors(const RawVectors& motion, double maxDisplace, PixelDepth depth, HostPixels& clip) {
    clip.width = motion.width;
    clip.height = motion.height;
    clip.depth = depth;
    clip.alpha = AlphaState::Unpremultiplied;  // the codes are stored as they are, never divided by alpha
    clip.fileHeader = OIIO::ImageSpec();
    clip.data.assign(clip.rowBytes() * static_cast<size_t>(clip.height), 0);
    const float m = static_cast<float>(maxDisplace);
    for (size_t i = 0; i < motion.size(); ++i) {
        const bool known = motion.isKnown(i) && std::isfinite(motion.dx[i]) && std::isfinite(motion.dy[i]);
        const float d[2] = {known ? motion.dx[i] : 0.0f, known ? motion.dy[i] : 0.0f};
        if (depth == PixelDepth::Float) {
            const float rgba[4] = {0.5f + 0.5f * (d[0] / m), 0.5f + 0.5f * (d[1] / m), 0.0f,
                                   known ? 1.0f : 0.0f};
            std::memcpy(clip.data.data() + i * sizeof rgba, rgba, sizeof rgba);
        } else {
            uint16_t rgba[4] = {0, 0, 0, static_cast<uint16_t>(known ? 65535 : 0)};
            for (int c = 0; c < 2; ++c) {
                const double code = std::round(32767.0 + 32767.0 * (static_cast<double>(d[c]) / maxDisplace));
                rgba[c] = static_cast<uint16_t>(std::clamp(code, 0.0, 65535.0));
            }
            std::memcpy(clip.data.data() + i * sizeof rgba, rgba, sizeof rgba);
        }
    }
}

std::string whyNoKnownVector(const HostPixels& clip) {
    float largest = -INFINITY;
    bool any = false;
    for (int y = 0; y < clip.height; ++y)
        for (int x = 0; x < clip.width; ++x) {
            const float a = clip.at(x, y, 3);
            // at() scales integers by their white, so full is exactly 1 at every depth.
            if (a == 1.0f) return "";
            if (!std::isnan(a)) largest = any ? std::max(largest, a) : a;
            any = any || !std::isnan(a);
        }
    const char* full = clip.depth == PixelDepth::Byte    ? "255"
                       : clip.depth == PixelDepth::Short ? "65535"
                                                         : "exactly 1";
    char text[160];
    if (!any) {
        std::snprintf(text, sizeof text, "alpha is %s nowhere", full);
    } else if (clip.depth == PixelDepth::Float) {
        std::snprintf(text, sizeof text, "alpha is %s nowhere (largest alpha %.7g%s)", full, largest,
                      largest > 1.0f ? "; alpha above 1 is a hole too" : "");
    } else {
        const double white = clip.depth == PixelDepth::Byte ? 255.0 : 65535.0;
        std::snprintf(text, sizeof text, "alpha is %s nowhere (largest alpha %.0f)", full, largest * white);
    }
    return text;
}
