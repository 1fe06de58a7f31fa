// System properties over a map that tests and tools fill.
#include "plugs.h"

#include <cstring>
#include <map>
#include <string>

#include "cutils/properties.h"
#include "evfw_host/runtime.h"

namespace evfw_host {

namespace {

std::map<std::string, std::string, std::less<>> &properties() {
    static auto *p = new std::map<std::string, std::string, std::less<>>;
    return *p;
}

}  // namespace

void reset_properties(const Guard &) {
    properties().clear();
}

void Runtime::set_property(const std::string &key, const std::string &value) {
    Guard g = lock();
    properties()[key] = value;
}

}  // namespace evfw_host

extern "C" int property_get(const char *key, char *value, const char *default_value) {
    if (value == nullptr) return -1;
    std::string found;
    if (key != nullptr && !evfw_host::fault(evfw_host::FaultCall::PropertyGet)) {
        evfw_host::Guard g = evfw_host::lock();
        const auto &props = evfw_host::properties();
        if (auto it = props.find(std::string_view(key)); it != props.end()) found = it->second;
    }
    // As on Android, a property set to the empty string reads as unset, and
    // a value is cut to PROPERTY_VALUE_MAX - 1 characters.
    const char *src = !found.empty()             ? found.c_str()
                      : default_value != nullptr ? default_value
                                                 : "";
    const size_t n = strnlen(src, PROPERTY_VALUE_MAX - 1);
    memcpy(value, src, n);
    value[n] = '\0';
    return static_cast<int>(n);
}
