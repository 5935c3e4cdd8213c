// A plug-in binary loaded from its bundle, and one plug-in of it driven
// through its actions. Each action the host sends is recorded with the
// status the plug-in answered.
#pragma once

#include <memory>
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

  private:
    Host& host_;
    OfxPlugin& record_;
    std::string binaryPath_;
    std::unique_ptr<ImageEffect> descriptor_;
    std::vector<ActionCall> actions_;
};

}  // namespace ofxhost
