// Motion blur engine: the entry that turns a source frame and a vector frame
// into the output frame, the row-parallel blur along the vectors, and the blend
// that a negative amount uses to extrapolate from the blur back through the
// source. Everything here works on PLImage records and throws PLErr, except the
// entry, which returns the code.
#pragma once

#include <cstdint>

#include "image/plimage.h"
#include "mp/kqmp.h"
#include "mp/progress.h"

class QVImage;

// How the blur samples the source: the plug-in blurs bilinearly; any mode but
// bilinear samples the nearest pixel.
enum PLBlurMode : int32_t {
    PLBlurNearest = 0,
    PLBlurBilinear = 1,
};

// One frame: decode and fill the flow at the vector frame's size, blur the
// source into the output (mode a PLBlurMode), and stamp
// the demo imprint when stamp is non-zero. Returns 0 or the PLErr code; the
// output may be partly written after an abort.
int32_t TrelvoVectorsBlur(QVImage* output, QVImage* source, QVImage* vectors, int64_t mode, int64_t stamp,
                          QVIdleAndProgressClass* progress, float amount, float maxDisplace, float scaleX,
                          float scaleY);

// The blur over the whole source. `unused` is accepted for callers that pass it
// and has no effect.
void PLMotionBlur(PLImage* output, const PLImage* source, const PLImage* flow, int32_t mode, int32_t unused,
                  QVIdleAndProgressClass* progress, bool countOutside, float amount);

// The blur over columns x0..x1 and rows y0..y1 (inclusive). The plug-in runs
// the bilinear, stop-at-edge body; nearest sampling and the count-outside rule
// are kept for completeness. Throws PLErrFailed
// for images that don't go together, and the first worker's PLErr after the job.
void PLMotionBlurRegion(PLImage* output, const PLImage* source, const PLImage* flow, float amount,
                        int32_t mode, QVIdleAndProgressClass* progress, bool countOutside, int32_t x0,
                        int32_t x1, int32_t y0, int32_t y1);

// Row worker of PLMotionBlurRegion. Arguments: output, source, flow, float* amount,
// int32_t* mode, progress, int32_t* status, int32_t* interrupted,
// uint8_t* countOutside, int32_t* x0, int32_t* x1, int32_t* y0.
void PLMotionBlurRows(int32_t threadIndex, bool isFirstWorker, int32_t firstRow, int32_t lastRow,
                      kqmp_args* args);

// first = second + (first - second) * t on four-channel images of one layout,
// in place in first. t = 1 keeps first, t = 0 gives second. Other channel
// counts go to PLBlend.
bool PLBlendMP(float t, PLImage* first, const PLImage* second);

// Row worker of PLBlendMP. Arguments: first, second, const float* t.
void PLBlendRows(int32_t threadIndex, bool isFirstWorker, int32_t firstRow, int32_t lastRow, kqmp_args* args);

// 1 when the two images share size, channel count (3 or 4), element size,
// row order and pixel type; else 0.
int32_t PLBlendCompatible(const PLImage* first, const PLImage* second);

// The older single-threaded blend. fieldMode 1 blends every row, 3 the odd
// rows, anything else the even rows. Returns 1 on success, 0 when it did nothing.
// Kept for completeness: the engine's four-channel images never reach it.
int32_t PLBlend(float t, PLImage* first, const PLImage* second, int32_t fieldMode);
