// The render action: carries one frame from the host to the blur engine and
// back. Most failures do not reach the host as an error: they paint the Output
// in a fixed colour and report success.
#include <cmath>
#include <cstring>

#include "licence.h"
#include "motion_blur.h"
#include "ofx_plugin.h"
#include "ofx_progress.h"
#include "qvimage.h"

namespace {

constexpr const char* kMotionVectorsClip = "Motion Vectors";

int32_t PixelTypeForDepth(const char* depth) {
    if (depth && std::strcmp(depth, kOfxBitDepthByte) == 0) return 0;
    if (depth && std::strcmp(depth, kOfxBitDepthShort) == 0) return 1;
    return 2;  // float, also for an unknown depth
}

bool IsText(const char* value, const char* expected) { return value && std::strcmp(value, expected) == 0; }

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

PLErr Wrap(QVImage& wrapper, const HostImage& image) {
    return wrapper.wrapHostPixels(image.data, image.bounds[2] - image.bounds[0], image.bounds[3] - image.bounds[1],
                                  image.rowBytes, 1, PixelTypeForDepth(image.depth));
}

double ParamAtTime(OfxImageEffectHandle instance, const char* name, OfxTime time, double value) {
    OfxParamSetHandle params = nullptr;
    OfxParamHandle param = nullptr;
    gEffectHost->getParamSet(instance, &params);
    if (params) gParamHost->paramGetHandle(params, name, &param, nullptr);
    if (param) gParamHost->paramGetValueAtTime(param, time, &value);
    return value;
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

}  // namespace

OfxStatus render(OfxImageEffectHandle instance, OfxPropertySetHandle inArgs, OfxPropertySetHandle) {
    OfxStatus status = kOfxStatOK;
    OfxTime time = 0.0;
    OFXIdleProgress progress(nullptr, gEffectHost, instance);

    gPropHost->propGetDouble(inArgs, kOfxPropTime, 0, &time);
    int window[4] = {0, 0, 0, 0};  // no tiles are declared: the whole Output is rendered
    gPropHost->propGetIntN(inArgs, kOfxImageEffectPropRenderWindow, 4, window);

    QVImage output;
    try {
        if (output.allocateInternal() != PLErrNone) return kOfxStatOK;
    } catch (PLErr) {
        // No exception may cross into the host.
        return kOfxStatErrMemory;
    }

    OfxPropertySetHandle outputImage = nullptr;
    OfxPropertySetHandle sourceImage = nullptr;
    OfxPropertySetHandle vectorsImage = nullptr;

    // Fails with the given code, unless the host is aborting: then orange wins.
    auto fail = [&](PLErr err) {
        if (progress.Aborted()) throw PLErrAborted;
        throw err;
    };

    try {
        OfxImageClipHandle outputClip = nullptr;
        gEffectHost->clipGetHandle(instance, kOfxImageEffectOutputClipName, &outputClip, nullptr);
        gEffectHost->clipGetImage(outputClip, time, nullptr, &outputImage);
        HostImage out;
        if (outputImage) {
            ReadLayout(outputImage, out);
            ReadPixels(outputImage, out);
        }
        if (outputImage && out.data) {
            if (progress.Aborted()) throw PLErrAborted;
            Wrap(output, out);

            double range[2] = {0.0, 0.0};
            OfxImageClipHandle sourceClip = nullptr;
            OfxPropertySetHandle sourceClipProps = nullptr;
            gEffectHost->clipGetHandle(instance, kOfxImageEffectSimpleSourceClipName, &sourceClip, nullptr);
            gEffectHost->clipGetPropertySet(sourceClip, &sourceClipProps);
            gPropHost->propGetDoubleN(sourceClipProps, kOfxImageEffectPropFrameRange, 2, range);
            if (hostIsFusion()) range[1] = std::trunc(range[1]);
            if (time < range[0] || time > range[1]) throw PLErrNoFrame;

            double amountBits = 0.0;
            const uint64_t kSinglePrecision1234 = 0x3FF3BE76C0000000ull;  // 1.234f widened
            std::memcpy(&amountBits, &kSinglePrecision1234, sizeof amountBits);
            const double amount = ParamAtTime(instance, "valMBAmount", time, amountBits);
            const double maxDisplace = ParamAtTime(instance, "valMaxDisplace", time, 0.0);
            double scaleX = ParamAtTime(instance, "valVecScaleX", time, 0.0);
            double scaleY = ParamAtTime(instance, "valVecScaleY", time, 0.0);

            // Render scale reaches the vector scales only, on purpose.
            double renderScale[2] = {1.0, 1.0};
            gPropHost->propGetDouble(inArgs, kOfxImageEffectPropRenderScale, 0, &renderScale[0]);
            gPropHost->propGetDouble(inArgs, kOfxImageEffectPropRenderScale, 1, &renderScale[1]);
            scaleX *= renderScale[0];
            scaleY *= renderScale[1];

            if (!ClipConnected(instance, kOfxImageEffectSimpleSourceClipName)) throw PLErrFailed;
            if (!ClipConnected(instance, kMotionVectorsClip)) fail(PLErrFailed);

            gEffectHost->clipGetImage(sourceClip, time, nullptr, &sourceImage);
            if (!sourceImage) fail(PLErrFailed);
            HostImage src;
            ReadLayout(sourceImage, src);
            if (IsText(src.components, kOfxImageComponentAlpha)) fail(PLErrFailed);
            ReadPixels(sourceImage, src);
            if (!src.data) fail(PLErrFailed);
            {
                QVImage source;
                if (source.allocateInternal() != PLErrNone) fail(PLErrOutOfMemory);
                Wrap(source, src);
                // Premultiplied in the host's own buffer, which stays changed.
                if (!hostIsNuke() && IsUnpremultiplied(sourceImage)) source.convertAlpha(2);

                OfxImageClipHandle vectorsClip = nullptr;
                gEffectHost->clipGetHandle(instance, kMotionVectorsClip, &vectorsClip, nullptr);
                gEffectHost->clipGetImage(vectorsClip, time, nullptr, &vectorsImage);
                if (!vectorsImage) fail(PLErrNoFrame);
                HostImage vec;
                ReadLayout(vectorsImage, vec);
                if (IsText(vec.components, kOfxImageComponentAlpha)) fail(PLErrFailed);
                ReadPixels(vectorsImage, vec);
                if (!vec.data) fail(PLErrFailed);
                {
                    QVImage vectors;
                    if (vectors.allocateInternal() != PLErrNone) fail(PLErrOutOfMemory);
                    Wrap(vectors, vec);

                    int64_t stamp = 0;
                    if (!TrelvoLicenceGranted()) {
                        stamp = 1;
                        if (gHostIsBackground && !gWarningBackgroundRenderNoLicense) {
                            qvofx_warning(instance, &QVOfxHost, 0, true, "render()",
                                          "Did not find a valid license for TrelvoVectors.");
                            gWarningBackgroundRenderNoLicense = 1;
                        }
                    }

                    const int32_t err = TrelvoVectorsBlur(
                        &output, &source, &vectors, 1, stamp, &progress, static_cast<float>(amount),
                        static_cast<float>(maxDisplace), static_cast<float>(scaleX), static_cast<float>(scaleY));
                    if (err != PLErrNone) fail(static_cast<PLErr>(err));

                    if (!hostIsNuke() && IsUnpremultiplied(outputImage)) {
                        output.convertAlpha(1);
                        if (progress.Aborted()) throw PLErrAborted;
                    }
                }
            }
        }
    } catch (PLErr err) {
        if (err == PLErrFailed || err == PLErrAborted || err == PLErrNoFrame) {
            if (output.getWidth() != 0 && output.getHeight() != 0) {
                if (err == PLErrFailed)
                    output.fill(1.0f, 0.0f, 0.0f, 1.0f);
                else if (err == PLErrAborted)
                    output.fill(0.9f, 0.6f, 0.0f, 1.0f);
                else
                    output.fill(0.0f, 0.0f, 0.0f, 0.0f);
            }
            status = ConvertPLErrToOFXErr(PLErrNone);
        } else {
            status = ConvertPLErrToOFXErr(err);
        }
    } catch (...) {
        // Nothing else is expected; it must not cross into the host either.
        status = kOfxStatFailed;
    }

    if (sourceImage) gEffectHost->clipReleaseImage(sourceImage);
    if (vectorsImage) gEffectHost->clipReleaseImage(vectorsImage);
    if (outputImage) gEffectHost->clipReleaseImage(outputImage);
    return status;
}
