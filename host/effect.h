// The objects an image effect consists of on the host side: the effect with
// its property set, its clips and its parameter set with the parameters. All
// keep the order in which the plug-in defined them. The same classes serve
// the plug-in's descriptor now and, with a context, its instances later.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ofxImageEffect.h"
#include "ofxParam.h"
#include "property_set.h"

namespace ofxhost {

class Clip {
  public:
    explicit Clip(const std::string& name);
    ~Clip();
    Clip(const Clip&) = delete;
    Clip& operator=(const Clip&) = delete;

    OfxImageClipHandle handle() const { return handle_; }
    static Clip* fromHandle(OfxImageClipHandle handle);

    const std::string& name() const { return name_; }
    PropertySet& properties() { return properties_; }

  private:
    OfxImageClipHandle handle_;
    std::string name_;
    PropertySet properties_;
};

class Param {
  public:
    Param(const std::string& type, const std::string& name);
    ~Param();
    Param(const Param&) = delete;
    Param& operator=(const Param&) = delete;

    OfxParamHandle handle() const { return handle_; }
    static Param* fromHandle(OfxParamHandle handle);

    const std::string& type() const { return type_; }
    const std::string& name() const { return name_; }
    PropertySet& properties() { return properties_; }

  private:
    OfxParamHandle handle_;
    std::string type_;
    std::string name_;
    PropertySet properties_;
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
    // kOfxStatErrExists for a name in use, kOfxStatErrUnknown for a type no host knows.
    OfxStatus define(const char* type, const char* name, Param** param);
    Param* find(const char* name) const;
    const std::vector<std::unique_ptr<Param>>& params() const { return params_; }

  private:
    OfxParamSetHandle handle_;
    PropertySet properties_;
    std::vector<std::unique_ptr<Param>> params_;
};

class ImageEffect {
  public:
    ImageEffect();
    ~ImageEffect();
    ImageEffect(const ImageEffect&) = delete;
    ImageEffect& operator=(const ImageEffect&) = delete;

    OfxImageEffectHandle handle() const { return handle_; }
    static ImageEffect* fromHandle(OfxImageEffectHandle handle);

    PropertySet& properties() { return properties_; }
    ParamSet& params() { return params_; }
    OfxStatus defineClip(const char* name, Clip** clip);
    Clip* clip(const char* name) const;
    const std::vector<std::unique_ptr<Clip>>& clips() const { return clips_; }

  private:
    OfxImageEffectHandle handle_;
    PropertySet properties_;
    ParamSet params_;
    std::vector<std::unique_ptr<Clip>> clips_;
};

}  // namespace ofxhost
