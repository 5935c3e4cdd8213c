// What a typo in our OFX declarations would break and no test through our own
// host (it shares the headers) could see: record sizes, the offsets of members
// we call or fill in, status numbers. ofx_headers_standalone compiles each alone.
#include <gtest/gtest.h>

#include <cstddef>

#include "ofxImageEffect.h"
#include "ofxOld.h"

namespace {

struct Layout {
    const char* what;
    size_t actual, expected;
};
// Where the x86-64 ABI puts a member.
#define AT(S, m, off) \
    { #S "::" #m, offsetof(S, m), off }
#define SIZE(S, bytes) \
    { "sizeof " #S, sizeof(S), bytes }

TEST(OfxAbi, RecordSizesMemberOffsetsAndStatusNumbers) {
    const Layout layouts[] = {
        SIZE(OfxHost, 16),
        AT(OfxHost, fetchSuite, 8),
        SIZE(OfxPlugin, 48),
        AT(OfxPlugin, pluginIdentifier, 16),
        AT(OfxPlugin, pluginVersionMinor, 28),
        AT(OfxPlugin, setHost, 32),
        AT(OfxPlugin, mainEntry, 40),
        SIZE(OfxRectI, 16),
        SIZE(OfxRectD, 32),
        SIZE(OfxPointD, 16),
        SIZE(OfxPropertySuiteV1, 144),
        AT(OfxPropertySuiteV1, propSetInt, 24),
        AT(OfxPropertySuiteV1, propGetString, 72),
        AT(OfxPropertySuiteV1, propGetDimension, 136),
        SIZE(OfxParameterSuiteV1, 144),
        AT(OfxParameterSuiteV1, paramGetValueAtTime, 40),
        SIZE(OfxImageEffectSuiteV1, 104),
        AT(OfxImageEffectSuiteV1, clipGetImage, 40),
        AT(OfxImageEffectSuiteV1, abort, 64),
        SIZE(OfxMemorySuiteV1, 16),
        SIZE(OfxMultiThreadSuiteV1, 72),
        AT(OfxMultiThreadSuiteV1, multiThreadNumCPUs, 8),
        SIZE(OfxMessageSuiteV1, 8),
        SIZE(OfxInteractSuiteV1, 24),
    };
    for (const Layout& l : layouts) EXPECT_EQ(l.actual, l.expected) << l.what;
    // A pointer typedef here would double the indirection of mainEntry.
    EXPECT_TRUE(std::is_function_v<OfxPluginEntryPoint>);
    // kOfxStatOK to kOfxStatReplyDefault are 0 to 14, in this order.
    // clang-format off
    const int statuses[] = {kOfxStatOK, kOfxStatFailed, kOfxStatErrFatal, kOfxStatErrUnknown,
                            kOfxStatErrMissingHostFeature, kOfxStatErrUnsupported, kOfxStatErrExists,
                            kOfxStatErrFormat, kOfxStatErrMemory, kOfxStatErrBadHandle, kOfxStatErrBadIndex,
                            kOfxStatErrValue, kOfxStatReplyYes, kOfxStatReplyNo, kOfxStatReplyDefault};
    // clang-format on
    for (int i = 0; i < 15; ++i) EXPECT_EQ(statuses[i], i);
}

}  // namespace
