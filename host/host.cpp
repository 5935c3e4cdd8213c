// The host object: identity, host properties and suite lookup.
#include "host.h"

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "ofxImageEffect.h"
#include "ofxInteract.h"
#include "ofxMemory.h"
#include "ofxMessage.h"
#include "ofxMultiThread.h"
#include "ofxParam.h"
#include "suites.h"

namespace ofxhost {
namespace {

std::atomic<Host*> gCurrent{nullptr};

const void* fetchSuiteEntry(OfxPropertySetHandle hostHandle, const char* name, int version) {
    Host* host = Host::current();
    if (!host || !name || hostHandle != host->properties().handle()) return nullptr;
    return host->fetchSuite(name, version);
}

// What a command-line host that renders in the background can honestly say
// about itself.
void defineHostProperties(PropertySet& p, const HostConfig& config) {
    p.defineString(kOfxPropType, 1, {kOfxTypeImageEffectHost});
    p.defineString(kOfxPropName, 1, {config.name});
    p.defineString(kOfxPropLabel, 1, {config.label});
    p.defineInt(kOfxPropAPIVersion, 2, {1, 4});
    p.defineInt(kOfxPropVersion, 3, {1, 0, 0});
    p.defineString(kOfxPropVersionLabel, 1, {"1.0.0"});
    p.defineInt(kOfxImageEffectHostPropIsBackground, 1, {config.background ? 1 : 0});
    p.defineInt(kOfxImageEffectPropSupportsMultiResolution, 1, {1});
    p.defineInt(kOfxImageEffectPropSupportsTiles, 1, {1});
    p.defineInt(kOfxImageEffectPropTemporalClipAccess, 1, {1});
    p.defineInt(kOfxImageEffectPropSupportsMultipleClipDepths, 1, {config.multipleClipDepths ? 1 : 0});
    p.defineInt(kOfxImageEffectPropSupportsMultipleClipPARs, 1, {0});
    p.defineInt(kOfxImageEffectPropSetableFrameRate, 1, {0});
    p.defineInt(kOfxImageEffectPropSetableFielding, 1, {0});
    p.defineString(kOfxImageEffectPropSupportedComponents, 0,
                   {kOfxImageComponentRGBA, kOfxImageComponentAlpha});
    p.defineString(kOfxImageEffectPropSupportedContexts, 0, {kOfxImageEffectContextGeneral});
    p.defineString(kOfxImageEffectPropSupportedPixelDepths, 0,
                   {kOfxBitDepthByte, kOfxBitDepthShort, kOfxBitDepthFloat});
    for (const std::string& name : config.omittedProperties) p.remove(name);
}

}  // namespace

void AbortControl::never() {
    rule_ = Rule::Never;
}
void AbortControl::always() {
    rule_ = Rule::Always;
}
void AbortControl::afterCalls(uint64_t k) {
    limit_ = calls_.load() + k;
    rule_ = Rule::AfterCalls;
}
void AbortControl::whileRaised() {
    flag_ = false;
    rule_ = Rule::Flag;
}
void AbortControl::raise() {
    flag_ = true;
}
void AbortControl::lower() {
    flag_ = false;
}

int AbortControl::answer() {
    const uint64_t call = ++calls_;
    switch (rule_.load()) {
        case Rule::Never:
            return 0;
        case Rule::Always:
            return 1;
        case Rule::AfterCalls:
            return call > limit_.load() ? 1 : 0;
        case Rule::Flag:
            return flag_.load() ? 1 : 0;
    }
    return 0;
}

uint64_t AbortControl::calls() const {
    return calls_.load();
}
void AbortControl::resetCalls() {
    calls_ = 0;
}

Host::Host(HostConfig config) : config_(std::move(config)), ofxHost_{properties_.handle(), fetchSuiteEntry} {
    defineHostProperties(properties_, config_);
    Host* expected = nullptr;
    if (!gCurrent.compare_exchange_strong(expected, this))
        throw std::logic_error("only one OFX host may exist at a time");
}

void Host::reconfigure(HostConfig config) {
    config_ = std::move(config);
    for (const std::string& name : properties_.names()) properties_.remove(name);
    defineHostProperties(properties_, config_);
    messages_.clear();
    std::lock_guard lock(fetchMutex_);
    fetches_.clear();
}

Host::~Host() {
    gCurrent.store(nullptr);
}

Host* Host::current() {
    return gCurrent.load();
}

const void* Host::fetchSuite(const char* name, int version) {
    {
        std::lock_guard lock(fetchMutex_);
        fetches_.push_back(std::string(name) + "/" + std::to_string(version));
    }
    if (version != 1 || config_.omittedSuites.count(name)) return nullptr;
    if (std::strcmp(name, kOfxPropertySuite) == 0) return propertySuite();
    if (std::strcmp(name, kOfxImageEffectSuite) == 0) return imageEffectSuite();
    if (std::strcmp(name, kOfxParameterSuite) == 0) return parameterSuite();
    if (std::strcmp(name, kOfxMemorySuite) == 0) return memorySuite();
    if (std::strcmp(name, kOfxMultiThreadSuite) == 0) return multiThreadSuite();
    if (std::strcmp(name, kOfxMessageSuite) == 0) return messageSuite();
    if (std::strcmp(name, kOfxInteractSuite) == 0) return interactSuite();
    return nullptr;
}

std::vector<std::string> Host::fetches() const {
    std::lock_guard lock(fetchMutex_);
    return fetches_;
}

unsigned int Host::numCPUs() const {
    if (config_.numCPUs) return config_.numCPUs;
    unsigned int n = std::thread::hardware_concurrency();
    return n ? n : 1;
}

}  // namespace ofxhost
