// The exported entry points, the plug-in record, the shell's globals and the
// actions that the shell answers itself: Describe, Load, Unload, DestroyInstance.
#include <cxxabi.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "base/qvmem.h"
#include "licence/licence.h"
#include "mp/kqmp.h"
#include "shell/ofx_plugin.h"

OfxHost* gHost = nullptr;
OfxImageEffectSuiteV1* gEffectHost = nullptr;
OfxPropertySuiteV1* gPropHost = nullptr;
OfxParameterSuiteV1* gParamHost = nullptr;
OfxMemorySuiteV1* gMemoryHost = nullptr;
OfxMultiThreadSuiteV1* gThreadHost = nullptr;
OfxMessageSuiteV1* gMessageSuite = nullptr;
OfxInteractSuiteV1* gInteractHost = nullptr;
int32_t gHostSupportsMultipleBitDepths = 1;
int32_t gHostIsBackground = 0;
uint8_t functracker = 0;
std::atomic<uint8_t> gWarningBackgroundRenderNoLicense{0};
ofxHost QVOfxHost = {nullptr, nullptr};

namespace {

constexpr const char* kPluginName = "Trelvo3_Vectors";
constexpr int kVersionMajor = 3;
constexpr int kVersionMinor = 3;
constexpr int kVersionMicro = 12;

// The first bytes of the host's name, compared with exactly the given length.
// strncmp stops at the name's end, so a short name is a mismatch without
// reading past it; otherwise it answers as a byte compare of that length.
bool HostNameBegins(const ofxHost* host, const char* literal, size_t length) {
    return host && host->name && std::strncmp(host->name, literal, length) == 0;
}

template <typename Suite>
Suite* FetchSuite(const char* name) {
    if (!gHost || !gHost->fetchSuite) return nullptr;
    return static_cast<Suite*>(const_cast<void*>(gHost->fetchSuite(gHost->host, name, 1)));
}

// Jobs run on the host's own threads where the host is Nuke and offers them.
bool HostThreadRunner(kqmp_threadfunction* fn, unsigned int count, void* arg) {
    if (!hostIsNuke() || !gThreadHost || !gThreadHost->multiThread) return false;
    gThreadHost->multiThread(fn, count, arg);  // status ignored
    return true;
}

// Runs an action so that no exception crosses into the host: a PLErr becomes
// its OFX status, exhausted memory kOfxStatErrMemory, anything else a failure.
// A thread's cancellation is the host's own unwinding and goes on its way.
template <typename Action>
OfxStatus Guarded(Action&& action) {
    try {
        return action();
    } catch (PLErr e) {
        return ConvertPLErrToOFXErr(e);
    } catch (const std::bad_alloc&) {
        return kOfxStatErrMemory;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        return kOfxStatFailed;
    }
}

// Runs from a static destructor, where an exception would end the process.
void ExitRoutine() {
    Guarded([] {
        if (functracker) {
            common_CleanUpQV();
            functracker = 0;
        }
        return kOfxStatOK;
    });
}

// Before any action: clear the load flag. The destructor makes good, at
// process end or unload of the shared object, an Unload that the host never
// sent. A static destructor is bound to this module; std::atexit is not
// everywhere (a sanitizer runtime's atexit outlives dlclose and then calls
// into the unmapped module at exit).
struct StaticStartUp {
    StaticStartUp() {
        functracker = 0;
        kqmp_sethostrunner(HostThreadRunner);
    }
    ~StaticStartUp() { ExitRoutine(); }
} gStaticStartUp;

OfxStatus Describe(OfxImageEffectHandle effect) {
    if (!gHost) return kOfxStatErrMissingHostFeature;
    gEffectHost = FetchSuite<OfxImageEffectSuiteV1>(kOfxImageEffectSuite);
    gPropHost = FetchSuite<OfxPropertySuiteV1>(kOfxPropertySuite);
    gParamHost = FetchSuite<OfxParameterSuiteV1>(kOfxParameterSuite);
    gMemoryHost = FetchSuite<OfxMemorySuiteV1>(kOfxMemorySuite);
    gThreadHost = FetchSuite<OfxMultiThreadSuiteV1>(kOfxMultiThreadSuite);
    gMessageSuite = FetchSuite<OfxMessageSuiteV1>(kOfxMessageSuite);
    gInteractHost = FetchSuite<OfxInteractSuiteV1>(kOfxInteractSuite);
    if (!gEffectHost || !gPropHost || !gParamHost || !gMemoryHost || !gThreadHost)
        return kOfxStatErrMissingHostFeature;

    // A host that does not know a property leaves the global at its start value.
    gPropHost->propGetInt(gHost->host, kOfxImageEffectPropSupportsMultipleClipDepths, 0,
                          &gHostSupportsMultipleBitDepths);
    gPropHost->propGetInt(gHost->host, kOfxImageEffectHostPropIsBackground, 0, &gHostIsBackground);

    OfxPropertySetHandle props = nullptr;
    gEffectHost->getPropertySet(effect, &props);

    char pluginVersionText[64];
    std::snprintf(pluginVersionText, sizeof pluginVersionText, "%s %d.%d.%d", kPluginName, kVersionMajor,
                  kVersionMinor, kVersionMicro);

    OfxPropertySuiteV1* p = gPropHost;
    p->propSetString(props, kOfxPropPluginDescription, 0, pluginVersionText);
    p->propSetInt(props, kOfxImageEffectPluginPropFieldRenderTwiceAlways, 0, 1);
    p->propSetInt(props, kOfxImageEffectPluginPropSingleInstance, 0, 0);
    p->propSetString(props, kOfxImageEffectPluginRenderThreadSafety, 0, kOfxImageEffectRenderFullySafe);
    p->propSetInt(props, kOfxImageEffectPropSupportsMultipleClipPARs, 0, 0);
    p->propSetInt(props, kOfxImageEffectPropSupportsMultipleClipDepths, 0, 1);
    p->propSetInt(props, kOfxImageEffectPropSupportsTiles, 0, 0);
    p->propSetString(props, kOfxImageEffectPropSupportedPixelDepths, 0, kOfxBitDepthByte);
    p->propSetString(props, kOfxImageEffectPropSupportedPixelDepths, 1, kOfxBitDepthShort);
    p->propSetString(props, kOfxImageEffectPropSupportedPixelDepths, 2, kOfxBitDepthFloat);
    p->propSetInt(props, kOfxImageEffectPropTemporalClipAccess, 0, 0);
    p->propSetInt(props, kOfxImageEffectPropSupportsMultiResolution, 0, 0);
    p->propSetInt(props, kOfxImageEffectPluginPropHostFrameThreading, 0, 0);
    p->propSetInt(props, kOfxImageEffectInstancePropSequentialRender, 0, 0);
    // The grouping is written twice; the host keeps the last one.
    p->propSetString(props, kOfxImageEffectPluginPropGrouping, 0, "Trelvo");
    p->propSetInt(props, kOfxImageEffectPropInAnalysis, 0, 0);
    p->propSetString(props, kOfxPropLabel, 0, kPluginName);
    p->propSetString(props, kOfxImageEffectPluginPropGrouping, 0, "Corvane Effects");
    p->propSetString(props, kOfxImageEffectPropSupportedContexts, 0, kOfxImageEffectContextGeneral);
    return kOfxStatOK;
}

OfxStatus Load() {
    OfxStatus status = kOfxStatErrMissingHostFeature;
    functracker = 1;
    if (!gHost) return status;  // the host must have called setHost first
    // Not the order of Describe, on purpose.
    gEffectHost = FetchSuite<OfxImageEffectSuiteV1>(kOfxImageEffectSuite);
    gPropHost = FetchSuite<OfxPropertySuiteV1>(kOfxPropertySuite);
    gParamHost = FetchSuite<OfxParameterSuiteV1>(kOfxParameterSuite);
    gThreadHost = FetchSuite<OfxMultiThreadSuiteV1>(kOfxMultiThreadSuite);
    gMessageSuite = FetchSuite<OfxMessageSuiteV1>(kOfxMessageSuite);
    gMemoryHost = FetchSuite<OfxMemorySuiteV1>(kOfxMemorySuite);
    gInteractHost = FetchSuite<OfxInteractSuiteV1>(kOfxInteractSuite);
    if (gEffectHost && gPropHost && gParamHost && gThreadHost && gMessageSuite && gMemoryHost) {
        status = kOfxStatOK;
        setMemoryHooks(nullptr, QVUserMallocFunc, QVUserFreeFunc);
    }
    // Name and label are read also when a suite is missing.
    if (gPropHost) {
        // Preset to what is held, so that an unanswered read leaves it.
        char* name = const_cast<char*>(QVOfxHost.name);
        char* label = const_cast<char*>(QVOfxHost.label);
        gPropHost->propGetString(gHost->host, kOfxPropName, 0, &name);
        gPropHost->propGetString(gHost->host, kOfxPropLabel, 0, &label);
        QVOfxHost.name = name;
        QVOfxHost.label = label;
    }
    if (hostIsNuke() && gThreadHost && gThreadHost->multiThreadNumCPUs) {
        unsigned int cpus = 0;  // 0 leaves the thread layer to count for itself
        gThreadHost->multiThreadNumCPUs(&cpus);
        // Clamped to the thread layer's slots there; kept from turning negative here.
        setThreadCount(static_cast<int32_t>(cpus > INT32_MAX ? INT32_MAX : cpus));
    }
    return status;
}

OfxStatus DestroyInstance() {
    if (!hostIsToxik()) TrelvoLicenceRelease();
    return kOfxStatOK;
}

}  // namespace

OfxPlugin pluginRecord = {
    kOfxImageEffectPluginApi,       // pluginApi
    1,                              // apiVersion
    "com.corvane.Trelvo3_Vectors",  // pluginIdentifier
    3,                              // pluginVersionMajor
    31200,  // pluginVersionMinor: not the same number as the 3.3.12 of the description
    pluginSetHost,
    pluginMainEntry,
};

bool hostIsNuke(const ofxHost* host) {
    return HostNameBegins(host, "uk.co.thefoundry.nuke", 20);
}
bool hostIsFusion(const ofxHost* host) {
    return HostNameBegins(host, "com.eyeonline.Fusion", 18);
}
bool hostIsToxik(const ofxHost* host) {
    return HostNameBegins(host, "Autodesk Toxik", 13);
}

void pluginSetHost(OfxHost* host) {
    gHost = host;
}

OfxStatus onUnLoad() {
    TrelvoLicenceRelease();
    if (functracker) {
        common_CleanUpQV();
        functracker = 0;
    }
    return kOfxStatOK;
}

namespace {

OfxStatus Dispatch(const char* action, const void* handle, OfxPropertySetHandle inArgs,
                   OfxPropertySetHandle outArgs) {
    if (!action) return kOfxStatReplyDefault;
    auto effect = static_cast<OfxImageEffectHandle>(const_cast<void*>(handle));
    // Exact compares (the terminating zero included), in this order; first match wins.
    if (std::strcmp(action, kOfxActionDescribe) == 0) return Describe(effect);
    if (std::strcmp(action, kOfxImageEffectActionDescribeInContext) == 0)
        return describeInContext(effect, inArgs);
    if (std::strcmp(action, kOfxActionLoad) == 0) return Load();
    if (std::strcmp(action, kOfxActionUnload) == 0) return onUnLoad();
    if (std::strcmp(action, kOfxActionCreateInstance) == 0) return createInstance(effect);
    if (std::strcmp(action, kOfxActionDestroyInstance) == 0) return DestroyInstance();
    if (std::strcmp(action, kOfxImageEffectActionIsIdentity) == 0) return isIdentity(effect, inArgs, outArgs);
    if (std::strcmp(action, kOfxImageEffectActionRender) == 0) return render(effect, inArgs, outArgs);
    if (std::strcmp(action, kOfxImageEffectActionGetRegionOfDefinition) == 0)
        return getSpatialRoD(effect, inArgs, outArgs);
    if (std::strcmp(action, kOfxImageEffectActionGetRegionsOfInterest) == 0)
        return getSpatialRoI(effect, inArgs, outArgs);
    if (std::strcmp(action, kOfxImageEffectActionGetClipPreferences) == 0)
        return getClipPreferences(effect, inArgs, outArgs);
    if (std::strcmp(action, kOfxActionInstanceChanged) == 0) return instanceChanged(effect, inArgs, outArgs);
    if (std::strcmp(action, kOfxImageEffectActionGetTimeDomain) == 0)
        return getTemporalDomain(effect, inArgs, outArgs);
    if (std::strcmp(action, kOfxImageEffectActionGetFramesNeeded) == 0)
        return getFramesNeeded(effect, inArgs, outArgs);
    if (std::strcmp(action, kOfxActionSyncPrivateData) == 0) return syncPrivatData(effect, inArgs, outArgs);
    return kOfxStatReplyDefault;
}

}  // namespace

OfxStatus pluginMainEntry(const char* action, const void* handle, OfxPropertySetHandle inArgs,
                          OfxPropertySetHandle outArgs) {
    return Guarded([&] { return Dispatch(action, handle, inArgs, outArgs); });
}
