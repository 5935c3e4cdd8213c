// Typed, multi-dimensional property sets as the OFX property suite sees them.
// Every set knows its properties in advance (name, type, dimension, defaults),
// as a host does, so a plug-in's misspelt or mistyped write fails visibly; and
// every write through the suite is logged in order, so tests can check the
// exact sequence in which a plug-in described itself.
#pragma once

#include <map>
#include <ostream>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "handles.h"
#include "ofxCore.h"
#include "ofxProperty.h"

namespace ofxhost {

// The alternatives are in the order of PropertyType.
using PropertyValue = std::variant<int, double, std::string, void*>;
enum class PropertyType { Int, Double, String, Pointer };

PropertyType typeOf(const PropertyValue& value);
const char* typeName(PropertyType type);
std::string toText(const PropertyValue& value);

// One write by the plug-in, as it reached the set, with the status it got.
struct PropertyWrite {
    std::string name;
    int index;
    PropertyValue value;
    OfxStatus status;
    bool operator==(const PropertyWrite& other) const;
};
std::ostream& operator<<(std::ostream& out, const PropertyWrite& write);

class PropertySet {
  public:
    // kind is PropertySet or Image; the suite takes both.
    explicit PropertySet(HandleKind kind = HandleKind::PropertySet);
    ~PropertySet();
    PropertySet(const PropertySet&) = delete;
    PropertySet& operator=(const PropertySet&) = delete;

    OfxPropertySetHandle handle() const { return handle_; }
    static PropertySet* fromHandle(OfxPropertySetHandle handle);

    // Host side: define (or redefine) a property. dimension 0 means variable;
    // a fixed dimension takes its defaults padded with zero values.
    void define(const std::string& name, PropertyType type, int dimension,
                std::vector<PropertyValue> defaults);
    void defineInt(const std::string& name, int dimension, std::vector<int> defaults);
    void defineDouble(const std::string& name, int dimension, std::vector<double> defaults);
    void defineString(const std::string& name, int dimension, std::vector<std::string> defaults);
    void definePointer(const std::string& name, int dimension);
    void remove(const std::string& name);
    // Host side: the other set's definitions and current values, added to
    // (or replacing those of) this set; its write log is not copied.
    void copyFrom(const PropertySet& other);
    // Host side: replace a property's values without logging a write.
    void assign(const std::string& name, std::vector<PropertyValue> values);

    bool has(std::string_view name) const;
    std::vector<std::string> names() const;
    // All values of a property, empty if it is unknown.
    std::vector<PropertyValue> values(std::string_view name) const;
    std::vector<PropertyWrite> writes() const;

    // The suite's view, with OFX statuses. A single write to a variable
    // property grows it; a whole write (the N variants) sets its dimension.
    OfxStatus write(const char* name, PropertyType type, int index, int count, const PropertyValue* values,
                    bool whole);
    // Calls out(i, value) for the elements index .. index+count-1; strings are
    // handed out as pointers into the set, valid until the property changes.
    template <typename Out>
    OfxStatus read(const char* name, PropertyType type, int index, int count, Out out) const;
    OfxStatus reset(const char* name);
    OfxStatus dimension(const char* name, int* dimension) const;

  private:
    struct Property {
        PropertyType type;
        int dimension;  // 0: variable
        std::vector<PropertyValue> defaults;
        std::vector<PropertyValue> values;
    };

    const Property* find(const char* name, PropertyType type, OfxStatus* status) const;

    OfxPropertySetHandle handle_;
    mutable std::shared_mutex mutex_;
    std::map<std::string, Property, std::less<>> properties_;
    std::vector<PropertyWrite> writes_;
};

template <typename Out>
OfxStatus PropertySet::read(const char* name, PropertyType type, int index, int count, Out out) const {
    std::shared_lock lock(mutex_);
    OfxStatus status = kOfxStatOK;
    const Property* p = find(name, type, &status);
    if (!p) return status;
    if (index < 0 || count < 0 || static_cast<size_t>(index) + static_cast<size_t>(count) > p->values.size())
        return kOfxStatErrBadIndex;
    for (int i = 0; i < count; ++i) out(i, p->values[static_cast<size_t>(index) + static_cast<size_t>(i)]);
    return kOfxStatOK;
}

// The suite the plug-in fetches as "OfxPropertySuite".
const OfxPropertySuiteV1* propertySuite();

}  // namespace ofxhost
