// Loading a bundle and sending a plug-in its actions.
#include "plugin.h"

#include <dlfcn.h>
#include <sys/stat.h>

namespace ofxhost {

std::string Bundle::binaryPath(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return path;
    std::string folder = path;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    std::string name = folder.substr(folder.find_last_of('/') + 1);  // npos + 1 == 0
    const std::string suffix = ".bundle";
    if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
        name.resize(name.size() - suffix.size());
    return folder + "/Contents/Linux-x86-64/" + name;
}

std::unique_ptr<Bundle> Bundle::open(const std::string& path, std::string& error) {
    std::string binary = binaryPath(path);
    // Without a slash dlopen would search the library path, not the folder we are in.
    if (binary.find('/') == std::string::npos) binary = "./" + binary;
    void* module = dlopen(binary.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) {
        const char* why = dlerror();
        error = "cannot load " + binary + ": " + (why ? why : "unknown error");
        return nullptr;
    }
    auto count = reinterpret_cast<int (*)()>(dlsym(module, "OfxGetNumberOfPlugins"));
    auto get = reinterpret_cast<OfxPlugin* (*)(int)>(dlsym(module, "OfxGetPlugin"));
    if (!count || !get) {
        error = binary + ": not an OFX plug-in (" + (count ? "OfxGetPlugin" : "OfxGetNumberOfPlugins") +
                " is missing)";
        dlclose(module);
        return nullptr;
    }
    return std::unique_ptr<Bundle>(new Bundle(binary, module, count, get));
}

Bundle::Bundle(std::string path, void* module, int (*count)(), OfxPlugin* (*get)(int))
    : path_(std::move(path)), module_(module), getNumberOfPlugins_(count), getPlugin_(get) {}

Bundle::~Bundle() {
    dlclose(module_);
}

int Bundle::numberOfPlugins() const {
    return getNumberOfPlugins_();
}
OfxPlugin* Bundle::plugin(int index) const {
    return getPlugin_(index);
}

Plugin::Plugin(Host& host, OfxPlugin& record, std::string binaryPath)
    : host_(host), record_(record), binaryPath_(std::move(binaryPath)) {}

void Plugin::setHost() {
    record_.setHost(host_.ofxHost());
}

OfxStatus Plugin::action(const char* name, const void* handle, OfxPropertySetHandle inArgs,
                         OfxPropertySetHandle outArgs) {
    OfxStatus status = record_.mainEntry(name, handle, inArgs, outArgs);
    actions_.push_back({name ? name : "", status});
    return status;
}

OfxStatus Plugin::describe() {
    descriptor_ = std::make_unique<ImageEffect>();
    descriptor_->properties().assign(kOfxPluginPropFilePath, {binaryPath_});
    return action(kOfxActionDescribe, descriptor_->handle());
}

OfxStatus Plugin::load() {
    return action(kOfxActionLoad);
}
OfxStatus Plugin::unload() {
    return action(kOfxActionUnload);
}

}  // namespace ofxhost
