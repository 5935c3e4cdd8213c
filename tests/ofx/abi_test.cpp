// What a typo in our OFX declarations would break and no test through our own
// host could see (it shares the headers): the sizes of the records a host and
// the plug-in exchange and the offset of every member, the status numbers, and
// the strings hosts match on. The headers compile alone: ofx_headers_standalone.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "ofxImageEffect.h"
#include "ofxOld.h"

namespace {

struct Layout {
    const char* member;
    size_t offset, expected;
};
// One row per member: its offset and where the x86-64 ABI puts it.
#define AT(S, m, off) \
    { #S "::" #m, offsetof(S, m), off }

TEST(OfxAbi, RecordSizesAndMemberOffsets) {
    const Layout members[] = {
        AT(OfxHost, host, 0),
        AT(OfxHost, fetchSuite, 8),
        AT(OfxPlugin, pluginApi, 0),
        AT(OfxPlugin, apiVersion, 8),
        AT(OfxPlugin, pluginIdentifier, 16),
        AT(OfxPlugin, pluginVersionMajor, 24),
        AT(OfxPlugin, pluginVersionMinor, 28),
        AT(OfxPlugin, setHost, 32),
        AT(OfxPlugin, mainEntry, 40),
        AT(OfxRectI, y2, 12),
        AT(OfxRectD, y2, 24),
        AT(OfxPointD, y, 8),
        AT(OfxRangeD, max, 8),
        AT(OfxPropertySuiteV1, propSetPointer, 0),
        AT(OfxPropertySuiteV1, propSetString, 8),
        AT(OfxPropertySuiteV1, propSetDouble, 16),
        AT(OfxPropertySuiteV1, propSetInt, 24),
        AT(OfxPropertySuiteV1, propSetDoubleN, 48),
        AT(OfxPropertySuiteV1, propGetPointer, 64),
        AT(OfxPropertySuiteV1, propGetString, 72),
        AT(OfxPropertySuiteV1, propGetDouble, 80),
        AT(OfxPropertySuiteV1, propGetInt, 88),
        AT(OfxPropertySuiteV1, propGetDoubleN, 112),
        AT(OfxPropertySuiteV1, propGetIntN, 120),
        AT(OfxPropertySuiteV1, propGetDimension, 136),
        AT(OfxParameterSuiteV1, paramDefine, 0),
        AT(OfxParameterSuiteV1, paramGetHandle, 8),
        AT(OfxParameterSuiteV1, paramGetValueAtTime, 40),
        AT(OfxParameterSuiteV1, paramEditEnd, 136),
        AT(OfxImageEffectSuiteV1, getPropertySet, 0),
        AT(OfxImageEffectSuiteV1, getParamSet, 8),
        AT(OfxImageEffectSuiteV1, clipDefine, 16),
        AT(OfxImageEffectSuiteV1, clipGetHandle, 24),
        AT(OfxImageEffectSuiteV1, clipGetPropertySet, 32),
        AT(OfxImageEffectSuiteV1, clipGetImage, 40),
        AT(OfxImageEffectSuiteV1, clipReleaseImage, 48),
        AT(OfxImageEffectSuiteV1, clipGetRegionOfDefinition, 56),
        AT(OfxImageEffectSuiteV1, abort, 64),
        AT(OfxImageEffectSuiteV1, imageMemoryUnlock, 96),
        AT(OfxMemorySuiteV1, memoryAlloc, 0),
        AT(OfxMemorySuiteV1, memoryFree, 8),
        AT(OfxMultiThreadSuiteV1, multiThread, 0),
        AT(OfxMultiThreadSuiteV1, multiThreadNumCPUs, 8),
        AT(OfxMultiThreadSuiteV1, mutexTryLock, 64),
        AT(OfxMessageSuiteV1, message, 0),
        AT(OfxInteractSuiteV1, interactGetPropertySet, 16),
    };
    for (const Layout& m : members) EXPECT_EQ(m.offset, m.expected) << m.member;
    const Layout sizes[] = {
        {"OfxHost", sizeof(OfxHost), 16},
        {"OfxPlugin", sizeof(OfxPlugin), 48},
        {"OfxRectD", sizeof(OfxRectD), 32},
        {"OfxPropertySuiteV1", sizeof(OfxPropertySuiteV1), 144},
        {"OfxParameterSuiteV1", sizeof(OfxParameterSuiteV1), 144},
        {"OfxImageEffectSuiteV1", sizeof(OfxImageEffectSuiteV1), 104},
        {"OfxMemorySuiteV1", sizeof(OfxMemorySuiteV1), 16},
        {"OfxMultiThreadSuiteV1", sizeof(OfxMultiThreadSuiteV1), 72},
        {"OfxMessageSuiteV1", sizeof(OfxMessageSuiteV1), 8},
        {"OfxInteractSuiteV1", sizeof(OfxInteractSuiteV1), 24},
    };
    for (const Layout& s : sizes) EXPECT_EQ(s.offset, s.expected) << "sizeof " << s.member;
    // A pointer typedef here would double the indirection of mainEntry.
    EXPECT_TRUE(std::is_function_v<OfxPluginEntryPoint>);
}

TEST(OfxAbi, StatusNumbersAndTheStringsHostsMatchOn) {
    const int statuses[] = {kOfxStatOK,
                            kOfxStatFailed,
                            kOfxStatErrFatal,
                            kOfxStatErrUnknown,
                            kOfxStatErrMissingHostFeature,
                            kOfxStatErrUnsupported,
                            kOfxStatErrExists,
                            kOfxStatErrFormat,
                            kOfxStatErrMemory,
                            kOfxStatErrBadHandle,
                            kOfxStatErrBadIndex,
                            kOfxStatErrValue,
                            kOfxStatReplyYes,
                            kOfxStatReplyNo,
                            kOfxStatReplyDefault};
    for (int i = 0; i < 15; ++i) EXPECT_EQ(statuses[i], i);
    EXPECT_EQ(kOfxStatErrImageFormat, 1000);
    const std::pair<const char*, const char*> strings[] = {
        {kOfxPropertySuite, "OfxPropertySuite"},
        {kOfxParameterSuite, "OfxParameterSuite"},
        {kOfxImageEffectSuite, "OfxImageEffectSuite"},
        {kOfxMemorySuite, "OfxMemorySuite"},
        {kOfxMultiThreadSuite, "OfxMultiThreadSuite"},
        {kOfxMessageSuite, "OfxMessageSuite"},
        {kOfxInteractSuite, "OfxInteractSuite"},
        {kOfxImageEffectPluginApi, "OfxImageEffectPluginAPI"},
        {kOfxActionDescribe, "OfxActionDescribe"},
        {kOfxImageEffectActionDescribeInContext, "OfxImageEffectActionDescribeInContext"},
        {kOfxImageEffectActionRender, "OfxImageEffectActionRender"},
        {kOfxImageEffectActionGetRegionsOfInterest, "OfxImageEffectActionGetRegionsOfInterest"},
        {kOfxImageEffectActionGetClipPreferences, "OfxImageEffectActionGetClipPreferences"},
        {kOfxImageEffectContextGeneral, "OfxImageEffectContextGeneral"},
        // Names whose value is spelt otherwise than the name.
        {kOfxImageEffectPropSupportsMultipleClipDepths, "OfxImageEffectPropMultipleClipDepths"},
        {kOfxImageUnPreMultiplied, "OfxImageAlphaUnPremultiplied"},
        {kOfxImageFieldBoth, "OfxFieldBoth"},
        {kOfxParamPropPersistant, "OfxParamPropPersistant"},
    };
    for (const auto& [value, expected] : strings) EXPECT_STREQ(value, expected);
}

}  // namespace
