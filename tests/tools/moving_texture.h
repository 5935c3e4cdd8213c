// Synthetic footage with exactly known motion, for the motion estimator's
// tests and benchmark: a textured background in uniform translation and
// textured discs that travel over it in straight lines. Texture is smooth
// value noise evaluated at any real position, so a sub-pixel move is exact,
// and a disc's outline is antialiased by its coverage of each pixel.
//
// Coordinates are the host's: row 0 is the bottom row, y and velocities point
// up the picture; pixel (i, j) has its centre at (i + 0.5, j + 0.5).
#pragma once

#include <cstdint>
#include <vector>

#include "image_file.h"

struct MovingDisc {
    double x = 0, y = 0;  // centre at time 0
    double radius = 36;
    double vx = 0, vy = 0;  // pixels per frame
    uint32_t seed = 2;
};

struct MovingScene {
    int width = 256;
    int height = 192;
    // The background sits at v t + a t^2 / 2: it moves by v + a / 2 from
    // frame 0 to 1 and by v + 3a / 2 from frame 1 to 2.
    double vx = 0, vy = 0;  // pixels per frame
    double ax = 0, ay = 0;  // pixels per frame per frame
    uint32_t seed = 1;
    std::vector<MovingDisc> discs;  // later ones in front
};

// The frame at time t (a whole frame number), RGBA in the given depth with
// alpha 1. Float frames are linear light; 8- and 16-bit ones hold the same
// values as stored codes.
HostPixels RenderScene(const MovingScene& scene, int t, PixelDepth depth = PixelDepth::Float);

// Where the background's texture origin sits at time t.
void BackgroundOffset(const MovingScene& scene, int t, double& x, double& y);

// Index of the frontmost disc whose outline contains the pixel centre at time
// t, or -1 for the background.
int DiscAt(const MovingScene& scene, int t, int i, int j);

// The distance from the pixel centre to the nearest disc outline at time t
// (infinite without discs): pixels near an outline are ambiguous between two
// layers, so tests leave them out.
double DistanceToOutline(const MovingScene& scene, int t, int i, int j);
