// The command-line parser the tools share: a table with one rule per option,
// "--name value" and "--name=value" alike, every value checked as it is
// read. Options shared between tools are written once, for their own record,
// and lifted into each tool's options.
#pragma once

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

// A whole, finite number; false on anything else.
inline bool parseDouble(const std::string& text, double& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtod(text.c_str(), &end);
    return !errno && *end == '\0' && std::isfinite(value);
}

template <typename Options>
struct OptionRule {
    const char* name;
    bool takesValue;
    // Gives an error text, empty when the value is fine.
    std::function<std::string(Options&, const std::string&)> apply;
};

// Gives false with a message for an option the table doesn't know or a value
// its rule refuses.
template <typename Options>
bool parseOptionTable(int argc, char** argv, const std::vector<OptionRule<Options>>& rules, Options& options,
                      std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        std::string name = arg;
        std::string value;
        bool inlineValue = false;
        const size_t equals = arg.find('=');
        if (arg.rfind("--", 0) == 0 && equals != std::string::npos) {
            name = arg.substr(0, equals);
            value = arg.substr(equals + 1);
            inlineValue = true;
        }
        const OptionRule<Options>* rule = nullptr;
        for (const OptionRule<Options>& r : rules)
            if (name == r.name) rule = &r;
        if (!rule) {
            error = "unknown option '" + arg + "'";
            return false;
        }
        if (rule->takesValue && !inlineValue) {
            if (i + 1 >= argc) {
                error = "option '" + name + "' needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!rule->takesValue && inlineValue) {
            error = "option '" + name + "' takes no value";
            return false;
        }
        error = rule->apply(options, value);
        if (!error.empty()) return false;
    }
    return true;
}

// The rules of a record that is a member of a tool's options, as rules of
// the tool's options.
template <typename Outer, typename Inner>
void addOptionRules(std::vector<OptionRule<Outer>>& rules, Inner Outer::*member,
                    const std::vector<OptionRule<Inner>>& inner) {
    for (const OptionRule<Inner>& r : inner)
        rules.push_back({r.name, r.takesValue, [member, apply = r.apply](Outer& o, const std::string& v) {
                             return apply(o.*member, v);
                         }});
}
