// Parameter sets and parameters, and the parameter suite over them. An
// instance's parameters hold values, with optional keys; a descriptor's
// answer value calls with kOfxStatErrBadHandle.
#include <cstdarg>
#include <cstring>
#include <iterator>

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

bool ParamDefinition::operator==(const ParamDefinition& other) const {
    return type == other.type && name == other.name && status == other.status;
}

Param::Param(const std::string& type, const std::string& name) : type_(type), name_(name) {
    defineParamProperties(properties_, type, name);
    handle_ = static_cast<OfxParamHandle>(registerHandle(this, HandleKind::Param));
}

Param::Param(const Param& descriptor, bool instance)
    : type_(descriptor.type_), name_(descriptor.name_), instance_(instance) {
    properties_.copyFrom(descriptor.properties_);
    if (dimension() > 0) value_ = properties_.values(kOfxParamPropDefault);
    value_.resize(static_cast<size_t>(dimension()), PropertyValue(0));
    handle_ = static_cast<OfxParamHandle>(registerHandle(this, HandleKind::Param));
}

int Param::dimension() const {
    return kindOf(type_.c_str())->dimension;
}

PropertyType Param::valueType() const {
    return kindOf(type_.c_str())->valueType;
}

void Param::setValue(std::vector<PropertyValue> value) {
    std::lock_guard lock(mutex_);
    value_ = std::move(value);
    keys_.clear();
}

void Param::setKey(OfxTime time, std::vector<PropertyValue> value) {
    std::lock_guard lock(mutex_);
    keys_[time] = std::move(value);
}

void Param::clearKeys() {
    std::lock_guard lock(mutex_);
    keys_.clear();
}

void Param::deleteKey(OfxTime time) {
    std::lock_guard lock(mutex_);
    keys_.erase(time);
}

std::map<OfxTime, std::vector<PropertyValue>> Param::keys() const {
    std::lock_guard lock(mutex_);
    return keys_;
}

std::vector<PropertyValue> Param::valueAt(OfxTime time) const {
    std::lock_guard lock(mutex_);
    if (keys_.empty()) return value_;
    auto after = keys_.lower_bound(time);
    if (after == keys_.begin()) return after->second;
    if (after == keys_.end()) return std::prev(after)->second;
    if (after->first == time) return after->second;
    if (valueType() != PropertyType::Double) return std::prev(after)->second;
    auto before = std::prev(after);
    const double t = (time - before->first) / (after->first - before->first);
    std::vector<PropertyValue> value = before->second;
    for (size_t i = 0; i < value.size() && i < after->second.size(); ++i) {
        const double a = std::get<double>(before->second[i]);
        const double b = std::get<double>(after->second[i]);
        value[i] = a + (b - a) * t;
    }
    return value;
}

const char* Param::textAt(OfxTime time, int i) const {
    std::vector<PropertyValue> value = valueAt(time);
    std::lock_guard lock(mutex_);
    return texts_.insert(std::get<std::string>(value[static_cast<size_t>(i)])).first->c_str();
}

void Param::setAnswer(OfxStatus status) {
    std::lock_guard lock(mutex_);
    answer_ = status;
}

OfxStatus Param::answer() const {
    std::lock_guard lock(mutex_);
    return answer_;
}

uint64_t Param::valueRequests() const {
    std::lock_guard lock(mutex_);
    return valueRequests_;
}

void Param::countValueRequest() {
    std::lock_guard lock(mutex_);
    ++valueRequests_;
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
    OfxStatus status = kOfxStatOK;
    if (!type || !name || !*name)
        status = kOfxStatErrValue;
    else if (!kindOf(type))
        status = kOfxStatErrUnknown;
    else if (find(name))
        status = kOfxStatErrExists;
    definitions_.push_back({type ? type : "", name ? name : "", status});
    if (status != kOfxStatOK) return status;
    params_.push_back(std::make_unique<Param>(type, name));
    *param = params_.back().get();
    return kOfxStatOK;
}

void ParamSet::adopt(const Param& descriptor) {
    params_.push_back(std::make_unique<Param>(descriptor, true));
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

// The value entries take one pointer (get) or one value (set) per dimension,
// of the type the parameter holds: int, double or const char*.

Param* valueParam(OfxParamHandle handle, OfxStatus* status) {
    Param* param = Param::fromHandle(handle);
    *status = kOfxStatOK;
    if (!param || !param->isInstance())
        *status = kOfxStatErrBadHandle;
    else if (param->dimension() == 0)
        *status = kOfxStatErrUnsupported;
    return param;
}

OfxStatus getValue(OfxParamHandle handle, OfxTime time, va_list args) {
    OfxStatus status;
    Param* param = valueParam(handle, &status);
    if (status != kOfxStatOK) return status;
    param->countValueRequest();
    if (param->answer() != kOfxStatOK) return param->answer();
    std::vector<PropertyValue> value = param->valueAt(time);
    for (int i = 0; i < param->dimension(); ++i) {
        switch (param->valueType()) {
            case PropertyType::Int:
                *va_arg(args, int*) = std::get<int>(value[static_cast<size_t>(i)]);
                break;
            case PropertyType::Double:
                *va_arg(args, double*) = std::get<double>(value[static_cast<size_t>(i)]);
                break;
            case PropertyType::String:
                *va_arg(args, const char**) = param->textAt(time, i);
                break;
            case PropertyType::Pointer:
                return kOfxStatErrUnsupported;
        }
    }
    return kOfxStatOK;
}

OfxStatus readValue(Param* param, va_list args, std::vector<PropertyValue>* value) {
    for (int i = 0; i < param->dimension(); ++i) {
        switch (param->valueType()) {
            case PropertyType::Int:
                value->emplace_back(std::in_place_type<int>, va_arg(args, int));
                break;
            case PropertyType::Double:
                value->emplace_back(std::in_place_type<double>, va_arg(args, double));
                break;
            case PropertyType::String: {
                const char* text = va_arg(args, const char*);
                if (!text) return kOfxStatErrValue;
                value->push_back(std::string(text));
                break;
            }
            case PropertyType::Pointer:
                return kOfxStatErrUnsupported;
        }
    }
    return kOfxStatOK;
}

OfxStatus paramGetValue(OfxParamHandle handle, ...) {
    va_list args;
    va_start(args, handle);
    OfxStatus status = getValue(handle, 0.0, args);  // no timeline: time 0 is the current time
    va_end(args);
    return status;
}

OfxStatus paramGetValueAtTime(OfxParamHandle handle, OfxTime time, ...) {
    va_list args;
    va_start(args, time);
    OfxStatus status = getValue(handle, time, args);
    va_end(args);
    return status;
}

OfxStatus paramGetDerivative(OfxParamHandle, OfxTime, ...) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramGetIntegral(OfxParamHandle, OfxTime, OfxTime, ...) {
    return kOfxStatErrUnsupported;
}

OfxStatus paramSetValue(OfxParamHandle handle, ...) {
    OfxStatus status;
    Param* param = valueParam(handle, &status);
    if (status != kOfxStatOK) return status;
    std::vector<PropertyValue> value;
    va_list args;
    va_start(args, handle);
    status = readValue(param, args, &value);
    va_end(args);
    if (status == kOfxStatOK) param->setValue(std::move(value));
    return status;
}

OfxStatus paramSetValueAtTime(OfxParamHandle handle, OfxTime time, ...) {
    OfxStatus status;
    Param* param = valueParam(handle, &status);
    if (status != kOfxStatOK) return status;
    std::vector<PropertyValue> value;
    va_list args;
    va_start(args, time);
    status = readValue(param, args, &value);
    va_end(args);
    if (status == kOfxStatOK) param->setKey(time, std::move(value));
    return status;
}

OfxStatus paramGetNumKeys(OfxParamHandle handle, unsigned int* count) {
    OfxStatus status;
    Param* param = valueParam(handle, &status);
    if (status != kOfxStatOK) return status;
    if (!count) return kOfxStatErrValue;
    *count = static_cast<unsigned int>(param->keys().size());
    return kOfxStatOK;
}

OfxStatus paramGetKeyTime(OfxParamHandle handle, unsigned int nth, OfxTime* time) {
    OfxStatus status;
    Param* param = valueParam(handle, &status);
    if (status != kOfxStatOK) return status;
    if (!time) return kOfxStatErrValue;
    auto keys = param->keys();
    if (nth >= keys.size()) return kOfxStatErrBadIndex;
    *time = std::next(keys.begin(), nth)->first;
    return kOfxStatOK;
}

// direction 0: a key at exactly that time; -1: the last before; 1: the first after.
OfxStatus paramGetKeyIndex(OfxParamHandle handle, OfxTime time, int direction, int* index) {
    OfxStatus status;
    Param* param = valueParam(handle, &status);
    if (status != kOfxStatOK) return status;
    if (!index) return kOfxStatErrValue;
    int i = 0;
    int found = -1;
    for (const auto& key : param->keys()) {
        if ((direction == 0 && key.first == time) || (direction < 0 && key.first < time)) found = i;
        if (direction > 0 && key.first > time) {
            found = i;
            break;
        }
        ++i;
    }
    if (found < 0) return kOfxStatFailed;
    *index = found;
    return kOfxStatOK;
}

OfxStatus paramDeleteKey(OfxParamHandle handle, OfxTime time) {
    OfxStatus status;
    Param* param = valueParam(handle, &status);
    if (status != kOfxStatOK) return status;
    if (!param->keys().count(time)) return kOfxStatErrBadIndex;
    param->deleteKey(time);
    return kOfxStatOK;
}

OfxStatus paramDeleteAllKeys(OfxParamHandle handle) {
    OfxStatus status;
    Param* param = valueParam(handle, &status);
    if (status == kOfxStatOK) param->clearKeys();
    return status;
}

OfxStatus paramCopy(OfxParamHandle, OfxParamHandle, OfxTime, const OfxRangeD*) {
    return kOfxStatErrUnsupported;
}
OfxStatus paramEditBegin(OfxParamSetHandle handle, const char*) {
    return ParamSet::fromHandle(handle) ? kOfxStatOK : kOfxStatErrBadHandle;
}
OfxStatus paramEditEnd(OfxParamSetHandle handle) {
    return ParamSet::fromHandle(handle) ? kOfxStatOK : kOfxStatErrBadHandle;
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
