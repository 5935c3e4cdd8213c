// Mesh warp: a regular grid laid over the source, each grid point displaced
// by a flow image, each cell drawn into the target as two triangles whose
// pixels take a bilinear sample of the source. The rasteriser is one family of
// members (source type x target type x channel count) written once.
// Kept for completeness: no action of the plug-in calls the warp.
#pragma once

#include <cstdint>

#include "image/plimage.h"

// Floats per vertex of a triangle: x and y in the target, u and v in the
// source, and a fifth value that the sort carries along and nothing reads.
constexpr int32_t PLWarpVertexFloats = 5;

// The mesh record, as far as PLWarpMesh uses it.
struct PLMeshWarp : public QVMem {
    const PLImage* source = nullptr;
    PLImage* target = nullptr;
    uint64_t reserved0 = 0;  // both cleared at the start of PLWarpMesh
    uint64_t reserved1 = 0;
    const PLImage* flow = nullptr;  // two interleaved float channels
    uint64_t reserved2 = 0;
    int32_t flowWidth = 0;
    int32_t flowHeight = 0;
    int32_t meshHeight = 0;  // rows of the target the mesh may cover; yLimit is this less 1
    int32_t meshExtent = 0;  // columns likewise; it also sets the grid cell size on both axes
    int32_t gridColumns = 0;
    int32_t gridRows = 0;
};

// Draws one triangle (three vertices of PLWarpVertexFloats floats) into
// target, sampling source. xLimit and yLimit are the highest column and row
// that may be written, inclusive; nothing outside target is written whatever
// they say. flag takes no different path in these members. Does nothing for
// images the family has no member for, or a target with fewer channels than
// the source.
void PLWarpTriangle(const float* triangle, int32_t flag, const PLImage* source, PLImage* target,
                    int32_t xLimit, int32_t yLimit);

// The two flow components at grid point (x, y): read directly at
// (trunc x, trunc y) when both scales are exactly 1, else a bilinear sample at
// (x * scaleX, y * scaleY). Gives 0, 0 for a flow that is not a float image of
// at least two channels.
void PLSampleFlow(float x, float y, float scaleX, float scaleY, const PLImage* flow, float* dx, float* dy);

// Warps mesh->source into mesh->target along mesh->flow scaled by amount.
void PLWarpMesh(float amount, PLMeshWarp* mesh);
