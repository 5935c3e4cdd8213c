// The render action: carries one frame from the host to the blur engine and
// back. Most failures do not reach the host as an error: they paint the Output
// in a fixed colour and report success.
#include <climits>
#include <cmath>
#include <cstring>

#include "blur/motion_blur.h"
#include "image/qvimage.h"
#include "licence/licence.h"
#include "shell/effect_names.h"
#include "shell/ofx_plugin.h"
#include "shell/ofx_progress.h"

namespace {

bool IsText(const char* value, const char* expected) {
    return value && std::strcmp(value, expected) == 0;
}

// The element type of a depth the plug-in declares; -1 for any other (half,
// none, unanswered): its element size is unknown, so its pixels are never
// read or written.
int32_t PixelTypeForDepth(const char* depth) {
    if (IsText(depth, kOfxBitDepthByte)) return PLPixelUChar;
    if (IsText(depth, kOfxBitDepthShort)) return PLPixelUShort;
    if (IsText(depth, kOfxBitDepthFloat)) return PLPixelFloat;
    return -1;
}

// Channels of a components text; 0 for one unanswered or unknown.
int32_t ChannelsForComponents(const char* components) {
    if (IsText(components, kOfxImageComponentRGBA)) return 4;
    if (IsText(components, kOfxImageComponentRGB)) return 3;
    if (IsText(components, kOfxImageComponentAlpha)) return 1;
    return 0;
}

// A host image as the render reads it.
struct HostImage {
    int rowBytes = 0;
    char* depth = nullptr;
    char* components = nullptr;
    int bounds[4] = {0, 0, 0, 0};
    void* data = nullptr;
};

void ReadLayout(OfxPropertySetHandle image, HostImage& out) {
    gPropHost->propGetInt(image, kOfxImagePropRowBytes, 0, &out.rowBytes);
    gPropHost->propGetString(image, kOfxImageEffectPropPixelDepth, 0, &out.depth);
    gPropHost->propGetString(image, kOfxImageEffectPropComponents, 0, &out.components);
}

void ReadPixels(OfxPropertySetHandle image, HostImage& out) {
    gPropHost->propGetIntN(image, kOfxImagePropBounds, 4, out.bounds);
    gPropHost->propGetPointer(image, kOfxImagePropData, 0, &out.data);
}

// Wraps the host's pixels with as many channels as its components name, or
// refuses (false, the wrapper left empty) an image that nothing may be read
// from or written to: components or depth unknown, bounds of negative or
// absurd size, rows too short for their pixels. Negative row bytes, rows
// stored top-down from the bottom row at data, go through as the host states
// them: every row is addressed from data by its signed row step.
bool Wrap(QVImage& wrapper, const HostImage& image) {
    const int32_t pixelType = PixelTypeForDepth(image.depth);
    const int32_t channels = ChannelsForComponents(image.components);
    if (pixelType < 0 || channels == 0) return false;
    const int64_t width = static_cast<int64_t>(image.bounds[2]) - image.bounds[0];
    const int64_t height = static_cast<int64_t>(image.bounds[3]) - image.bounds[1];
    if (width < 0 || width > INT32_MAX || height < 0 || height > INT32_MAX) return false;
    const int64_t rowLength = image.rowBytes < 0 ? -static_cast<int64_t>(image.rowBytes) : image.rowBytes;
    if (width > 0 && height > 0 && rowLength < width * channels * PLElementSize(pixelType)) return false;

    const auto w = static_cast<int32_t>(width);
    const auto h = static_cast<int32_t>(height);
    PLErr err = PLErrFailed;
    if (channels == 4)
        err = wrapper.wrapHostPixels(image.data, w, h, image.rowBytes, QVOriginInOrder, pixelType);
    else if (channels == 3)
        err = wrapper.wrapThreeChannels(image.data, w, h, image.rowBytes, QVOriginInOrder, pixelType);
    else
        err = wrapper.wrapOneChannel(image.data, w, h, image.rowBytes, QVOriginInOrder, pixelType);
    return err == PLErrNone;
}

double ParamAtTime(OfxImageEffectHandle instance, const char* name, OfxTime time, double value) {
    OfxParamSetHandle params = nullptr;
    OfxParamHandle param = nullptr;
    gEffectHost->getParamSet(instance, &params);
    if (params) gParamHost->paramGetHandle(params, name, &param, nullptr);
    if (param) gParamHost->paramGetValueAtTime(param, time, &value);
    return value;
}

// The four parameters at the frame's time, the render scale applied.
struct FrameParameters {
    double amount;
    double maxDisplace;
    double scaleX;
    double scaleY;
};

FrameParameters ReadParameters(OfxImageEffectHandle instance, OfxPropertySetHandle inArgs, OfxTime time) {
    double amountBits = 0.0;
    const uint64_t kSinglePrecision1234 = 0x3FF3BE76C0000000ull;  // 1.234f widened
    std::memcpy(&amountBits, &kSinglePrecision1234, sizeof amountBits);
    FrameParameters p;
    p.amount = ParamAtTime(instance, kAmountParam, time, amountBits);
    p.maxDisplace = ParamAtTime(instance, kMaxDisplaceParam, time, 0.0);
    p.scaleX = ParamAtTime(instance, kVectorScaleXParam, time, 0.0);
    p.scaleY = ParamAtTime(instance, kVectorScaleYParam, time, 0.0);
    // Render scale reaches the vector scales only, on purpose.
    double renderScale[2] = {1.0, 1.0};
    gPropHost->propGetDouble(inArgs, kOfxImageEffectPropRenderScale, 0, &renderScale[0]);
    gPropHost->propGetDouble(inArgs, kOfxImageEffectPropRenderScale, 1, &renderScale[1]);
    p.scaleX *= renderScale[0];
    p.scaleY *= renderScale[1];
    return p;
}

bool ClipConnected(OfxImageEffectHandle instance, const char* clipName) {
    OfxImageClipHandle clip = nullptr;
    OfxPropertySetHandle props = nullptr;
    gEffectHost->clipGetHandle(instance, clipName, &clip, &props);
    int connected = 0;
    gPropHost->propGetInt(props, kOfxImageClipPropConnected, 0, &connected);
    return connected != 0;
}

bool IsUnpremultiplied(OfxPropertySetHandle image) {
    char* state = const_cast<char*>("");  // unanswered counts as premultiplied
    gPropHost->propGetString(image, kOfxImageEffectPropPreMultiplication, 0, &state);
    return IsText(state, kOfxImageUnPreMultiplied);
}

// A host image held for the length of the render and given back on every way
// out of it.
class ClipImage {
  public:
    ClipImage() = default;
    ~ClipImage() {
        if (handle_) gEffectHost->clipReleaseImage(handle_);
    }
    ClipImage(const ClipImage&) = delete;
    ClipImage& operator=(const ClipImage&) = delete;

    // The clip's image at `time`; false when the host has none.
    bool fetch(OfxImageClipHandle clip, OfxTime time) {
        gEffectHost->clipGetImage(clip, time, nullptr, &handle_);
        return handle_ != nullptr;
    }
    OfxPropertySetHandle get() const { return handle_; }

  private:
    OfxPropertySetHandle handle_ = nullptr;
};

// The colours a frame that can't be made is painted in, by the reason.
struct FailureColour {
    PLErr reason;
    float red, green, blue, alpha;
};
constexpr FailureColour kFailureColours[] = {
    {PLErrFailed, 1.0f, 0.0f, 0.0f, 1.0f},   // solid red: an input or the engine failed
    {PLErrAborted, 0.9f, 0.6f, 0.0f, 1.0f},  // solid orange: the render was aborted
    {PLErrNoFrame, 0.0f, 0.0f, 0.0f, 0.0f},  // transparent black: no frame at this time
};

}  // namespace

// The road of one frame: the Output is fetched and wrapped, the time checked
// against the Source's range, the parameters read, the Source and the vectors
// fetched, checked and wrapped (the Source premultiplied if it arrives
// straight), the engine run into the Output (TrelvoVectorsBlur), the Output
// un-premultiplied if the host wants it so, and the images given back.
OfxStatus render(OfxImageEffectHandle instance, OfxPropertySetHandle inArgs, OfxPropertySetHandle) {
    OfxStatus status = kOfxStatOK;
    OfxTime time = 0.0;
    OFXIdleProgress progress(nullptr, gEffectHost, instance);

    gPropHost->propGetDouble(inArgs, kOfxPropTime, 0, &time);
    int window[4] = {0, 0, 0, 0};  // no tiles are declared: the whole Output is rendered
    gPropHost->propGetIntN(inArgs, kOfxImageEffectPropRenderWindow, 4, window);

    // Outlives the images' release, after which it is not touched.
    QVImage output;
    try {
        if (output.allocateInternal() != PLErrNone) return kOfxStatOK;
    } catch (PLErr) {
        // No exception may cross into the host.
        return kOfxStatErrMemory;
    }

    // Fetched Output, Source, Motion Vectors; declared in reverse so that they
    // go back to the host Source, Motion Vectors, Output.
    ClipImage outputImage;
    ClipImage vectorsImage;
    ClipImage sourceImage;

    // Fails with the given code, unless the host is aborting: then orange wins.
    auto fail = [&](PLErr err) {
        if (progress.Aborted()) throw PLErrAborted;
        throw err;
    };

    try {
        OfxImageClipHandle outputClip = nullptr;
        gEffectHost->clipGetHandle(instance, kOutputClip, &outputClip, nullptr);
        HostImage out;
        if (outputImage.fetch(outputClip, time)) {
            ReadLayout(outputImage.get(), out);
            ReadPixels(outputImage.get(), out);
        }
        if (outputImage.get() && out.data) {
            if (progress.Aborted()) throw PLErrAborted;
            // An Output it cannot lay out is left as the host gave it.
            if (!Wrap(output, out)) throw PLErrFailed;

            double range[2] = {0.0, 0.0};
            OfxImageClipHandle sourceClip = nullptr;
            OfxPropertySetHandle sourceClipProps = nullptr;
            gEffectHost->clipGetHandle(instance, kSourceClip, &sourceClip, nullptr);
            gEffectHost->clipGetPropertySet(sourceClip, &sourceClipProps);
            gPropHost->propGetDoubleN(sourceClipProps, kOfxImageEffectPropFrameRange, 2, range);
            if (hostIsFusion()) range[1] = std::trunc(range[1]);
            if (time < range[0] || time > range[1]) throw PLErrNoFrame;

            const FrameParameters params = ReadParameters(instance, inArgs, time);

            if (!ClipConnected(instance, kSourceClip)) throw PLErrFailed;
            if (!ClipConnected(instance, kMotionVectorsClip)) fail(PLErrFailed);

            if (!sourceImage.fetch(sourceClip, time)) fail(PLErrFailed);
            HostImage src;
            ReadLayout(sourceImage.get(), src);
            // Anything but RGBA is refused, alpha alone included.
            if (ChannelsForComponents(src.components) != 4) fail(PLErrFailed);
            ReadPixels(sourceImage.get(), src);
            if (!src.data) fail(PLErrFailed);
            {
                QVImage source;
                if (source.allocateInternal() != PLErrNone) fail(PLErrOutOfMemory);
                if (!Wrap(source, src)) fail(PLErrFailed);
                // Premultiplied in the host's own buffer, which stays changed.
                if (!hostIsNuke() && IsUnpremultiplied(sourceImage.get()))
                    source.convertAlpha(QVAlphaPremultiply);

                OfxImageClipHandle vectorsClip = nullptr;
                gEffectHost->clipGetHandle(instance, kMotionVectorsClip, &vectorsClip, nullptr);
                if (!vectorsImage.fetch(vectorsClip, time)) fail(PLErrNoFrame);
                HostImage vec;
                ReadLayout(vectorsImage.get(), vec);
                if (ChannelsForComponents(vec.components) != 4) fail(PLErrFailed);
                ReadPixels(vectorsImage.get(), vec);
                if (!vec.data) fail(PLErrFailed);
                {
                    QVImage vectors;
                    if (vectors.allocateInternal() != PLErrNone) fail(PLErrOutOfMemory);
                    if (!Wrap(vectors, vec)) fail(PLErrFailed);

                    int64_t stamp = 0;
                    if (!TrelvoLicenceGranted()) {
                        stamp = 1;
                        if (gHostIsBackground &&
                            !gWarningBackgroundRenderNoLicense.load(std::memory_order_relaxed)) {
                            qvofx_warning(instance, &QVOfxHost, 0, true, "render()",
                                          "Did not find a valid license for TrelvoVectors.");
                            gWarningBackgroundRenderNoLicense.store(1, std::memory_order_relaxed);
                        }
                    }

                    const int32_t err = TrelvoVectorsBlur(
                        &output, &source, &vectors, PLBlurBilinear, stamp, &progress,
                        static_cast<float>(params.amount), static_cast<float>(params.maxDisplace),
                        static_cast<float>(params.scaleX), static_cast<float>(params.scaleY));
                    if (err != PLErrNone) fail(static_cast<PLErr>(err));

                    if (!hostIsNuke() && IsUnpremultiplied(outputImage.get())) {
                        output.convertAlpha(QVAlphaUnpremultiply);
                        if (progress.Aborted()) throw PLErrAborted;
                    }
                }
            }
        }
    } catch (PLErr err) {
        status = ConvertPLErrToOFXErr(err);
        for (const FailureColour& colour : kFailureColours) {
            if (colour.reason != err) continue;
            if (output.getWidth() != 0 && output.getHeight() != 0)
                output.fill(colour.red, colour.green, colour.blue, colour.alpha);
            status = ConvertPLErrToOFXErr(PLErrNone);
        }
    } catch (...) {
        // Nothing else is expected; it must not cross into the host either.
        status = kOfxStatFailed;
    }
    return status;
}
