// The triangle rasteriser of the mesh warp and its driver. Every member of the
// family is one instantiation of WarpTriangleMember: the element type enters
// only at the load and store, the channel count is a compile-time loop bound,
// and PLWarpMesh picks the member once through the format visit.
#include "warp/mesh_warp.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "image/bilinear.h"
#include "image/lanes.h"
#include "image/pixel_format.h"

// Other library code fills the mesh record by position.
static_assert(offsetof(PLMeshWarp, source) == 0 && offsetof(PLMeshWarp, target) == 8 &&
                  offsetof(PLMeshWarp, reserved0) == 16 && offsetof(PLMeshWarp, reserved1) == 24 &&
                  offsetof(PLMeshWarp, flow) == 32 && offsetof(PLMeshWarp, reserved2) == 40 &&
                  offsetof(PLMeshWarp, flowWidth) == 48 && offsetof(PLMeshWarp, flowHeight) == 52 &&
                  offsetof(PLMeshWarp, meshHeight) == 56 && offsetof(PLMeshWarp, meshExtent) == 60 &&
                  offsetof(PLMeshWarp, gridColumns) == 64 && offsetof(PLMeshWarp, gridRows) == 68,
              "PLMeshWarp fields in their fixed order");

namespace {

// The bilinear sample of the warp: a position left of or above the image
// (the mesh keeps u and v at 0 or above; also NaN, or one too large for an
// int32) takes the first column or row itself.
template <typename P, int32_t Channels>
using WarpSampler = PLBilinearReader<P, Channels, PLBeforeFirst::kFirstSample>;

struct WarpVertex {
    float x, y, u, v, extra;
};

// An edge crossing the current row: its end points, its values at the row and
// their change per row.
struct ActiveEdge {
    float x0, x1, y0, y1;
    float x, u, v;
    float slopeX, slopeU, slopeV;
};

// A float row counter stalls at 2^24, where adding 1 rounds back to it; the
// scan ends on the row before so that it always terminates.
constexpr float kLastSteppableRow = 16777215.0f;

// Integer targets add 0.5 and truncate with no clamp, float targets add 0.0.
template <typename SourcePixel, typename TargetPixel, int32_t Channels>
class TriangleWarper {
  public:
    TriangleWarper(const PLImage* source, PLImage* target, int32_t xLimit, int32_t yLimit)
        : sampler_(*source), target_(target), xLimit_(xLimit), yLimit_(yLimit) {}

    void Draw(const float* triangle) {
        const float* x = triangle;
        const float* y = triangle + 1;
        constexpr int32_t n = PLWarpVertexFloats;
        const float xl = static_cast<float>(xLimit_);
        const float yl = static_cast<float>(yLimit_);
        if ((x[0] < 0.0f && x[n] < 0.0f && x[2 * n] < 0.0f) ||
            (y[0] < 0.0f && y[n] < 0.0f && y[2 * n] < 0.0f) || (x[0] > xl && x[n] > xl && x[2 * n] > xl) ||
            (y[0] > yl && y[n] > yl && y[2 * n] > yl)) {
            return;
        }

        // Sorted by y; equal ones keep their order.
        std::array<WarpVertex, 3> s;
        std::memcpy(s.data(), triangle, sizeof s);
        for (int32_t i = 1; i < 3; ++i) {
            for (int32_t k = i; k > 0 && s[k].y < s[k - 1].y; --k) std::swap(s[k], s[k - 1]);
        }

        const float start = std::max(std::ceil(s[0].y), 0.0f);
        float end = std::min(yl, std::floor(s[2].y));
        // Rows beyond the target are never written, whatever yLimit says.
        end = std::min(end, static_cast<float>(target_->lastRow));
        end = std::min(end, kLastSteppableRow);

        std::array<ActiveEdge, 2> edges{};
        int32_t count = 0;
        int32_t next = 0;
        for (float row = start; row <= end; row += 1.0f) {
            while (next < 3 && row >= s[next].y) {
                Retire(edges, count, row);
                static constexpr int32_t kFarEnds[3][2] = {{1, 2}, {2, 0}, {0, 1}};
                TryEdge(s[next], s[kFarEnds[next][0]], row, edges, count);
                TryEdge(s[next], s[kFarEnds[next][1]], row, edges, count);
                ++next;
            }
            for (ActiveEdge& e : edges) {
                e.x += e.slopeX;
                e.u += e.slopeU;
                e.v += e.slopeV;
            }
            if (count == 2) {
                const bool secondLeft = edges[1].x < edges[0].x;
                const ActiveEdge& l = secondLeft ? edges[1] : edges[0];
                const ActiveEdge& r = secondLeft ? edges[0] : edges[1];
                DrawSpan(row, l.x, l.u, l.v, r.x, r.u, r.v, 1e-8f);
            }
        }

        // The scan's rule a.y <= row < b.y drops a lower edge lying exactly on
        // the last row; this pass draws it.
        if (s[1].y == yl && s[2].y == s[1].y) {
            const bool s1Left = s[1].x < s[2].x;
            const WarpVertex& l = s1Left ? s[1] : s[2];
            const WarpVertex& r = s1Left ? s[2] : s[1];
            const float row = std::trunc(l.y);
            if (row < 0.0f || row > yl || l.y - row > 0.01f) return;
            if (PLTruncI32(row) > target_->lastRow) return;
            DrawSpan(row, l.x, l.u, l.v, r.x, r.u, r.v, 1e-5f);
        }
    }

  private:
    static void Retire(std::array<ActiveEdge, 2>& edges, int32_t& count, float row) {
        auto over = [row](const ActiveEdge& e) { return row >= e.y0 && row >= e.y1; };
        if (count == 1) {
            if (over(edges[0])) count = 0;
        } else if (count == 2) {
            const bool firstOver = over(edges[0]);
            const bool secondOver = over(edges[1]);
            if (firstOver && secondOver) {
                count = 0;
            } else if (firstOver) {
                edges[0] = edges[1];
                count = 1;
            } else if (secondOver) {
                count = 1;
            }
        }
    }

    // Accepts the edge only if it crosses the row going down, so horizontal
    // edges and edges given upside down never enter. The current values are
    // set for the row before: the advance brings them to this row.
    static void TryEdge(const WarpVertex& a, const WarpVertex& b, float row, std::array<ActiveEdge, 2>& edges,
                        int32_t& count) {
        if (!(a.y <= row && row < b.y)) return;
        ActiveEdge& e = count == 0 ? edges[0] : edges[1];
        ++count;
        const float inv = 1.0f / (b.y - a.y);
        const float back = row - 1.0f - a.y;
        e.x0 = a.x;
        e.x1 = b.x;
        e.y0 = a.y;
        e.y1 = b.y;
        e.slopeX = (b.x - a.x) * inv;
        e.slopeU = (b.u - a.u) * inv;
        e.slopeV = (b.v - a.v) * inv;
        e.x = a.x + back * inv * (b.x - a.x);
        e.u = a.u + back * inv * (b.u - a.u);
        e.v = a.v + back * inv * (b.v - a.v);
    }

    void DrawSpan(float row, float lx, float lu, float lv, float rx, float ru, float rv, float minSpan) {
        const int32_t first = std::max(PLTruncI32(std::ceil(lx)), 0);
        int32_t last = std::min(PLTruncI32(std::floor(rx)), xLimit_);
        const float span = rx - lx;
        if (!(first <= last && span > minSpan)) return;
        // Columns beyond the target are never written, whatever xLimit says.
        last = std::min(last, target_->lastColumn);
        if (first > last) return;

        const float inv = 1.0f / span;
        const float t = (static_cast<float>(first) - lx) * inv;
        float u = lu + t * (ru - lu);
        float v = lv + t * (rv - lv);
        const float stepU = (ru - lu) * inv;
        const float stepV = (rv - lv) * inv;
        uint8_t* pixel = target_->Row(static_cast<int32_t>(row)) + PLOffset(first, target_->pixelStride);
        constexpr int32_t bytes = sizeof(typename TargetPixel::Element);
        for (int32_t c = first; c <= last; ++c) {
            const PLLanes value = sampler_.Read(u, v);
            for (int32_t k = 0; k < Channels; ++k)
                TargetPixel::Store(pixel + k * bytes, TargetPixel::Round(value[k]));
            pixel += target_->pixelStride;
            u += stepU;
            v += stepV;
        }
    }

    WarpSampler<SourcePixel, Channels> sampler_;
    PLImage* target_;
    int32_t xLimit_;
    int32_t yLimit_;
};

using TriangleMember = void (*)(const float* triangle, const PLImage* source, PLImage* target, int32_t xLimit,
                                int32_t yLimit);

template <typename SourcePixel, typename TargetPixel, int32_t Channels>
void WarpTriangleMember(const float* triangle, const PLImage* source, PLImage* target, int32_t xLimit,
                        int32_t yLimit) {
    TriangleWarper<SourcePixel, TargetPixel, Channels>(source, target, xLimit, yLimit).Draw(triangle);
}

// The one dispatch point of the family: source format by target type; null
// where it has no member.
TriangleMember SelectMember(const PLImage* source, const PLImage* target) {
    if (!PLHasPixels(source) || !PLHasPixels(target)) return nullptr;
    // Every written pixel takes the source's channel count.
    if (target->numChannels < source->numChannels) return nullptr;
    TriangleMember member = nullptr;
    PLVisitFormat(source->pixelType, source->numChannels, [&](auto sourceFormat) {
        using SourceFormat = decltype(sourceFormat);
        PLVisitPixelType(target->pixelType, [&](auto targetPixel) {
            member = &WarpTriangleMember<typename SourceFormat::Traits, decltype(targetPixel),
                                         SourceFormat::kChannels>;
        });
    });
    return member;
}

bool IsFlow(const PLImage* flow) {
    return PLHasPixels(flow) && flow->pixelType == PLPixelFloat && flow->numChannels >= 2;
}

// An extent less one, as a float; 64-bit so that no extent can overflow.
float LessOne(int32_t extent) {
    return static_cast<float>(static_cast<int64_t>(extent) - 1);
}

}  // namespace

void PLWarpTriangle(const float* triangle, [[maybe_unused]] int32_t flag, const PLImage* source,
                    PLImage* target, int32_t xLimit, int32_t yLimit) {
    if (!triangle) return;
    if (const TriangleMember draw = SelectMember(source, target))
        draw(triangle, source, target, xLimit, yLimit);
}

void PLSampleFlow(float x, float y, float scaleX, float scaleY, const PLImage* flow, float* dx, float* dy) {
    if (!IsFlow(flow)) {
        *dx = 0.0f;
        *dy = 0.0f;
        return;
    }
    if (scaleX == 1.0f && scaleY == 1.0f) {
        // Kept inside the flow: a grid point off the flow reads its edge.
        const int32_t ix = std::clamp(PLTruncI32(x), 0, flow->lastColumn);
        const int32_t iy = std::clamp(PLTruncI32(y), 0, flow->lastRow);
        const uint8_t* pixel = flow->Row(iy) + PLOffset(ix, flow->pixelStride);
        *dx = PLLoadElement<float>(pixel);
        *dy = PLLoadElement<float>(pixel + sizeof(float));
        return;
    }
    const PLLanes d =
        PLBilinearReader<PLPixel<PLPixelFloat>, 2, PLBeforeFirst::kFirstSample, true>(*flow).Read(x * scaleX,
                                                                                                  y * scaleY);
    *dx = d[0];
    *dy = d[1];
}

void PLWarpMesh(float amount, PLMeshWarp* mesh) {
    if (!mesh) return;
    mesh->reserved0 = 0;
    mesh->reserved1 = 0;
    const TriangleMember draw = SelectMember(mesh->source, mesh->target);
    // With fewer than two grid points on an axis there is no cell, and with
    // no column or row of the mesh there is nothing to write.
    if (!draw || !IsFlow(mesh->flow) || mesh->gridColumns < 2 || mesh->gridRows < 2 || mesh->meshExtent < 1 ||
        mesh->meshHeight < 1) {
        return;
    }
    const float cellScale = LessOne(mesh->meshExtent) / LessOne(mesh->gridColumns);
    const float flowScaleX = LessOne(mesh->flowWidth) / LessOne(mesh->gridColumns);
    const float flowScaleY = LessOne(mesh->flowHeight) / LessOne(mesh->gridRows);
    const float amountX = amount / flowScaleX;
    const float amountY = amount / flowScaleY;
    const int32_t xLimit = mesh->meshExtent - 1;
    const int32_t yLimit = mesh->meshHeight - 1;

    const auto setVertex = [&](float* vertex, int32_t gridX, int32_t gridY) {
        const float p = static_cast<float>(gridX);
        const float q = static_cast<float>(gridY);
        float dx;
        float dy;
        PLSampleFlow(p, q, flowScaleX, flowScaleY, mesh->flow, &dx, &dy);
        vertex[0] = (amountX * dx + p) * cellScale;
        vertex[1] = (amountY * dy + q) * cellScale;
        vertex[2] = p;
        vertex[3] = q;
    };

    float triangle[3 * PLWarpVertexFloats] = {};
    for (int32_t j = 0; j <= mesh->gridRows - 2; ++j) {
        for (int32_t i = 0; i <= mesh->gridColumns - 2; ++i) {
            setVertex(triangle, i, j);
            setVertex(triangle + PLWarpVertexFloats, i + 1, j);
            setVertex(triangle + 2 * PLWarpVertexFloats, i, j + 1);
            draw(triangle, mesh->source, mesh->target, xLimit, yLimit);
            setVertex(triangle, i + 1, j + 1);
            draw(triangle, mesh->source, mesh->target, xLimit, yLimit);
        }
    }
}
