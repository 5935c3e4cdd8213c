// Synthetic footage with exactly known motion, for the motion estimator's
// tests and benchmark: a textured background in uniform translation and
// textured discs that travel over it in straight lines. The texture is smooth
// value noise at any real position, so a sub-pixel move is exact; a disc's
// outline is antialiased by its coverage of each pixel.
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

// The frame at time t, RGBA with alpha 1; 8- and 16-bit frames hold the float
// frame's values as codes.
HostPixels RenderScene(const MovingScene& scene, int t, PixelDepth depth = PixelDepth::Float);

// Index of the frontmost disc whose outline contains the pixel centre at time
// t, or -1 for the background.
int DiscAt(const MovingScene& scene, int t, int i, int j);

// The distance from the pixel centre to the nearest disc outline at time t
// (infinite without discs): pixels near an outline belong to neither layer.
double DistanceToOutline(const MovingScene& scene, int t, int i, int j);
