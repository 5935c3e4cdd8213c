#include "demo_shot.h"

#include <cmath>

namespace {

constexpr float kPi = 3.14159265358979f;
constexpr int kSuper = 4;  // samples per axis for smooth edges
constexpr float kBackgroundSpeed = -2.0f;
constexpr float kBand = 1.0f;  // pixels either side of an outline with no known vector

struct Disc {
    float cx, cy, r, vx, vy;
};
struct Square {
    float cx, cy, half, angle, vx, vy, spin;
};

Disc DiscAt(const DemoShot& s, int frame) {
    const float t = static_cast<float>(frame);
    const float cx = s.width * 0.15f + 14.0f * t;
    const float cy = s.height * 0.55f + 10.0f * std::sin(t * 0.6f);
    const float vy = 10.0f * std::sin((t + 1.0f) * 0.6f) - 10.0f * std::sin(t * 0.6f);
    return {cx, cy, s.height * 0.14f, 14.0f, vy};
}

Square SquareAt(const DemoShot& s, int frame) {
    const float t = static_cast<float>(frame);
    return {s.width * 0.7f - 6.0f * t, s.height * 0.35f, s.height * 0.13f, t * (kPi / 24.0f), -6.0f, 3.0f,
            kPi / 24.0f};
}

// Signed distance to the square's outline (negative inside).
float SquareDistance(const Square& q, float x, float y) {
    const float c = std::cos(-q.angle), s = std::sin(-q.angle);
    const float lx = (x - q.cx) * c - (y - q.cy) * s;
    const float ly = (x - q.cx) * s + (y - q.cy) * c;
    return std::fmax(std::fabs(lx), std::fabs(ly)) - q.half;
}

float DiscDistance(const Disc& d, float x, float y) { return std::hypot(x - d.cx, y - d.cy) - d.r; }

void Background(float u, float v, float* rgb) {
    const bool check = (static_cast<int>(std::floor(u / 24.0f)) + static_cast<int>(std::floor(v / 24.0f))) & 1;
    const float stripe = 0.5f + 0.5f * std::sin(u * 0.21f + v * 0.13f);
    const float base = check ? 0.55f : 0.25f;
    rgb[0] = base * (0.7f + 0.3f * stripe);
    rgb[1] = base * (0.8f + 0.2f * stripe) + 0.05f;
    rgb[2] = base * 0.9f + 0.1f * stripe;
}

void Shade(const DemoShot& s, int frame, float x, float y, float* rgb) {
    const Square q = SquareAt(s, frame);
    const Disc d = DiscAt(s, frame);
    if (DiscDistance(d, x, y) <= 0.0f) {
        const float ring = 0.5f + 0.5f * std::cos(std::hypot(x - d.cx, y - d.cy) * 0.5f);
        rgb[0] = 0.95f;
        rgb[1] = 0.45f + 0.3f * ring;
        rgb[2] = 0.1f;
    } else if (SquareDistance(q, x, y) <= 0.0f) {
        const float c = std::cos(-q.angle), sn = std::sin(-q.angle);
        const float lx = (x - q.cx) * c - (y - q.cy) * sn;
        const bool band = static_cast<int>(std::floor((lx + q.half) / 8.0f)) & 1;
        rgb[0] = band ? 0.15f : 0.9f;
        rgb[1] = band ? 0.35f : 0.9f;
        rgb[2] = band ? 0.85f : 0.95f;
    } else {
        Background(x - kBackgroundSpeed * static_cast<float>(frame), y, rgb);
    }
}

}  // namespace

std::vector<float> RenderSource(const DemoShot& s, int frame) {
    std::vector<float> px(static_cast<size_t>(s.width) * s.height * 4);
    for (int y = 0; y < s.height; ++y)
        for (int x = 0; x < s.width; ++x) {
            float acc[3] = {0, 0, 0};
            for (int j = 0; j < kSuper; ++j)
                for (int i = 0; i < kSuper; ++i) {
                    float rgb[3];
                    Shade(s, frame, x + (i + 0.5f) / kSuper, y + (j + 0.5f) / kSuper, rgb);
                    for (int c = 0; c < 3; ++c) acc[c] += rgb[c];
                }
            float* p = &px[(static_cast<size_t>(y) * s.width + x) * 4];
            for (int c = 0; c < 3; ++c) p[c] = acc[c] / (kSuper * kSuper);
            p[3] = 1.0f;
        }
    return px;
}

Motion MotionAt(const DemoShot& s, int frame, float x, float y) {
    const Disc d = DiscAt(s, frame);
    const Square q = SquareAt(s, frame);
    const float dd = DiscDistance(d, x, y);
    const float qd = SquareDistance(q, x, y);
    const bool known = std::fabs(dd) > kBand && std::fabs(qd) > kBand;
    if (dd <= 0.0f) return {d.vx, d.vy, known};
    if (qd <= 0.0f) {
        // Turn about the centre, then travel.
        const float c = std::cos(q.spin), sn = std::sin(q.spin);
        const float rx = (x - q.cx) * c - (y - q.cy) * sn + q.cx;
        const float ry = (x - q.cx) * sn + (y - q.cy) * c + q.cy;
        return {rx + q.vx - x, ry + q.vy - y, known};
    }
    return {kBackgroundSpeed, 0.0f, known};
}

std::vector<float> RenderVectors(const DemoShot& s, int frame) {
    std::vector<float> px(static_cast<size_t>(s.width) * s.height * 4);
    for (int y = 0; y < s.height; ++y)
        for (int x = 0; x < s.width; ++x) {
            const Motion m = MotionAt(s, frame, x + 0.5f, y + 0.5f);
            float* p = &px[(static_cast<size_t>(y) * s.width + x) * 4];
            p[0] = (m.dx / s.maxDisplace + 1.0f) * 0.5f;
            p[1] = (-m.dy / s.maxDisplace + 1.0f) * 0.5f;  // the plug-in's rows run up the picture
            p[2] = 0.5f;
            p[3] = m.known ? 1.0f : 0.0f;
        }
    return px;
}
