// Parameter sets and parameters, and the parameter suite over them. Defining
// and looking up parameters works; values need an instance and answer
// kOfxStatErrUnsupported until instances exist.
#include <cstring>

#include "effect.h"
#include "handles.h"
#include "suites.h"

namespace ofxhost {
namespace {

// The value a parameter type holds: its property type and dimension;
// dimension 0 for the types without a value (group, page, push button).
struct ParamKind {
    const char* type;
    PropertyType valueType;
    int dimension;
};

const ParamKind kParamKinds[] = {
    {kOfxParamTypeInteger, PropertyType::Int, 1},     {kOfxParamTypeInteger2D, PropertyType::Int, 2},
    {kOfxParamTypeInteger3D, PropertyType::Int, 3},   {kOfxParamTypeDouble, PropertyType::Double, 1},
    {kOfxParamTypeDouble2D, PropertyType::Double, 2}, {kOfxParamTypeDouble3D, PropertyType::Double, 3},
    {kOfxParamTypeRGB, PropertyType::Double, 3},      {kOfxParamTypeRGBA, PropertyType::Double, 4},
    {kOfxParamTypeBoolean, PropertyType::Int, 1},     {kOfxParamTypeChoice, PropertyType::Int, 1},
    {kOfxParamTypeString, PropertyType::String, 1},   {kOfxParamTypeCustom, PropertyType::String, 1},
    {kOfxParamTypeGroup, PropertyType::Int, 0},       {kOfxParamTypePage, PropertyType::Int, 0},
    {kOfxParamTypePushButton, PropertyType::Int, 0},
};

const ParamKind* kindOf(const char* type) {
    for (const ParamKind& k : kParamKinds)
        if (std::strcmp(k.type, type) == 0) return &k;
    return nullptr;
}

bool isDoubleType(const std::string& type) {
    return type == kOfxParamTypeDouble || type == kOfxParamTypeDouble2D || type == kOfxParamTypeDouble3D;
}
bool isIntType(const std::string& type) {
    return type == kOfxParamTypeInteger || type == kOfxParamTypeInteger2D || type == kOfxParamTypeInteger3D;
}

void defineParamProperties(PropertySet& p, const std::string& type, const std::string& name) {
    p.defineString(kOfxPropType, 1, {kOfxTypeParameter});
    p.defineString(kOfxPropName, 1, {name});
    p.defineString(kOfxPropLabel, 1, {name});
    p.defineString(kOfxPropShortLabel, 1, {name});
    p.defineString(kOfxPropLongLabel, 1, {name});
    p.defineString(kOfxParamPropType, 1, {type});
    p.defineInt(kOfxParamPropSecret, 1, {0});
    p.defineInt(kOfxParamPropCanUndo, 1, {1});
    p.defineString(kOfxParamPropHint, 1, {""});
    p.defineString(kOfxParamPropScriptName, 1, {name});
    p.defineString(kOfxParamPropParent, 1, {""});
    p.defineInt(kOfxParamPropEnabled, 1, {1});
    p.definePointer(kOfxParamPropDataPtr, 1);

    const ParamKind* kind = kindOf(type.c_str());
    if (type == kOfxParamTypePage) p.defineString(kOfxParamPropPageChild, 0, {});
    if (type == kOfxParamTypeGroup) p.defineInt(kOfxParamPropGroupOpen, 1, {1});
    if (kind->dimension == 0) return;

    p.define(kOfxParamPropDefault, kind->valueType, kind->dimension, {});
    p.defineInt(kOfxParamPropAnimates, 1, {type == kOfxParamTypeString ? 0 : 1});
    p.defineInt(kOfxParamPropPersistant, 1, {1});
    p.defineInt(kOfxParamPropEvaluateOnChange, 1, {1});
    p.defineInt(kOfxParamPropPluginMayWrite, 1, {0});
    if (isDoubleType(type)) {
        std::vector<double> low(static_cast<size_t>(kind->dimension), -1.7976931348623157e308);
        std::vector<double> high(static_cast<size_t>(kind->dimension), 1.7976931348623157e308);
        p.defineDouble(kOfxParamPropMin, kind->dimension, low);
        p.defineDouble(kOfxParamPropMax, kind->dimension, high);
        p.defineDouble(kOfxParamPropDisplayMin, kind->dimension, low);
        p.defineDouble(kOfxParamPropDisplayMax, kind->dimension, high);
        p.defineDouble(kOfxParamPropIncrement, 1, {1.0});
        p.defineInt(kOfxParamPropDigits, 1, {2});
        p.defineString(kOfxParamPropDoubleType, 1, {kOfxParamDoubleTypePlain});
    } else if (isIntType(type)) {
        std::vector<int> low(static_cast<size_t>(kind->dimension), -2147483647 - 1);
        std::vector<int> high(static_cast<size_t>(kind->dimension), 2147483647);
        p.defineInt(kOfxParamPropMin, kind->dimension, low);
        p.defineInt(kOfxParamPropMax, kind->dimension, high);
        p.defineInt(kOfxParamPropDisplayMin, kind->dimension, low);
        p.defineInt(kOfxParamPropDisplayMax, kind->dimension, high);
    } else if (type == kOfxParamTypeChoice) {
        p.defineString(kOfxParamPropChoiceOption, 0, {});
    } else if (type == kOfxParamTypeString) {
        p.defineString(kOfxParamPropStringMode, 1, {kOfxParamStringIsSingleLine});
        p.defineInt(kOfxParamPropStringFilePathExists, 1, {1});
    }
}

}  // namespace

Param::Param(const std::string& type, const std::string& name) : type_(type), name_(name) {
    defineParamProperties(properties_, type, name);
    handle_ = static_cast<OfxParamHandle>(registerHandle(this, HandleKind::Param));
}
Param::~Param() {
    unregisterHandle(handle_);
}
Param* Param::fromHandle(OfxParamHandle handle) {
    return ofxhost::fromHandle<Param>(handle, HandleKind::Param);
}

ParamSet::ParamSet() {
    handle_ = static_cast<OfxParamSetHandle>(registerHandle(this, HandleKind::ParamSet));
}
ParamSet::~ParamSet() {
    unregisterHandle(handle_);
}
ParamSet* ParamSet::fromHandle(OfxParamSetHandle handle) {
    return ofxhost::fromHandle<ParamSet>(handle, HandleKind::ParamSet);
}

OfxStatus ParamSet::define(const char* type, const char* name, Param** param) {
    if (!type || !name || !*name) return kOfxStatErrValue;
    if (!kindOf(type)) return kOfxStatErrUnknown;
    if (find(name)) return kOfxStatErrExists;
    params_.push_back(std::make_unique<Param>(type, name));
    *param = params_.back().get();
    return kOfxStatOK;
}

Param* ParamSet::find(const char* name) const {
    for (const auto& p : params_)
        if (p->name() == name) return p.get();
    return nullptr;
}

namespace {

OfxStatus paramDefine(OfxParamSetHandle handle, const char* type, const char* name,
                      OfxPropertySetHandle* props) {
    ParamSet* set = ParamSet::fromHandle(handle);
    if (!set) return kOfxStatErrBadHandle;
    Param* param = nullptr;
    OfxStatus status = set->define(type, name, &param);
    if (status == kOfxStatOK && props) *props = param->properties().handle();
    return status;
}

OfxStatus paramGetHandle(OfxParamSetHandle handle, const char* name, OfxParamHandle* paramHandle,
                         OfxPropertySetHandle* props) {
    ParamSet* set = ParamSet::fromHandle(handle);
    if (!set) return kOfxStatErrBadHandle;
    Param* param = name ? set->find(name) : nullptr;
    if (!param) return kOfxStatErrUnknown;
    if (paramHandle) *paramHandle = param->handle();
    if (props) *props = param->properties().handle();
    return kOfxStatOK;
}

OfxStatus paramSetGetPropertySet(OfxParamSetHandle handle, OfxPropertySetHandle* props) {
    ParamSet* set = ParamSet::fromHandle(handle);
    if (!set) return kOfxStatErrBadHandle;
    if (!props) return kOfxStatErrValue;
    *props = set->properties().handle();
    return kOfxStatOK;
}

OfxStatus paramGetPropertySet(OfxParamHandle handle, OfxPropertySetHandle* props) {
    Param* param = Param::fromHandle(handle);
    if (!param) return kOfxStatErrBadHandle;
    if (!props) return kOfxStatErrValue;
    *props = param->properties().handle();
    return kOfxStatOK;
}

OfxStatus paramGetValue(OfxParamHandle, ...) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramGetValueAtTime(OfxParamHandle, OfxTime, ...) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramGetDerivative(OfxParamHandle, OfxTime, ...) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramGetIntegral(OfxParamHandle, OfxTime, OfxTime, ...) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramSetValue(OfxParamHandle, ...) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramSetValueAtTime(OfxParamHandle, OfxTime, ...) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramGetNumKeys(OfxParamHandle, unsigned int*) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramGetKeyTime(OfxParamHandle, unsigned int, OfxTime*) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramGetKeyIndex(OfxParamHandle, OfxTime, int, int*) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramDeleteKey(OfxParamHandle, OfxTime) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramDeleteAllKeys(OfxParamHandle) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramCopy(OfxParamHandle, OfxParamHandle, OfxTime, const OfxRangeD*) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramEditBegin(OfxParamSetHandle, const char*) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramEditEnd(OfxParamSetHandle) {
    return kOfxStatErrUnsupported;
}

const OfxParameterSuiteV1 kParameterSuite = {
    paramDefine,         paramGetHandle,     paramSetGetPropertySet, paramGetPropertySet, paramGetValue,
    paramGetValueAtTime, paramGetDerivative, paramGetIntegral,       paramSetValue,       paramSetValueAtTime,
    paramGetNumKeys,     paramGetKeyTime,    paramGetKeyIndex,       paramDeleteKey,      paramDeleteAllKeys,
    paramCopy,           paramEditBegin,     paramEditEnd,
};

}  // namespace

const OfxParameterSuiteV1* parameterSuite() {
    return &kParameterSuite;
}

}  // namespace ofxhost
