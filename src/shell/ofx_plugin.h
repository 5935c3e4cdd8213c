// The plug-in's outward face towards an OFX host: the record, the host and
// suite globals, the host tests, the action functions and the host services
// (messages, error mapping, memory hooks) that the image library needs.
#pragma once

#include <atomic>
#include <cstdint>

#include "base/plerr.h"
#include "ofxCore.h"
#include "ofxImageEffect.h"
#include "ofxInteract.h"
#include "ofxMemory.h"
#include "ofxMessage.h"
#include "ofxMultiThread.h"
#include "ofxOld.h"
#include "ofxParam.h"
#include "ofxProperty.h"

// A private status past the standard ones: a user abort where an OFX status is wanted.
constexpr OfxStatus qvStatAborted = 15;

// The host's label and name as its property suite handed them out (kept, not copied).
struct ofxHost {
    const char* label;
    const char* name;
};

extern OfxHost* gHost;
extern OfxImageEffectSuiteV1* gEffectHost;
extern OfxPropertySuiteV1* gPropHost;
extern OfxParameterSuiteV1* gParamHost;
extern OfxMemorySuiteV1* gMemoryHost;
extern OfxMultiThreadSuiteV1* gThreadHost;
extern OfxMessageSuiteV1* gMessageSuite;
extern OfxInteractSuiteV1* gInteractHost;
extern int32_t gHostSupportsMultipleBitDepths;
extern int32_t gHostIsBackground;
extern uint8_t functracker;
// Set by the first unlicensed frame of a background render, from any render
// thread; two first frames at once may both warn.
extern std::atomic<uint8_t> gWarningBackgroundRenderNoLicense;
extern ofxHost QVOfxHost;

extern OfxPlugin pluginRecord;

// The only ways in which hosts are told apart: prefix compares of the host's
// name, of 20, 18 and 13 bytes.
bool hostIsNuke(const ofxHost* host = &QVOfxHost);
bool hostIsFusion(const ofxHost* host = &QVOfxHost);
bool hostIsToxik(const ofxHost* host = &QVOfxHost);

void pluginSetHost(OfxHost* host);
OfxStatus pluginMainEntry(const char* action, const void* handle, OfxPropertySetHandle inArgs,
                          OfxPropertySetHandle outArgs);
OfxStatus onUnLoad();

// Actions answered by the instance and render code.
OfxStatus describeInContext(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs);
OfxStatus createInstance(OfxImageEffectHandle effect);
bool IsGeneralEffect(OfxImageEffectHandle effect);
OfxStatus isIdentity(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs, OfxPropertySetHandle outArgs);
OfxStatus render(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs, OfxPropertySetHandle outArgs);
OfxStatus getSpatialRoD(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                        OfxPropertySetHandle outArgs);
OfxStatus getToxikSpatialRoD(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                             OfxPropertySetHandle outArgs);
OfxStatus getSpatialRoI(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                        OfxPropertySetHandle outArgs);
OfxStatus getClipPreferences(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                             OfxPropertySetHandle outArgs);
OfxStatus instanceChanged(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                          OfxPropertySetHandle outArgs);
OfxStatus getTemporalDomain(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                            OfxPropertySetHandle outArgs);
OfxStatus getFramesNeeded(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                          OfxPropertySetHandle outArgs);
OfxStatus syncPrivatData(OfxImageEffectHandle effect, OfxPropertySetHandle inArgs,
                         OfxPropertySetHandle outArgs);

// Error mapping between the library and OFX. The two are not inverses.
OfxStatus ConvertPLErrToOFXErr(PLErr err);
PLErr ConvertOFXErrToPLErr(int status);

// Messages to the user, by host. Only qvofx_error passes on the host's status.
int qvofx_error(OfxImageEffectHandle effect, ofxHost* host, int status, const char* prefix,
                const char* format, ...) __attribute__((format(printf, 5, 6)));
void qvofx_fatal(OfxImageEffectHandle effect, ofxHost* host, int status, const char* prefix,
                 const char* format, ...) __attribute__((format(printf, 5, 6)));
void qvofx_message(OfxImageEffectHandle effect, ofxHost* host, int code, const char* prefix,
                   const char* format, ...) __attribute__((format(printf, 5, 6)));
void qvofx_log(OfxImageEffectHandle effect, ofxHost* host, int code, const char* prefix, const char* format,
               ...) __attribute__((format(printf, 5, 6)));
void qvofx_warning(OfxImageEffectHandle effect, ofxHost* host, int code, bool important, const char* prefix,
                   const char* format, ...) __attribute__((format(printf, 6, 7)));

// The image library's memory hooks, bound to the host's memory suite at Load.
void* QVUserMallocFunc(void* userData, unsigned long size);
void QVUserFreeFunc(void* userData, void* block);

// Stops the worker threads and gives the library back the plain heap.
void common_CleanUpQV();

void doNothing();
void doNothing(const char* format, ...);
