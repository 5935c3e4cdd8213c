// Property sets and the property suite over them.
#include "property_set.h"

#include <mutex>
#include <sstream>

#include "handles.h"

namespace ofxhost {

PropertyType typeOf(const PropertyValue& value) {
    return static_cast<PropertyType>(value.index());
}

const char* typeName(PropertyType type) {
    switch (type) {
        case PropertyType::Int:
            return "int";
        case PropertyType::Double:
            return "double";
        case PropertyType::String:
            return "string";
        case PropertyType::Pointer:
            return "pointer";
    }
    return "?";
}

std::string toText(const PropertyValue& value) {
    std::ostringstream out;
    switch (typeOf(value)) {
        case PropertyType::Int:
            out << std::get<int>(value);
            break;
        case PropertyType::Double:
            out.precision(17);
            out << std::get<double>(value);
            break;
        case PropertyType::String:
            out << '"' << std::get<std::string>(value) << '"';
            break;
        case PropertyType::Pointer:
            out << std::get<void*>(value);
            break;
    }
    return out.str();
}

bool PropertyWrite::operator==(const PropertyWrite& other) const {
    return name == other.name && index == other.index && value == other.value && status == other.status;
}

std::ostream& operator<<(std::ostream& out, const PropertyWrite& write) {
    return out << write.name << '[' << write.index << "] = " << typeName(typeOf(write.value)) << ' '
               << toText(write.value) << " -> status " << write.status;
}

namespace {

PropertyValue zeroOf(PropertyType type) {
    switch (type) {
        case PropertyType::Int:
            return 0;
        case PropertyType::Double:
            return 0.0;
        case PropertyType::String:
            return std::string();
        case PropertyType::Pointer:
            return static_cast<void*>(nullptr);
    }
    return 0;
}

}  // namespace

PropertySet::PropertySet(HandleKind kind) {
    handle_ = static_cast<OfxPropertySetHandle>(registerHandle(this, kind));
}
PropertySet::~PropertySet() {
    unregisterHandle(handle_);
}

PropertySet* PropertySet::fromHandle(OfxPropertySetHandle handle) {
    PropertySet* set = ofxhost::fromHandle<PropertySet>(handle, HandleKind::PropertySet);
    return set ? set : ofxhost::fromHandle<PropertySet>(handle, HandleKind::Image);
}

void PropertySet::define(const std::string& name, PropertyType type, int dimension,
                         std::vector<PropertyValue> defaults) {
    if (dimension > 0) defaults.resize(static_cast<size_t>(dimension), zeroOf(type));
    std::unique_lock lock(mutex_);
    properties_[name] = Property{type, dimension, defaults, defaults};
}

void PropertySet::defineInt(const std::string& name, int dimension, std::vector<int> defaults) {
    define(name, PropertyType::Int, dimension, {defaults.begin(), defaults.end()});
}

void PropertySet::defineDouble(const std::string& name, int dimension, std::vector<double> defaults) {
    define(name, PropertyType::Double, dimension, {defaults.begin(), defaults.end()});
}

void PropertySet::defineString(const std::string& name, int dimension, std::vector<std::string> defaults) {
    define(name, PropertyType::String, dimension, {defaults.begin(), defaults.end()});
}

void PropertySet::definePointer(const std::string& name, int dimension) {
    define(name, PropertyType::Pointer, dimension, {});
}

void PropertySet::remove(const std::string& name) {
    std::unique_lock lock(mutex_);
    properties_.erase(name);
}

void PropertySet::copyFrom(const PropertySet& other) {
    if (&other == this) return;
    std::shared_lock source(other.mutex_);
    std::unique_lock lock(mutex_);
    for (const auto& entry : other.properties_) properties_[entry.first] = entry.second;
}

void PropertySet::assign(const std::string& name, std::vector<PropertyValue> values) {
    std::unique_lock lock(mutex_);
    auto it = properties_.find(name);
    if (it != properties_.end()) it->second.values = std::move(values);
}

bool PropertySet::has(std::string_view name) const {
    std::shared_lock lock(mutex_);
    return properties_.find(name) != properties_.end();
}

std::vector<std::string> PropertySet::names() const {
    std::shared_lock lock(mutex_);
    std::vector<std::string> result;
    for (const auto& entry : properties_) result.push_back(entry.first);
    return result;
}

std::vector<PropertyValue> PropertySet::values(std::string_view name) const {
    std::shared_lock lock(mutex_);
    auto it = properties_.find(name);
    return it == properties_.end() ? std::vector<PropertyValue>{} : it->second.values;
}

std::vector<PropertyWrite> PropertySet::writes() const {
    std::shared_lock lock(mutex_);
    return writes_;
}

const PropertySet::Property* PropertySet::find(const char* name, PropertyType type, OfxStatus* status) const {
    auto it = name ? properties_.find(std::string_view(name)) : properties_.end();
    if (it == properties_.end()) {
        *status = kOfxStatErrUnknown;
        return nullptr;
    }
    if (it->second.type != type) {
        *status = kOfxStatErrValue;
        return nullptr;
    }
    return &it->second;
}

OfxStatus PropertySet::write(const char* name, PropertyType type, int index, int count,
                             const PropertyValue* values, bool whole) {
    std::unique_lock lock(mutex_);
    OfxStatus status = kOfxStatOK;
    auto* p = const_cast<Property*>(find(name, type, &status));
    if (p) {
        size_t end = static_cast<size_t>(index) + static_cast<size_t>(count);
        if (index < 0 || count < 0 || (p->dimension > 0 && end > static_cast<size_t>(p->dimension))) {
            status = kOfxStatErrBadIndex;
        } else {
            if (p->dimension == 0 && (whole || end > p->values.size())) p->values.resize(end, zeroOf(type));
            for (int i = 0; i < count; ++i)
                p->values[static_cast<size_t>(index) + static_cast<size_t>(i)] = values[i];
        }
    }
    for (int i = 0; i < count; ++i) writes_.push_back({name ? name : "", index + i, values[i], status});
    return status;
}

OfxStatus PropertySet::reset(const char* name) {
    std::unique_lock lock(mutex_);
    auto it = name ? properties_.find(std::string_view(name)) : properties_.end();
    if (it == properties_.end()) return kOfxStatErrUnknown;
    it->second.values = it->second.defaults;
    return kOfxStatOK;
}

OfxStatus PropertySet::dimension(const char* name, int* dimension) const {
    std::shared_lock lock(mutex_);
    auto it = name ? properties_.find(std::string_view(name)) : properties_.end();
    if (it == properties_.end()) return kOfxStatErrUnknown;
    *dimension = static_cast<int>(it->second.values.size());
    return kOfxStatOK;
}

namespace {

// The C entries: check the handle and the out pointer, convert, delegate.

template <typename T>
OfxStatus setOne(OfxPropertySetHandle handle, const char* name, int index, T value) {
    PropertySet* set = PropertySet::fromHandle(handle);
    if (!set) return kOfxStatErrBadHandle;
    PropertyValue v(std::move(value));
    return set->write(name, typeOf(v), index, 1, &v, false);
}

template <typename T, typename In>
OfxStatus setMany(OfxPropertySetHandle handle, const char* name, int count, const In* in) {
    PropertySet* set = PropertySet::fromHandle(handle);
    if (!set) return kOfxStatErrBadHandle;
    if (count < 0) return kOfxStatErrBadIndex;
    if (count > 0 && !in) return kOfxStatErrValue;
    std::vector<PropertyValue> values;
    values.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) values.emplace_back(T(in[i]));
    return set->write(name, typeOf(PropertyValue(T{})), 0, count, values.data(), true);
}

// Strings go out as pointers into the set; everything else by value.
template <typename T, typename Out>
void store(Out* out, int i, const PropertyValue& v) {
    if constexpr (std::is_same_v<T, std::string>)
        out[i] = const_cast<char*>(std::get<std::string>(v).c_str());
    else
        out[i] = std::get<T>(v);
}

template <typename T, typename Out>
OfxStatus get(OfxPropertySetHandle handle, const char* name, int index, int count, Out* out) {
    const PropertySet* set = PropertySet::fromHandle(handle);
    if (!set) return kOfxStatErrBadHandle;
    if (!out) return kOfxStatErrValue;
    return set->read(name, typeOf(PropertyValue(T{})), index, count,
                     [out](int i, const PropertyValue& v) { store<T>(out, i, v); });
}

OfxStatus propSetPointer(OfxPropertySetHandle h, const char* name, int index, void* value) {
    return setOne(h, name, index, value);
}
OfxStatus propSetString(OfxPropertySetHandle h, const char* name, int index, const char* value) {
    if (!value) return PropertySet::fromHandle(h) ? kOfxStatErrValue : kOfxStatErrBadHandle;
    return setOne(h, name, index, std::string(value));
}
OfxStatus propSetDouble(OfxPropertySetHandle h, const char* name, int index, double value) {
    return setOne(h, name, index, value);
}
OfxStatus propSetInt(OfxPropertySetHandle h, const char* name, int index, int value) {
    return setOne(h, name, index, value);
}
OfxStatus propSetPointerN(OfxPropertySetHandle h, const char* name, int count, void* const* values) {
    return setMany<void*>(h, name, count, values);
}
OfxStatus propSetStringN(OfxPropertySetHandle h, const char* name, int count, const char* const* values) {
    for (int i = 0; values && i < count; ++i)
        if (!values[i]) return kOfxStatErrValue;
    return setMany<std::string>(h, name, count, values);
}
OfxStatus propSetDoubleN(OfxPropertySetHandle h, const char* name, int count, const double* values) {
    return setMany<double>(h, name, count, values);
}
OfxStatus propSetIntN(OfxPropertySetHandle h, const char* name, int count, const int* values) {
    return setMany<int>(h, name, count, values);
}
OfxStatus propGetPointer(OfxPropertySetHandle h, const char* name, int index, void** value) {
    return get<void*>(h, name, index, 1, value);
}
OfxStatus propGetString(OfxPropertySetHandle h, const char* name, int index, char** value) {
    return get<std::string>(h, name, index, 1, value);
}
OfxStatus propGetDouble(OfxPropertySetHandle h, const char* name, int index, double* value) {
    return get<double>(h, name, index, 1, value);
}
OfxStatus propGetInt(OfxPropertySetHandle h, const char* name, int index, int* value) {
    return get<int>(h, name, index, 1, value);
}
OfxStatus propGetPointerN(OfxPropertySetHandle h, const char* name, int count, void** values) {
    return get<void*>(h, name, 0, count, values);
}
OfxStatus propGetStringN(OfxPropertySetHandle h, const char* name, int count, char** values) {
    return get<std::string>(h, name, 0, count, values);
}
OfxStatus propGetDoubleN(OfxPropertySetHandle h, const char* name, int count, double* values) {
    return get<double>(h, name, 0, count, values);
}
OfxStatus propGetIntN(OfxPropertySetHandle h, const char* name, int count, int* values) {
    return get<int>(h, name, 0, count, values);
}
OfxStatus propReset(OfxPropertySetHandle h, const char* name) {
    PropertySet* set = PropertySet::fromHandle(h);
    return set ? set->reset(name) : kOfxStatErrBadHandle;
}
OfxStatus propGetDimension(OfxPropertySetHandle h, const char* name, int* count) {
    const PropertySet* set = PropertySet::fromHandle(h);
    if (!set) return kOfxStatErrBadHandle;
    if (!count) return kOfxStatErrValue;
    return set->dimension(name, count);
}

const OfxPropertySuiteV1 kPropertySuite = {
    propSetPointer,  propSetString,  propSetDouble,  propSetInt,    propSetPointerN, propSetStringN,
    propSetDoubleN,  propSetIntN,    propGetPointer, propGetString, propGetDouble,   propGetInt,
    propGetPointerN, propGetStringN, propGetDoubleN, propGetIntN,   propReset,       propGetDimension,
};

}  // namespace

const OfxPropertySuiteV1* propertySuite() {
    return &kPropertySuite;
}

}  // namespace ofxhost
