// Hole filling of one image channel by a coarse-to-fine pull and push over an
// image pyramid: known samples and their weights are pulled down as Gaussian
// pyramids of value times weight and of weight, and the result is pushed back
// up, smoothed at every level, with the known values reimposed at the finest.
// PLFillFlowHoles runs it channel by channel.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/qvmem.h"
#include "image/plimage.h"
#include "mp/progress.h"

class PLSingleChannelFill : public QVMem {
  public:
    // All level images are made here, allocated but not cleared. A failure
    // leaves the object empty with `error` set, and is thrown if throwOnError is 1.
    PLSingleChannelFill(int32_t throwOnError, int32_t width, int32_t height);
    PLSingleChannelFill(int32_t width, int32_t height);
    virtual ~PLSingleChannelFill();

    PLSingleChannelFill(const PLSingleChannelFill&) = delete;
    PLSingleChannelFill& operator=(const PLSingleChannelFill&) = delete;

    // Takes one channel of `image` and builds the value and weight pyramids; a
    // vector is known where `mask` is zero.
    void load(const PLImage* image, int32_t channel, const PLImage* mask);
    // The coarse-to-fine pass; the result is filled[0]. Mode 0, the plug-in's,
    // is the only one built: the modes for scattered samples are not, and any
    // other mode clears the top level and does nothing more.
    void fill(QVIdleAndProgressClass* progress, int32_t mode);

    int32_t passes = 1;
    PLImage** filled = nullptr;
    PLImage** values = nullptr;
    PLImage** weights = nullptr;
    PLImage** scratch = nullptr;
    int32_t lastLevel = 0;
    int32_t width = 0;
    int32_t height = 0;
    int32_t topLevel = 0;
    int32_t error = 0;

  private:
    void build(int32_t throwOnError);
    void release();
};

// A smoothing of both axes chosen by strength: 0 a box of radius 2; 1 a
// Gaussian of radius 5 (7 for variant 1); 2 a Gaussian of radius 3 (5 for
// variant 1); any other strength nothing. The fill uses strength 1 of variant
// 0; the others are kept for completeness.
void PLSmoothLevel(PLImage* image, int32_t variant, int32_t strength);

// Fills the holes of every channel of image, one channel at a time; a vector
// is known where mask is zero. Kept for completeness: the engine fills with PLDecodeAndFillFlow.
void PLFillFlowHoles(PLImage* image, const PLImage* mask, QVIdleAndProgressClass* progress);

// Bytes of the scratch PLFillFlow carves its levels from for a width x height
// flow; throws PLErrOutOfMemory for a size that cannot be stated.
size_t PLFlowFillBytes(int32_t width, int32_t height);

// The same fill, to the bit, of a two-channel float flow: the weight pyramid
// built once, both channels through every stage together, each level smoothed
// from where it is into where it goes, and the flow's own memory used as the
// finest working level. `scratch` holds PLFlowFillBytes(width, height) bytes.
// A mask of another size or type, or a flow that isn't two float channels, is
// left alone.
void PLFillFlow(PLImage* flow, const PLImage* mask, QVIdleAndProgressClass* progress, uint8_t* scratch);

// PLFillFlow of the flow PLDecodeMotionVectors makes from `vectors`, with a
// hole wherever alpha is not white (the mask the engine makes by taking alpha
// and complementing it), to the bit, in one pass less and without either
// image: the flow's own memory is only the fill's. A flow that isn't two
// float channels, or vectors of another size or not four channels, leave
// the flow alone.
void PLDecodeAndFillFlow(float maxDisplace, PLImage* flow, const PLImage* vectors,
                         QVIdleAndProgressClass* progress, uint8_t* scratch);
