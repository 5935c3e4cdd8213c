// The objects an image effect consists of on the host side: the effect with
// its property set, its clips and its parameter set with the parameters. All
// keep the order in which the plug-in defined them. The same classes serve
// the plug-in's descriptors and, built from those with a context, its
// instances: an instance's clips give images at a time, its parameters hold
// values.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "image.h"
#include "ofxImageEffect.h"
#include "ofxParam.h"
#include "property_set.h"

namespace ofxhost {

// The image a clip has at a time; null for none.
using ImageSource = std::function<std::shared_ptr<ImageBuffer>(OfxTime time)>;

class Clip {
  public:
    explicit Clip(const std::string& name);
    // An instance's clip: the descriptor's properties and values, plus the
    // properties of an instance (connected, depths, frame range...), which
    // start as unconnected RGBA float over frames 0..0.
    Clip(const Clip& descriptor, bool instance);
    ~Clip();
    Clip(const Clip&) = delete;
    Clip& operator=(const Clip&) = delete;

    OfxImageClipHandle handle() const { return handle_; }
    static Clip* fromHandle(OfxImageClipHandle handle);

    const std::string& name() const { return name_; }
    PropertySet& properties() { return properties_; }

    // Host side, for an instance's clip. Each setter writes the matching
    // properties; anything finer goes through properties() directly.
    void setConnected(bool connected);
    // Mapped and unmapped depth and components, and the premultiplication state.
    void setFormat(const std::string& depth, const std::string& components,
                   const std::string& premultiplication = kOfxImagePreMultiplied);
    void setFrameRange(double first, double last);
    // What clipGetRegionOfDefinition answers; without it, the bounds of the
    // image at that time, and kOfxStatFailed where there is none.
    void setRegionOfDefinition(OfxRectD rod);
    // The same image at every time (null: none at any time).
    void setImage(std::shared_ptr<ImageBuffer> image);
    void setImageSource(ImageSource source);
    std::shared_ptr<ImageBuffer> imageAt(OfxTime time) const;
    OfxStatus regionOfDefinition(OfxTime time, OfxRectD* rod) const;
    // clipGetImage calls on this clip, answered or not.
    uint64_t imageRequests() const { return imageRequests_.load(); }
    void countImageRequest() { ++imageRequests_; }

  private:
    OfxImageClipHandle handle_;
    std::string name_;
    PropertySet properties_;
    ImageSource source_;
    std::optional<OfxRectD> rod_;
    std::atomic<uint64_t> imageRequests_{0};
};

class Param {
  public:
    Param(const std::string& type, const std::string& name);
    // An instance's parameter: the descriptor's properties, and its default
    // as the value.
    Param(const Param& descriptor, bool instance);
    ~Param();
    Param(const Param&) = delete;
    Param& operator=(const Param&) = delete;

    OfxParamHandle handle() const { return handle_; }
    static Param* fromHandle(OfxParamHandle handle);

    const std::string& type() const { return type_; }
    const std::string& name() const { return name_; }
    PropertySet& properties() { return properties_; }

    // Values: one element per dimension of the type (none for pages, groups
    // and buttons), of the type's property type. With keys, a double value is
    // interpolated linearly between them and held beyond the ends; without,
    // the value holds at every time.
    int dimension() const;
    PropertyType valueType() const;
    void setValue(std::vector<PropertyValue> value);
    void setValue(double value) { setValue(std::vector<PropertyValue>{value}); }
    void setKey(OfxTime time, std::vector<PropertyValue> value);
    void setKey(OfxTime time, double value) { setKey(time, std::vector<PropertyValue>{value}); }
    void clearKeys();
    std::vector<PropertyValue> valueAt(OfxTime time) const;
    std::map<OfxTime, std::vector<PropertyValue>> keys() const;
    // Element i of a text value at that time, as a C string that stays valid
    // as long as the parameter: renders on other threads, reading the
    // parameter at other times, never move or free it.
    const char* textAt(OfxTime time, int i) const;
    void deleteKey(OfxTime time);
    bool isInstance() const { return instance_; }
    // An unanswered parameter gives this status to every get and leaves the
    // plug-in's variables untouched; kOfxStatOK answers normally.
    void setAnswer(OfxStatus status);
    OfxStatus answer() const;
    // paramGetValue and paramGetValueAtTime calls, answered or not.
    uint64_t valueRequests() const;
    void countValueRequest();

  private:
    OfxParamHandle handle_;
    std::string type_;
    std::string name_;
    PropertySet properties_;
    mutable std::mutex mutex_;
    std::vector<PropertyValue> value_;
    std::map<OfxTime, std::vector<PropertyValue>> keys_;
    mutable std::set<std::string> texts_;  // every text handed out, at a fixed address
    OfxStatus answer_ = kOfxStatOK;
    uint64_t valueRequests_ = 0;
    bool instance_ = false;
};

// One paramDefine call as it reached the set.
struct ParamDefinition {
    std::string type;
    std::string name;
    OfxStatus status;
    bool operator==(const ParamDefinition& other) const;
};

class ParamSet {
  public:
    ParamSet();
    ~ParamSet();
    ParamSet(const ParamSet&) = delete;
    ParamSet& operator=(const ParamSet&) = delete;

    OfxParamSetHandle handle() const { return handle_; }
    static ParamSet* fromHandle(OfxParamSetHandle handle);

    PropertySet& properties() { return properties_; }
    const PropertySet& properties() const { return properties_; }
    // kOfxStatErrExists for a name in use, kOfxStatErrUnknown for a type no host knows.
    OfxStatus define(const char* type, const char* name, Param** param);
    Param* find(const char* name) const;
    const std::vector<std::unique_ptr<Param>>& params() const { return params_; }
    // Every define call, including the refused ones, in order.
    const std::vector<ParamDefinition>& definitions() const { return definitions_; }
    // Host side: an instance's parameter built from a descriptor's.
    void adopt(const Param& descriptor);

  private:
    OfxParamSetHandle handle_;
    PropertySet properties_;
    std::vector<std::unique_ptr<Param>> params_;
    std::vector<ParamDefinition> definitions_;
};

class ImageEffect {
  public:
    ImageEffect();
    // A descriptor in a context (context given, no clips yet), or an instance
    // built from such a descriptor: its properties, clips and parameters with
    // the instance's properties added.
    explicit ImageEffect(const std::string& context);
    ImageEffect(const ImageEffect& descriptor, const std::string& context);
    ~ImageEffect();
    ImageEffect(const ImageEffect&) = delete;
    ImageEffect& operator=(const ImageEffect&) = delete;

    OfxImageEffectHandle handle() const { return handle_; }
    static ImageEffect* fromHandle(OfxImageEffectHandle handle);

    PropertySet& properties() { return properties_; }
    ParamSet& params() { return params_; }
    OfxStatus defineClip(const char* name, Clip** clip);
    Clip* clip(const char* name) const;
    Clip* clip(const std::string& name) const { return clip(name.c_str()); }
    Param* param(const std::string& name) const { return params_.find(name.c_str()); }
    bool isInstance() const { return instance_; }
    const std::vector<std::unique_ptr<Clip>>& clips() const { return clips_; }

  private:
    OfxImageEffectHandle handle_;
    PropertySet properties_;
    ParamSet params_;
    std::vector<std::unique_ptr<Clip>> clips_;
    bool instance_ = false;
};

}  // namespace ofxhost
