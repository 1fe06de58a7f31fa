// System properties: property_get with Android's semantics over a store the
// runtime's API fills.
#include <algorithm>
#include <cstring>
#include <fstream>

#include "cutils/properties.h"
#include "internal.h"

namespace evfw_host {

namespace {

std::string_view trim(std::string_view s) {
    const char *ws = " \t\r\n\f\v";
    const size_t b = s.find_first_not_of(ws);
    if (b == std::string_view::npos) return {};
    const size_t e = s.find_last_not_of(ws);
    return s.substr(b, e - b + 1);
}

// A '#' at the start of a line, or after a blank, starts a comment; inside a
// word it is part of the value ("a=x#y" keeps "x#y").
std::string_view strip_comment(std::string_view s) {
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '#' && (i == 0 || s[i - 1] == ' ' || s[i - 1] == '\t')) return s.substr(0, i);
    }
    return s;
}

}  // namespace

void Core::set_property(const std::string &key, const std::string &value) {
    std::lock_guard lk(prop_mu);
    props_[key] = value;
}

void Core::clear_property(const std::string &key) {
    std::lock_guard lk(prop_mu);
    props_.erase(key);
}

bool Core::get_property(std::string_view key, char *out, size_t out_len) const {
    std::lock_guard lk(prop_mu);
    auto it = props_.find(key);
    if (it == props_.end() || out_len == 0) return false;
    const size_t n = std::min(it->second.size(), out_len - 1);
    memcpy(out, it->second.data(), n);
    out[n] = '\0';
    return true;
}

bool Core::load_properties(const std::string &path) {
    std::ifstream in(path);
    if (!in) {
        last_error = "cannot read properties file " + path;
        return false;
    }
    // All lines are checked before any is applied: a bad file changes nothing.
    std::vector<std::pair<std::string, std::string>> parsed;
    std::string raw;
    for (int lineno = 1; std::getline(in, raw); ++lineno) {
        std::string_view line = trim(strip_comment(raw));
        if (line.empty()) continue;
        const size_t eq = line.find('=');
        std::string_view key = eq == std::string_view::npos ? line : trim(line.substr(0, eq));
        if (eq == std::string_view::npos || key.empty()) {
            last_error = path + ":" + std::to_string(lineno) + ": expected key=value";
            return false;
        }
        parsed.emplace_back(std::string(key), std::string(trim(line.substr(eq + 1))));
    }
    std::lock_guard lk(prop_mu);
    for (auto &[k, v] : parsed) props_[k] = std::move(v);
    return true;
}

}  // namespace evfw_host

extern "C" int property_get(const char *key, char *value, const char *default_value) {
    if (value == nullptr) return -1;
    // Read straight into the caller's buffer, without a heap copy: the data
    // manager reads properties on its event paths.
    char found[PROPERTY_VALUE_MAX];
    const char *src = default_value != nullptr ? default_value : "";
    // As on Android, a property set to the empty string reads as unset.
    if (key != nullptr && !evfw_host::fault(evfw_host::FaultCall::PropertyGet) &&
        evfw_host::core().get_property(key, found, sizeof found) && found[0] != '\0') {
        src = found;
    }
    const size_t n = strnlen(src, PROPERTY_VALUE_MAX - 1);
    memcpy(value, src, n);
    value[n] = '\0';
    return static_cast<int>(n);
}
