// Binary layout of our OFX declarations against the published x86-64 Linux
// ABI: offsets, sizes and exact member types (which also pin const-ness and
// variadic prototypes), status numbers and the string values hosts match on.

#include "ofxImageEffect.h"
#include "ofxOld.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

namespace {

template <typename T, typename = void>
struct IsComplete : std::false_type {};
template <typename T>
struct IsComplete<T, std::void_t<decltype(sizeof(T))>> : std::true_type {};

using PropSet = OfxPropertySetHandle;

}  // namespace

// Offset and exact type of one member; the type goes last as it may hold commas.
#define EXPECT_MEMBER(S, m, off, ...)                                          \
  do {                                                                         \
    EXPECT_EQ(offsetof(S, m), std::size_t{off}) << #S "::" #m;                 \
    EXPECT_TRUE((std::is_same_v<decltype(S::m), __VA_ARGS__>)) << #S "::" #m;  \
  } while (0)

TEST(OfxAbiTypes, ScalarsAndOpaqueHandles) {
  EXPECT_TRUE((std::is_same_v<OfxStatus, int>));
  EXPECT_TRUE((std::is_same_v<OfxTime, double>));

  // The tags enter C++ mangled names, so their spelling is ABI too; they
  // must stay undefined so handles remain opaque.
#define EXPECT_HANDLE(H, Tag)                                       \
  do {                                                              \
    EXPECT_TRUE((std::is_same_v<H, struct Tag *>)) << #H;           \
    EXPECT_FALSE(IsComplete<struct Tag>::value) << #Tag " defined"; \
    EXPECT_EQ(sizeof(H), 8u) << #H;                                 \
  } while (0)
  EXPECT_HANDLE(OfxPropertySetHandle, OfxPropertySetStruct);
  EXPECT_HANDLE(OfxImageEffectHandle, OfxImageEffectStruct);
  EXPECT_HANDLE(OfxImageClipHandle, OfxImageClipStruct);
  EXPECT_HANDLE(OfxImageMemoryHandle, OfxImageMemoryStruct);
  EXPECT_HANDLE(OfxParamSetHandle, OfxParamSetStruct);
  EXPECT_HANDLE(OfxParamHandle, OfxParamStruct);
  EXPECT_HANDLE(OfxMutexHandle, OfxMutex);
  EXPECT_HANDLE(OfxInteractHandle, OfxInteract);
#undef EXPECT_HANDLE
}

TEST(OfxAbiTypes, EntryPointAndThreadFunctionAreFunctionTypes) {
  // Pointer typedefs here would double the indirection of mainEntry.
  EXPECT_TRUE(std::is_function_v<OfxPluginEntryPoint>);
  EXPECT_TRUE(std::is_function_v<OfxThreadFunctionV1>);
  EXPECT_TRUE((std::is_same_v<OfxPluginEntryPoint, OfxStatus(const char *, const void *, PropSet, PropSet)>));
  EXPECT_TRUE((std::is_same_v<OfxThreadFunctionV1, void(unsigned int, unsigned int, void *)>));

  EXPECT_TRUE((std::is_same_v<decltype(OfxGetNumberOfPlugins), int(void)>));
  EXPECT_TRUE((std::is_same_v<decltype(OfxGetPlugin), OfxPlugin *(int)>));
}

TEST(OfxAbiLayout, GeometryStructs) {
  EXPECT_MEMBER(OfxRangeI, min, 0, int);
  EXPECT_MEMBER(OfxRangeI, max, 4, int);
  EXPECT_EQ(sizeof(OfxRangeI), 8u);
  EXPECT_MEMBER(OfxRangeD, min, 0, double);
  EXPECT_MEMBER(OfxRangeD, max, 8, double);
  EXPECT_EQ(sizeof(OfxRangeD), 16u);
  EXPECT_MEMBER(OfxPointI, x, 0, int);
  EXPECT_MEMBER(OfxPointI, y, 4, int);
  EXPECT_EQ(sizeof(OfxPointI), 8u);
  EXPECT_MEMBER(OfxPointD, x, 0, double);
  EXPECT_MEMBER(OfxPointD, y, 8, double);
  EXPECT_EQ(sizeof(OfxPointD), 16u);
  EXPECT_MEMBER(OfxRectI, x1, 0, int);
  EXPECT_MEMBER(OfxRectI, y1, 4, int);
  EXPECT_MEMBER(OfxRectI, x2, 8, int);
  EXPECT_MEMBER(OfxRectI, y2, 12, int);
  EXPECT_EQ(sizeof(OfxRectI), 16u);
  EXPECT_MEMBER(OfxRectD, x1, 0, double);
  EXPECT_MEMBER(OfxRectD, y1, 8, double);
  EXPECT_MEMBER(OfxRectD, x2, 16, double);
  EXPECT_MEMBER(OfxRectD, y2, 24, double);
  EXPECT_EQ(sizeof(OfxRectD), 32u);
}

TEST(OfxAbiLayout, HostAndPlugin) {
  EXPECT_MEMBER(OfxHost, host, 0, PropSet);
  EXPECT_MEMBER(OfxHost, fetchSuite, 8, const void *(*)(PropSet, const char *, int));
  EXPECT_EQ(sizeof(OfxHost), 16u);

  // apiVersion is followed by 4 bytes of padding; it is signed, the
  // version numbers are not.
  EXPECT_MEMBER(OfxPlugin, pluginApi, 0, const char *);
  EXPECT_MEMBER(OfxPlugin, apiVersion, 8, int);
  EXPECT_MEMBER(OfxPlugin, pluginIdentifier, 16, const char *);
  EXPECT_MEMBER(OfxPlugin, pluginVersionMajor, 24, unsigned int);
  EXPECT_MEMBER(OfxPlugin, pluginVersionMinor, 28, unsigned int);
  EXPECT_MEMBER(OfxPlugin, setHost, 32, void (*)(OfxHost *));
  EXPECT_MEMBER(OfxPlugin, mainEntry, 40, OfxStatus (*)(const char *, const void *, PropSet, PropSet));
  EXPECT_TRUE((std::is_same_v<decltype(OfxPlugin::mainEntry), OfxPluginEntryPoint *>));
  EXPECT_EQ(sizeof(OfxPlugin), 48u);
}

TEST(OfxAbiLayout, PropertySuite) {
  using S = OfxPropertySuiteV1;
  EXPECT_MEMBER(S, propSetPointer, 0, OfxStatus (*)(PropSet, const char *, int, void *));
  EXPECT_MEMBER(S, propSetString, 8, OfxStatus (*)(PropSet, const char *, int, const char *));
  EXPECT_MEMBER(S, propSetDouble, 16, OfxStatus (*)(PropSet, const char *, int, double));
  EXPECT_MEMBER(S, propSetInt, 24, OfxStatus (*)(PropSet, const char *, int, int));
  EXPECT_MEMBER(S, propSetPointerN, 32, OfxStatus (*)(PropSet, const char *, int, void *const *));
  EXPECT_MEMBER(S, propSetStringN, 40, OfxStatus (*)(PropSet, const char *, int, const char *const *));
  EXPECT_MEMBER(S, propSetDoubleN, 48, OfxStatus (*)(PropSet, const char *, int, const double *));
  EXPECT_MEMBER(S, propSetIntN, 56, OfxStatus (*)(PropSet, const char *, int, const int *));
  EXPECT_MEMBER(S, propGetPointer, 64, OfxStatus (*)(PropSet, const char *, int, void **));
  EXPECT_MEMBER(S, propGetString, 72, OfxStatus (*)(PropSet, const char *, int, char **));
  EXPECT_MEMBER(S, propGetDouble, 80, OfxStatus (*)(PropSet, const char *, int, double *));
  EXPECT_MEMBER(S, propGetInt, 88, OfxStatus (*)(PropSet, const char *, int, int *));
  EXPECT_MEMBER(S, propGetPointerN, 96, OfxStatus (*)(PropSet, const char *, int, void **));
  EXPECT_MEMBER(S, propGetStringN, 104, OfxStatus (*)(PropSet, const char *, int, char **));
  EXPECT_MEMBER(S, propGetDoubleN, 112, OfxStatus (*)(PropSet, const char *, int, double *));
  EXPECT_MEMBER(S, propGetIntN, 120, OfxStatus (*)(PropSet, const char *, int, int *));
  EXPECT_MEMBER(S, propReset, 128, OfxStatus (*)(PropSet, const char *));
  EXPECT_MEMBER(S, propGetDimension, 136, OfxStatus (*)(PropSet, const char *, int *));
  EXPECT_EQ(sizeof(S), 144u);
}

TEST(OfxAbiLayout, ParameterSuiteWithVariadicAccessors) {
  using S = OfxParameterSuiteV1;
  using P = OfxParamHandle;
  using PS = OfxParamSetHandle;
  EXPECT_MEMBER(S, paramDefine, 0, OfxStatus (*)(PS, const char *, const char *, PropSet *));
  EXPECT_MEMBER(S, paramGetHandle, 8, OfxStatus (*)(PS, const char *, P *, PropSet *));
  EXPECT_MEMBER(S, paramSetGetPropertySet, 16, OfxStatus (*)(PS, PropSet *));
  EXPECT_MEMBER(S, paramGetPropertySet, 24, OfxStatus (*)(P, PropSet *));
  // Exact types: a prototype without "..." would not match.
  EXPECT_MEMBER(S, paramGetValue, 32, OfxStatus (*)(P, ...));
  EXPECT_MEMBER(S, paramGetValueAtTime, 40, OfxStatus (*)(P, OfxTime, ...));
  EXPECT_MEMBER(S, paramGetDerivative, 48, OfxStatus (*)(P, OfxTime, ...));
  EXPECT_MEMBER(S, paramGetIntegral, 56, OfxStatus (*)(P, OfxTime, OfxTime, ...));
  EXPECT_MEMBER(S, paramSetValue, 64, OfxStatus (*)(P, ...));
  EXPECT_MEMBER(S, paramSetValueAtTime, 72, OfxStatus (*)(P, OfxTime, ...));
  EXPECT_MEMBER(S, paramGetNumKeys, 80, OfxStatus (*)(P, unsigned int *));
  EXPECT_MEMBER(S, paramGetKeyTime, 88, OfxStatus (*)(P, unsigned int, OfxTime *));
  EXPECT_MEMBER(S, paramGetKeyIndex, 96, OfxStatus (*)(P, OfxTime, int, int *));
  EXPECT_MEMBER(S, paramDeleteKey, 104, OfxStatus (*)(P, OfxTime));
  EXPECT_MEMBER(S, paramDeleteAllKeys, 112, OfxStatus (*)(P));
  EXPECT_MEMBER(S, paramCopy, 120, OfxStatus (*)(P, P, OfxTime, const OfxRangeD *));
  EXPECT_MEMBER(S, paramEditBegin, 128, OfxStatus (*)(PS, const char *));
  EXPECT_MEMBER(S, paramEditEnd, 136, OfxStatus (*)(PS));
  EXPECT_EQ(sizeof(S), 144u);
}

TEST(OfxAbiLayout, ImageEffectSuite) {
  using S = OfxImageEffectSuiteV1;
  using E = OfxImageEffectHandle;
  using C = OfxImageClipHandle;
  using M = OfxImageMemoryHandle;
  EXPECT_MEMBER(S, getPropertySet, 0, OfxStatus (*)(E, PropSet *));
  EXPECT_MEMBER(S, getParamSet, 8, OfxStatus (*)(E, OfxParamSetHandle *));
  EXPECT_MEMBER(S, clipDefine, 16, OfxStatus (*)(E, const char *, PropSet *));
  EXPECT_MEMBER(S, clipGetHandle, 24, OfxStatus (*)(E, const char *, C *, PropSet *));
  EXPECT_MEMBER(S, clipGetPropertySet, 32, OfxStatus (*)(C, PropSet *));
  EXPECT_MEMBER(S, clipGetImage, 40, OfxStatus (*)(C, OfxTime, const OfxRectD *, PropSet *));
  EXPECT_MEMBER(S, clipReleaseImage, 48, OfxStatus (*)(PropSet));
  EXPECT_MEMBER(S, clipGetRegionOfDefinition, 56, OfxStatus (*)(C, OfxTime, OfxRectD *));
  EXPECT_MEMBER(S, abort, 64, int (*)(E));
  EXPECT_MEMBER(S, imageMemoryAlloc, 72, OfxStatus (*)(E, size_t, M *));
  EXPECT_MEMBER(S, imageMemoryFree, 80, OfxStatus (*)(M));
  EXPECT_MEMBER(S, imageMemoryLock, 88, OfxStatus (*)(M, void **));
  EXPECT_MEMBER(S, imageMemoryUnlock, 96, OfxStatus (*)(M));
  EXPECT_EQ(sizeof(S), 104u);
}

TEST(OfxAbiLayout, MemoryMultiThreadMessageAndInteractSuites) {
  EXPECT_MEMBER(OfxMemorySuiteV1, memoryAlloc, 0, OfxStatus (*)(void *, size_t, void **));
  EXPECT_MEMBER(OfxMemorySuiteV1, memoryFree, 8, OfxStatus (*)(void *));
  EXPECT_EQ(sizeof(OfxMemorySuiteV1), 16u);

  using T = OfxMultiThreadSuiteV1;
  using Mx = OfxMutexHandle;
  EXPECT_MEMBER(T, multiThread, 0, OfxStatus (*)(OfxThreadFunctionV1 *, unsigned int, void *));
  EXPECT_MEMBER(T, multiThreadNumCPUs, 8, OfxStatus (*)(unsigned int *));
  EXPECT_MEMBER(T, multiThreadIndex, 16, OfxStatus (*)(unsigned int *));
  EXPECT_MEMBER(T, multiThreadIsSpawnedThread, 24, int (*)(void));
  EXPECT_MEMBER(T, mutexCreate, 32, OfxStatus (*)(Mx *, int));
  EXPECT_MEMBER(T, mutexDestroy, 40, OfxStatus (*)(Mx));
  EXPECT_MEMBER(T, mutexLock, 48, OfxStatus (*)(Mx));
  EXPECT_MEMBER(T, mutexUnLock, 56, OfxStatus (*)(Mx));
  EXPECT_MEMBER(T, mutexTryLock, 64, OfxStatus (*)(Mx));
  EXPECT_EQ(sizeof(T), 72u);

  EXPECT_MEMBER(OfxMessageSuiteV1, message, 0,
                OfxStatus (*)(void *, const char *, const char *, const char *, ...));
  EXPECT_EQ(sizeof(OfxMessageSuiteV1), 8u);

  using I = OfxInteractHandle;
  EXPECT_MEMBER(OfxInteractSuiteV1, interactSwapBuffers, 0, OfxStatus (*)(I));
  EXPECT_MEMBER(OfxInteractSuiteV1, interactRedraw, 8, OfxStatus (*)(I));
  EXPECT_MEMBER(OfxInteractSuiteV1, interactGetPropertySet, 16, OfxStatus (*)(I, PropSet *));
  EXPECT_EQ(sizeof(OfxInteractSuiteV1), 24u);
}

TEST(OfxAbiConstants, StatusCodes) {
  const struct {
    int value, expected;
    const char *name;
  } codes[] = {
      {kOfxStatOK, 0, "OK"},
      {kOfxStatFailed, 1, "Failed"},
      {kOfxStatErrFatal, 2, "ErrFatal"},
      {kOfxStatErrUnknown, 3, "ErrUnknown"},
      {kOfxStatErrMissingHostFeature, 4, "ErrMissingHostFeature"},
      {kOfxStatErrUnsupported, 5, "ErrUnsupported"},
      {kOfxStatErrExists, 6, "ErrExists"},
      {kOfxStatErrFormat, 7, "ErrFormat"},
      {kOfxStatErrMemory, 8, "ErrMemory"},
      {kOfxStatErrBadHandle, 9, "ErrBadHandle"},
      {kOfxStatErrBadIndex, 10, "ErrBadIndex"},
      {kOfxStatErrValue, 11, "ErrValue"},
      {kOfxStatReplyYes, 12, "ReplyYes"},
      {kOfxStatReplyNo, 13, "ReplyNo"},
      {kOfxStatReplyDefault, 14, "ReplyDefault"},
      {kOfxStatErrImageFormat, 1000, "ErrImageFormat"},
  };
  for (const auto &c : codes) EXPECT_EQ(c.value, c.expected) << "kOfxStat" << c.name;
  EXPECT_EQ(kOfxImageEffectPluginApiVersion, 1);
}

TEST(OfxAbiConstants, NamesWhoseValueIsSpeltDifferently) {
  EXPECT_STREQ(kOfxImageEffectPropSupportsMultipleClipDepths, "OfxImageEffectPropMultipleClipDepths");
  EXPECT_STREQ(kOfxImageUnPreMultiplied, "OfxImageAlphaUnPremultiplied");
  EXPECT_STREQ(kOfxImageFieldBoth, "OfxFieldBoth");
  EXPECT_STREQ(kOfxImageEffectPluginApi, "OfxImageEffectPluginAPI");
  EXPECT_STREQ(kOfxParamPropPersistant, "OfxParamPropPersistant");
}

TEST(OfxAbiConstants, SuiteNamesAndSampleOfStrings) {
  // Suite names are what fetchSuite matches on; all of them are checked.
  EXPECT_STREQ(kOfxPropertySuite, "OfxPropertySuite");
  EXPECT_STREQ(kOfxParameterSuite, "OfxParameterSuite");
  EXPECT_STREQ(kOfxImageEffectSuite, "OfxImageEffectSuite");
  EXPECT_STREQ(kOfxMemorySuite, "OfxMemorySuite");
  EXPECT_STREQ(kOfxMultiThreadSuite, "OfxMultiThreadSuite");
  EXPECT_STREQ(kOfxMessageSuite, "OfxMessageSuite");
  EXPECT_STREQ(kOfxInteractSuite, "OfxInteractSuite");

  EXPECT_STREQ(kOfxActionDescribe, "OfxActionDescribe");
  EXPECT_STREQ(kOfxImageEffectActionGetRegionsOfInterest, "OfxImageEffectActionGetRegionsOfInterest");
  EXPECT_STREQ(kOfxImageEffectActionGetClipPreferences, "OfxImageEffectActionGetClipPreferences");
  EXPECT_STREQ(kOfxImageEffectActionRender, "OfxImageEffectActionRender");
  EXPECT_STREQ(kOfxImageEffectOutputClipName, "Output");
  EXPECT_STREQ(kOfxImageEffectSimpleSourceClipName, "Source");
  EXPECT_STREQ(kOfxImageEffectContextGeneral, "OfxImageEffectContextGeneral");
  EXPECT_STREQ(kOfxBitDepthShort, "OfxBitDepthShort");
  EXPECT_STREQ(kOfxImageComponentRGBA, "OfxImageComponentRGBA");
  EXPECT_STREQ(kOfxMessageError, "OfxMessageError");
  EXPECT_STREQ(kOfxParamDoubleTypeScale, "OfxParamDoubleTypeScale");
  EXPECT_STREQ(kOfxImageEffectPluginRenderThreadSafety, "OfxImageEffectPluginRenderThreadSafety");
  EXPECT_STREQ(kOfxImageEffectRenderFullySafe, "OfxImageEffectRenderFullySafe");
  EXPECT_STREQ(kOfxImageClipPropUnmappedPixelDepth, "OfxImageClipPropUnmappedPixelDepth");
  EXPECT_STREQ(kOfxImagePropRowBytes, "OfxImagePropRowBytes");
  EXPECT_STREQ(kOfxImageEffectPropInAnalysis, "OfxImageEffectPropInAnalysis");
}
