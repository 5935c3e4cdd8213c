// The engine against the plain rendition of its stages, bit for bit: odd
// sizes, vector frames of another size, flipped and padded host images, NaN,
// infinities and huge values, every depth, both amount branches, vector
// scales; one thread and two; every instruction-set path this machine has.
#include <cmath>
#include <limits>

#include "base/isa.h"
#include "common/library.h"
#include "common/plain_rendition.h"

namespace {

// A host frame in padded rows (an odd padding for the odd-sized types), bottom-up when flipped.
struct Frame {
    Frame(int32_t w, int32_t h, int32_t type, bool flipped, int32_t padding)
        : rowBytes(w * 4 * PLElementSize(type) + padding * PLElementSize(type)),
          bytes(static_cast<size_t>(rowBytes) * h) {
        wrapper.allocateInternal();
        wrapper.wrapHostPixels(bytes.data(), w, h, rowBytes, flipped ? QVOriginFlipped : QVOriginInOrder,
                               type);
    }
    PLImage& image() { return *wrapper.internalImage(); }
    int32_t rowBytes;
    std::vector<uint8_t> bytes;
    QVImage wrapper;
};

struct Case {
    int32_t w, h;    // source and output
    int32_t vw, vh;  // vectors
    int32_t type, vecType;
    float amount;
    bool flipped;
    int32_t padding;
    bool specials;  // NaN, infinities and huge values among float vectors and source
    bool allHoles;  // no known vector: no level has any weight
    float scaleX, scaleY;
};

const Case kCases[] = {
    {1, 37, 1, 37, PLPixelFloat, PLPixelFloat, 2.0f, false, 0, true, false, 1.0f, 1.0f},
    {41, 1, 41, 1, PLPixelUChar, PLPixelUChar, 0.5f, true, 3, false, false, -2.0f, 0.5f},
    {2, 2, 2, 2, PLPixelUShort, PLPixelUShort, -1.0f, false, 1, false, false, 1.0f, 1.0f},
    {67, 45, 33, 23, PLPixelFloat, PLPixelUChar, 0.5f, true, 5, false, false, 0.37f, 1.5f},
    {53, 38, 53, 38, PLPixelFloat, PLPixelFloat, -0.5f, true, 7, true, false, -1.25f, 0.0f},
    {90, 70, 90, 70, PLPixelUChar, PLPixelFloat, 1.0f, false, 2, false, true, 1.0f, 1.0f},
    {1919, 1079, 1919, 1079, PLPixelFloat, PLPixelUChar, 0.5f, false, 0, false, false, 1.0f, 1.0f},
};

float Special(uint32_t k) {
    const float values[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(), 3e38f, -1e30f};
    return values[k % 5];
}

void Fill(Frame& frame, uint32_t seed, bool vectors, bool specials, bool allHoles = false) {
    PLImage& im = frame.image();
    const float white = im.whitePoint;
    uint32_t state = seed;
    FillWith(im, [&](int32_t x, int32_t y, int32_t c) {
        const float n = Noise(state);
        if (specials && n < 0.03f) return Special(static_cast<uint32_t>(x * 7 + y * 13 + c));
        if (!vectors) return n * white;
        // Smooth motion of a few pixels, a hole in every ninth 3 x 3 block.
        if (c == 3) return (allHoles || ((x / 3) * 7 + (y / 3) * 5) % 9 == 0) ? 0.0f : white;
        const float d = c == 0 ? std::sin(0.3f * y) : c == 1 ? std::cos(0.2f * x) : 0.0f;
        return white * (0.5f + 0.1f * d) + (n - 0.5f) * white * 0.02f;
    });
}

TEST(FastPaths, EngineMatchesThePlainRenditionBitForBit) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " vectors " << c.vw << "x" << c.vh << " type "
                                        << c.type << " amount " << c.amount);
        Frame src(c.w, c.h, c.type, c.flipped, c.padding), vec(c.vw, c.vh, c.vecType, c.flipped, c.padding);
        Fill(src, 11, false, c.specials && c.type == PLPixelFloat);
        Fill(vec, 12, true, c.specials && c.vecType == PLPixelFloat, c.allHoles);
        Frame expected(c.w, c.h, c.type, c.flipped, c.padding);
        plain::Engine(&expected.image(), &src.image(), &vec.image(), PLBlurBilinear, false, c.amount, 8.0f,
                      c.scaleX, c.scaleY);
        for (int32_t isa = PLIsaBaseline; isa <= PLMachineIsa(); ++isa) {
            PLUseIsa(static_cast<PLIsa>(isa));
            for (int32_t threads : {1, 2}) {
                ThreadLimit limit(threads);
                Frame out(c.w, c.h, c.type, c.flipped, c.padding);
                ASSERT_EQ(TrelvoVectorsBlur(&out.wrapper, &src.wrapper, &vec.wrapper, PLBlurBilinear, 0,
                                            nullptr, c.amount, 8.0f, c.scaleX, c.scaleY),
                          PLErrNone);
                ASSERT_EQ(RowBytes(out.image()), RowBytes(expected.image()))
                    << PLIsaName(static_cast<PLIsa>(isa)) << ", " << threads << " threads";
            }
        }
        PLUseIsa(PLMachineIsa());
    }
}

}  // namespace
