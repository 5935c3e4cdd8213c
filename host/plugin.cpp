// Loading a bundle and sending a plug-in its actions.
#include "plugin.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include "suites.h"

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
    std::lock_guard lock(actionsMutex_);
    actions_.push_back({name ? name : "", status});
    return status;
}

void Plugin::clearActions() {
    std::lock_guard lock(actionsMutex_);
    actions_.clear();
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

bool ActionResult::memoryBalanced() const {
    return memoryAfter.allocations - memoryBefore.allocations == memoryAfter.frees - memoryBefore.frees &&
           memoryAfter.liveBytes == memoryBefore.liveBytes && memoryAfter.badFrees == memoryBefore.badFrees;
}

bool ActionResult::imagesReleased() const {
    return imagesAfter.outstanding() == imagesBefore.outstanding() &&
           imagesAfter.badReleases == imagesBefore.badReleases;
}

std::vector<PropertyValue> ActionResult::out(const std::string& name) const {
    return outArgs ? outArgs->values(name) : std::vector<PropertyValue>{};
}

std::vector<PropertyValue> ActionResult::in(const std::string& name) const {
    return inArgs ? inArgs->values(name) : std::vector<PropertyValue>{};
}

namespace {

std::unique_ptr<PropertySet> argsWithTime(OfxTime time, OfxPointD renderScale) {
    auto args = std::make_unique<PropertySet>();
    args->defineDouble(kOfxPropTime, 1, {time});
    args->defineDouble(kOfxImageEffectPropRenderScale, 2, {renderScale.x, renderScale.y});
    return args;
}

bool isOutput(const Clip& clip) {
    return clip.name() == kOfxImageEffectOutputClipName;
}

}  // namespace

ActionResult Plugin::send(const char* name, const void* handle, std::unique_ptr<PropertySet> inArgs,
                          std::unique_ptr<PropertySet> outArgs) {
    ActionResult result;
    result.memoryBefore = host_.memory().counts();
    result.imagesBefore = host_.images().counts();
    result.status =
        action(name, handle, inArgs ? inArgs->handle() : nullptr, outArgs ? outArgs->handle() : nullptr);
    result.memoryAfter = host_.memory().counts();
    result.imagesAfter = host_.images().counts();
    result.inArgs = std::move(inArgs);
    result.outArgs = std::move(outArgs);
    return result;
}

ActionResult Plugin::sendToInstance(const char* name, std::unique_ptr<PropertySet> inArgs,
                                    std::unique_ptr<PropertySet> outArgs) {
    if (!instance_) {
        ActionResult result;
        result.status = kOfxStatErrBadHandle;
        return result;
    }
    return send(name, instance_->handle(), std::move(inArgs), std::move(outArgs));
}

ActionResult Plugin::describeInContext(const std::string& context) {
    contextDescriptor_ = std::make_unique<ImageEffect>(context);
    if (descriptor_) {
        contextDescriptor_->properties().copyFrom(descriptor_->properties());
        contextDescriptor_->properties().defineString(kOfxImageEffectPropContext, 1, {context});
    }
    auto in = std::make_unique<PropertySet>();
    in->defineString(kOfxImageEffectPropContext, 1, {context});
    return send(kOfxImageEffectActionDescribeInContext, contextDescriptor_->handle(), std::move(in), nullptr);
}

ActionResult Plugin::createInstance(const std::string& context) {
    instance_.reset();
    std::string chosen = context;
    if (chosen.empty() && contextDescriptor_) {
        std::vector<PropertyValue> described =
            contextDescriptor_->properties().values(kOfxImageEffectPropContext);
        if (!described.empty()) chosen = std::get<std::string>(described[0]);
    }
    if (chosen.empty()) chosen = kOfxImageEffectContextGeneral;
    if (contextDescriptor_) {
        instance_ = std::make_unique<ImageEffect>(*contextDescriptor_, chosen);
    } else {
        ImageEffect empty(chosen);
        instance_ = std::make_unique<ImageEffect>(empty, chosen);
    }
    return send(kOfxActionCreateInstance, instance_->handle(), nullptr, nullptr);
}

ActionResult Plugin::clipPreferences() {
    auto out = std::make_unique<PropertySet>();
    out->defineDouble(kOfxImageEffectPropFrameRate, 1, {25.0});
    out->defineString(kOfxImageClipPropFieldOrder, 1, {kOfxImageFieldNone});
    out->defineString(kOfxImageEffectPropPreMultiplication, 1, {kOfxImagePreMultiplied});
    out->defineInt(kOfxImageClipPropContinuousSamples, 1, {0});
    out->defineInt(kOfxImageEffectFrameVarying, 1, {0});
    if (instance_) {
        for (const auto& clip : instance_->clips()) {
            // Each starts at what the clip has now, as a host would offer it.
            auto current = [&](const char* property) {
                std::vector<PropertyValue> v = clip->properties().values(property);
                return v.empty() ? std::string() : std::get<std::string>(v[0]);
            };
            out->defineString("OfxImageClipPropComponents_" + clip->name(), 1,
                              {current(kOfxImageEffectPropComponents)});
            out->defineString("OfxImageClipPropDepth_" + clip->name(), 1,
                              {current(kOfxImageEffectPropPixelDepth)});
            out->defineDouble("OfxImageClipPropPAR_" + clip->name(), 1, {1.0});
        }
    }
    return sendToInstance(kOfxImageEffectActionGetClipPreferences, nullptr, std::move(out));
}

ActionResult Plugin::regionOfDefinition(OfxTime time, OfxPointD renderScale) {
    auto out = std::make_unique<PropertySet>();
    out->defineDouble(kOfxImageEffectPropRegionOfDefinition, 4, {});
    return sendToInstance(kOfxImageEffectActionGetRegionOfDefinition, argsWithTime(time, renderScale),
                          std::move(out));
}

ActionResult Plugin::regionsOfInterest(OfxTime time, OfxRectD roi, OfxPointD renderScale) {
    auto in = argsWithTime(time, renderScale);
    in->defineDouble(kOfxImageEffectPropRegionOfInterest, 4, {roi.x1, roi.y1, roi.x2, roi.y2});
    auto out = std::make_unique<PropertySet>();
    if (instance_)
        for (const auto& clip : instance_->clips())
            if (!isOutput(*clip))
                out->defineDouble("OfxImageClipPropRoI_" + clip->name(), 4, {roi.x1, roi.y1, roi.x2, roi.y2});
    return sendToInstance(kOfxImageEffectActionGetRegionsOfInterest, std::move(in), std::move(out));
}

ActionResult Plugin::framesNeeded(OfxTime time) {
    auto in = std::make_unique<PropertySet>();
    in->defineDouble(kOfxPropTime, 1, {time});
    auto out = std::make_unique<PropertySet>();
    if (instance_)
        for (const auto& clip : instance_->clips())
            if (!isOutput(*clip))
                out->defineDouble("OfxImageClipPropFrameRange_" + clip->name(), 0, {time, time});
    return sendToInstance(kOfxImageEffectActionGetFramesNeeded, std::move(in), std::move(out));
}

ActionResult Plugin::timeDomain() {
    auto out = std::make_unique<PropertySet>();
    out->defineDouble(kOfxImageEffectPropFrameRange, 2, {});
    return sendToInstance(kOfxImageEffectActionGetTimeDomain, nullptr, std::move(out));
}

ActionResult Plugin::isIdentity(OfxTime time, OfxRectI window, OfxPointD renderScale,
                                const std::string& field) {
    auto in = argsWithTime(time, renderScale);
    in->defineString(kOfxImageEffectPropFieldToRender, 1, {field});
    in->defineInt(kOfxImageEffectPropRenderWindow, 4, {window.x1, window.y1, window.x2, window.y2});
    auto out = std::make_unique<PropertySet>();
    out->defineString(kOfxPropName, 1, {""});
    out->defineDouble(kOfxPropTime, 1, {time});
    return sendToInstance(kOfxImageEffectActionIsIdentity, std::move(in), std::move(out));
}

ActionResult Plugin::render(const RenderArgs& args) {
    OfxRectI window = args.window;
    if (window.x1 == window.x2 && window.y1 == window.y2 && instance_) {
        Clip* output = instance_->clip(kOfxImageEffectOutputClipName);
        std::shared_ptr<ImageBuffer> image = output ? output->imageAt(args.time) : nullptr;
        if (image) window = image->format().bounds;
    }
    auto in = argsWithTime(args.time, args.renderScale);
    in->defineString(kOfxImageEffectPropFieldToRender, 1, {args.field});
    in->defineInt(kOfxImageEffectPropRenderWindow, 4, {window.x1, window.y1, window.x2, window.y2});
    in->defineInt(kOfxImageEffectPropSequentialRenderStatus, 1, {args.sequential ? 1 : 0});
    in->defineInt(kOfxImageEffectPropInteractiveRenderStatus, 1, {args.interactive ? 1 : 0});
    setImageRenderScale(args.renderScale);
    ActionResult result = sendToInstance(kOfxImageEffectActionRender, std::move(in), nullptr);
    setImageRenderScale({1.0, 1.0});
    return result;
}

ActionResult Plugin::instanceChanged(const std::string& type, const std::string& name,
                                     const std::string& reason, OfxTime time, OfxPointD renderScale) {
    auto in = argsWithTime(time, renderScale);
    in->defineString(kOfxPropType, 1, {type});
    in->defineString(kOfxPropName, 1, {name});
    in->defineString(kOfxPropChangeReason, 1, {reason});
    return sendToInstance(kOfxActionInstanceChanged, std::move(in), nullptr);
}

ActionResult Plugin::syncPrivateData() {
    return sendToInstance(kOfxActionSyncPrivateData, nullptr, nullptr);
}

ActionResult Plugin::destroyInstance() {
    ActionResult result = sendToInstance(kOfxActionDestroyInstance, nullptr, nullptr);
    instance_.reset();
    return result;
}

}  // namespace ofxhost
