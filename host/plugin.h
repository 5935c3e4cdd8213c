// A plug-in binary loaded from its bundle, and one plug-in of it driven
// through its actions. Each action the host sends is recorded with the
// status the plug-in answered. The action methods build inArgs and outArgs
// as property sets with that action's properties defined in advance, and
// hand both back with the status, so the caller sees exactly what the
// plug-in wrote (and what it tried to write that a host doesn't know).
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "effect.h"
#include "host.h"
#include "ofxCore.h"

namespace ofxhost {

class Bundle {
  public:
    // The binary of a bundle folder (NAME.ofx.bundle/Contents/Linux-x86-64/NAME.ofx),
    // or the path itself when it doesn't name a folder.
    static std::string binaryPath(const std::string& path);
    // Loads the binary with RTLD_NOW | RTLD_LOCAL and finds the two entry
    // points. On failure gives null and a message naming the path and the cause.
    static std::unique_ptr<Bundle> open(const std::string& path, std::string& error);
    ~Bundle();  // dlclose
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    const std::string& path() const { return path_; }
    int numberOfPlugins() const;
    OfxPlugin* plugin(int index) const;

  private:
    Bundle(std::string path, void* module, int (*count)(), OfxPlugin* (*get)(int));

    std::string path_;
    void* module_;
    int (*getNumberOfPlugins_)();
    OfxPlugin* (*getPlugin_)(int);
};

struct ActionCall {
    std::string action;
    OfxStatus status;
};

// One action's outcome: the status, both argument sets as the plug-in left
// them (null where the action takes none), and what the host's memory and
// images did during the call.
struct ActionResult {
    OfxStatus status = kOfxStatFailed;
    std::unique_ptr<PropertySet> inArgs;
    std::unique_ptr<PropertySet> outArgs;
    MemoryLedger::Counts memoryBefore;
    MemoryLedger::Counts memoryAfter;
    ImageLedger::Counts imagesBefore;
    ImageLedger::Counts imagesAfter;

    // As many frees as allocations during the call, and no bytes left behind.
    bool memoryBalanced() const;
    // Every image handed out during the call was released during it.
    bool imagesReleased() const;
    // Values of an out (or in) property; empty if it is unknown or unset.
    std::vector<PropertyValue> out(const std::string& name) const;
    std::vector<PropertyValue> in(const std::string& name) const;
};

struct RenderArgs {
    OfxTime time = 0.0;
    OfxRectI window = {0, 0, 0, 0};  // empty: the Output image's bounds at that time
    OfxPointD renderScale = {1.0, 1.0};
    std::string field = kOfxImageFieldNone;
    bool sequential = false;   // kOfxImageEffectPropSequentialRenderStatus
    bool interactive = false;  // kOfxImageEffectPropInteractiveRenderStatus
};

class Plugin {
  public:
    Plugin(Host& host, OfxPlugin& record, std::string binaryPath = {});

    const OfxPlugin& record() const { return record_; }
    // Hands the plug-in the host; until then it has none.
    void setHost();
    OfxStatus action(const char* name, const void* handle = nullptr, OfxPropertySetHandle inArgs = nullptr,
                     OfxPropertySetHandle outArgs = nullptr);

    // Describe on a fresh descriptor, which stays for the caller to read.
    OfxStatus describe();
    OfxStatus load();
    OfxStatus unload();
    ImageEffect* descriptor() { return descriptor_.get(); }
    const std::vector<ActionCall>& actions() const { return actions_; }
    // Forgets them, for a driver that sends actions without end.
    void clearActions();

    // Describe in a context on a fresh descriptor in that context (a copy of
    // the plain descriptor's properties); the host keeps it, with the clips
    // and parameters the plug-in defined, for createInstance.
    ActionResult describeInContext(const std::string& context);
    ImageEffect* contextDescriptor() { return contextDescriptor_.get(); }
    // An instance built from the context descriptor (an empty one in the
    // given context if none was described), with the context property. The
    // instance stays, also when the plug-in refuses it, until destroyInstance.
    ActionResult createInstance(const std::string& context = {});
    ImageEffect* instance() { return instance_.get(); }
    // The actions on the instance; each needs createInstance first (else
    // kOfxStatErrBadHandle, and nothing is sent).
    ActionResult clipPreferences();
    ActionResult regionOfDefinition(OfxTime time, OfxPointD renderScale = {1.0, 1.0});
    ActionResult regionsOfInterest(OfxTime time, OfxRectD roi, OfxPointD renderScale = {1.0, 1.0});
    ActionResult framesNeeded(OfxTime time);
    ActionResult timeDomain();
    ActionResult isIdentity(OfxTime time, OfxRectI window, OfxPointD renderScale = {1.0, 1.0},
                            const std::string& field = kOfxImageFieldNone);
    ActionResult render(const RenderArgs& args);
    ActionResult instanceChanged(const std::string& type, const std::string& name, const std::string& reason,
                                 OfxTime time = 0.0, OfxPointD renderScale = {1.0, 1.0});
    ActionResult syncPrivateData();
    // Sends the action and drops the instance whatever the plug-in answers.
    ActionResult destroyInstance();

  private:
    ActionResult send(const char* action, const void* handle, std::unique_ptr<PropertySet> inArgs,
                      std::unique_ptr<PropertySet> outArgs);
    ActionResult sendToInstance(const char* action, std::unique_ptr<PropertySet> inArgs,
                                std::unique_ptr<PropertySet> outArgs);

    Host& host_;
    OfxPlugin& record_;
    std::string binaryPath_;
    std::unique_ptr<ImageEffect> descriptor_;
    std::unique_ptr<ImageEffect> contextDescriptor_;
    std::unique_ptr<ImageEffect> instance_;
    std::mutex actionsMutex_;
    std::vector<ActionCall> actions_;
};

}  // namespace ofxhost
