// The demo imprint: what an unlicensed frame carries. A plate with the word
// DEMO across the middle and light diagonal bands over the whole frame, drawn
// from a few bits in this file (no font files), blended over the finished
// output. White letters on a darkened plate read on bright and dark pictures
// alike; the alpha of four-channel images is raised with the same weight, so
// the mark also shows over transparency and premultiplied colour stays below
// alpha.
#include <cstring>

#include "image/pixel_format.h"
#include "image/plimage.h"
#include "licence/licence.h"

namespace {

// 5 x 7 letters, top row first, bit 4 the leftmost column.
constexpr uint8_t kGlyphs[4][7] = {
    {0x1E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x1E},  // D
    {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F},  // E
    {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11},  // M
    {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E},  // O
};
constexpr int32_t kGlyphColumns = 6;                     // five and a gap
constexpr int32_t kTextColumns = 4 * kGlyphColumns - 1;  // 23 cells
constexpr int32_t kTextRows = 7;

struct Layer {
    float target;  // 0 black or 1 white, as a fraction of white
    float weight;
};

// Where the mark lies. Rows count upwards (a host's row 0 is the bottom row),
// so the letters stand upright in the host's picture.
class Mark {
  public:
    Mark(int32_t width, int32_t height) {
        int32_t byWidth = width * 3 / 5 / kTextColumns;
        int32_t byHeight = height * 3 / 5 / kTextRows;
        cell_ = byWidth < byHeight ? byWidth : byHeight;
        if (cell_ < 1) cell_ = 1;
        left_ = (width - kTextColumns * cell_) / 2;
        bottom_ = (height - kTextRows * cell_) / 2;
        const int32_t shorter = width < height ? width : height;
        period_ = shorter / 4 > 16 ? shorter / 4 : 16;
    }

    Layer At(int32_t x, int32_t y) const {
        // Cell coordinates relative to the text; floor division keeps the
        // cells left of and below the text apart from cell 0.
        const int32_t cx = FloorDiv(x - left_, cell_);
        const int32_t cy = kTextRows - 1 - FloorDiv(y - bottom_, cell_);  // row from the top
        if (cx >= 0 && cx < kTextColumns && cy >= 0 && cy < kTextRows && cx % kGlyphColumns < 5 &&
            (kGlyphs[cx / kGlyphColumns][cy] >> (4 - cx % kGlyphColumns) & 1))
            return {1.0f, 1.0f};
        if (cx >= -1 && cx <= kTextColumns && cy >= -1 && cy <= kTextRows) return {0.0f, 0.6f};
        if ((x + y) % period_ < period_ / 5) return {1.0f, 0.35f};
        return {0.0f, 0.0f};
    }

  private:
    static int32_t FloorDiv(int32_t a, int32_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

    int32_t cell_;
    int32_t left_;
    int32_t bottom_;
    int32_t period_;
};

template <typename P>
void Imprint(PLImage& image, float strength) {
    using T = typename P::Element;
    const Mark mark(image.width, image.height);
    const int32_t channels = image.numChannels;
    for (int32_t y = 0; y < image.height; ++y) {
        uint8_t* pixel = image.Row(y);
        for (int32_t x = 0; x < image.width; ++x, pixel += image.pixelStride) {
            const Layer layer = mark.At(x, y);
            if (layer.weight == 0.0f) continue;
            const float w = strength * layer.weight;
            for (int32_t c = 0; c < channels; ++c) {
                uint8_t* at = pixel + c * static_cast<int32_t>(sizeof(T));
                const float target = (channels == 4 && c == 3 ? 1.0f : layer.target) * P::kWhite;
                const float v = P::LoadFloat(at);
                const float blended = v + (target - v) * w;
                if constexpr (P::kIsFloat)
                    P::Store(at, blended);
                else
                    P::Store(at, P::RoundClamp(blended));
            }
        }
    }
}

}  // namespace

void TrelvoDemoImprint(PLImage* image, float strength) {
    if (!PLHasPixels(image)) return;
    if (image->numChannels < 1 || image->numChannels > 4) return;
    if (!(strength > 0.0f)) return;
    if (strength > 1.0f) strength = 1.0f;
    PLVisitPixelType(image->pixelType, [&](auto pixel) { Imprint<decltype(pixel)>(*image, strength); });
}
