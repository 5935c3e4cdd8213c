#ifndef _ofxCore_h_
#define _ofxCore_h_

/* Core of the OFX C API: the host and plug-in descriptors, the entry
 * points a plug-in binary exports, and the generic actions and properties.
 * Member order and types are the binary interface; names follow the
 * standard headers so code builds against either set. */

#include <stddef.h> /* size_t, needed by ofxMemory.h which includes nothing */

#ifdef __cplusplus
extern "C" {
#endif

/* Visibility is not set here: a build with -fvisibility=hidden must mark
 * the two entry points itself. */
#if defined(_WIN32) || defined(_WIN64)
#define OfxExport extern __declspec(dllexport)
#else
#define OfxExport extern
#endif

typedef struct OfxPropertySetStruct *OfxPropertySetHandle;

typedef int OfxStatus;

typedef double OfxTime;

typedef struct OfxHost {
  OfxPropertySetHandle host;
  /* Called with the host member above; null when the suite is missing. */
  const void *(*fetchSuite)(OfxPropertySetHandle host, const char *suiteName, int suiteVersion);
} OfxHost;

/* A function type, not a pointer type: OfxPlugin holds a pointer to it. */
typedef OfxStatus(OfxPluginEntryPoint)(const char *action, const void *handle,
                                       OfxPropertySetHandle inArgs, OfxPropertySetHandle outArgs);

typedef struct OfxPlugin {
  const char *pluginApi;
  int apiVersion;
  const char *pluginIdentifier;
  unsigned int pluginVersionMajor;
  unsigned int pluginVersionMinor;
  void (*setHost)(OfxHost *host);
  OfxPluginEntryPoint *mainEntry;
} OfxPlugin;

/* Exported by every plug-in binary under these unmangled names. */
OfxExport int OfxGetNumberOfPlugins(void);
OfxExport OfxPlugin *OfxGetPlugin(int nth);

typedef struct OfxRangeI {
  int min, max;
} OfxRangeI;

typedef struct OfxRangeD {
  double min, max;
} OfxRangeD;

typedef struct OfxPointI {
  int x, y;
} OfxPointI;

typedef struct OfxPointD {
  double x, y;
} OfxPointD;

typedef struct OfxRectI {
  int x1, y1, x2, y2;
} OfxRectI;

typedef struct OfxRectD {
  double x1, y1, x2, y2;
} OfxRectD;

/* Status codes. */
#define kOfxStatOK 0
#define kOfxStatFailed 1
#define kOfxStatErrFatal 2
#define kOfxStatErrUnknown 3
#define kOfxStatErrMissingHostFeature 4
#define kOfxStatErrUnsupported 5
#define kOfxStatErrExists 6
#define kOfxStatErrFormat 7
#define kOfxStatErrMemory 8
#define kOfxStatErrBadHandle 9
#define kOfxStatErrBadIndex 10
#define kOfxStatErrValue 11
#define kOfxStatReplyYes 12
#define kOfxStatReplyNo 13
#define kOfxStatReplyDefault 14

/* Generic actions. */
#define kOfxActionLoad "OfxActionLoad"
#define kOfxActionDescribe "OfxActionDescribe"
#define kOfxActionUnload "OfxActionUnload"
#define kOfxActionPurgeCaches "OfxActionPurgeCaches"
#define kOfxActionSyncPrivateData "OfxActionSyncPrivateData"
#define kOfxActionCreateInstance "OfxActionCreateInstance"
#define kOfxActionDestroyInstance "OfxActionDestroyInstance"
#define kOfxActionInstanceChanged "OfxActionInstanceChanged"
#define kOfxActionBeginInstanceChanged "OfxActionBeginInstanceChanged"
#define kOfxActionEndInstanceChanged "OfxActionEndInstanceChanged"
#define kOfxActionBeginInstanceEdit "OfxActionBeginInstanceEdit"
#define kOfxActionEndInstanceEdit "OfxActionEndInstanceEdit"

/* Generic properties. */
#define kOfxPropAPIVersion "OfxPropAPIVersion"
#define kOfxPropTime "OfxPropTime"
#define kOfxPropIsInteractive "OfxPropIsInteractive"
#define kOfxPluginPropFilePath "OfxPluginPropFilePath"
#define kOfxPropInstanceData "OfxPropInstanceData"
#define kOfxPropType "OfxPropType"
#define kOfxPropName "OfxPropName"
#define kOfxPropVersion "OfxPropVersion"
#define kOfxPropVersionLabel "OfxPropVersionLabel"
#define kOfxPropPluginDescription "OfxPropPluginDescription"
#define kOfxPropLabel "OfxPropLabel"
#define kOfxPropShortLabel "OfxPropShortLabel"
#define kOfxPropLongLabel "OfxPropLongLabel"
#define kOfxPropIcon "OfxPropIcon"
#define kOfxPropChangeReason "OfxPropChangeReason"
#define kOfxPropEffectInstance "OfxPropEffectInstance"
#define kOfxPropHostOSHandle "OfxPropHostOSHandle"

/* Values of kOfxPropChangeReason. */
#define kOfxChangeUserEdited "OfxChangeUserEdited"
#define kOfxChangePluginEdited "OfxChangePluginEdited"
#define kOfxChangeTime "OfxChangeTime"

/* Pixel depths. */
#define kOfxBitDepthNone "OfxBitDepthNone"
#define kOfxBitDepthByte "OfxBitDepthByte"
#define kOfxBitDepthShort "OfxBitDepthShort"
#define kOfxBitDepthHalf "OfxBitDepthHalf"
#define kOfxBitDepthFloat "OfxBitDepthFloat"

#ifdef __cplusplus
}
#endif

#endif /* _ofxCore_h_ */
