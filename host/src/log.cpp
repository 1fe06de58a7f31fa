// Android logging: the daemon's log tables and __android_log_print, whose
// lines the runtime captures.
#include "plugs.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "android/log.h"
#include "evfw_host/runtime.h"
#include "rvn_log.h"

extern "C" {

const int android_log_prio[RVN_LOG_PRIO_COUNT] = {
        0, ANDROID_LOG_ERROR, ANDROID_LOG_WARN, 0, ANDROID_LOG_INFO, 0, 0, 0, ANDROID_LOG_DEBUG,
};

const char *const android_log_tag[RVN_LOG_TAG_COUNT] = {
        "RVN",       "RVN_EXT",   "RVN_DATAMNGR", "RVN_MOD3",  "RVN_MOD4",     "RVN_MOD5",
        "RVN_MOD6",  "RVN_MOD7",  "RVN_MOD8",     "RVN_MOD9",  "DATAMNGR_EXT", "RVN_MOD11",
        "RVN_MOD12", "RVN_MOD13", "RVN_MOD14",    "RVN_MOD15",
};

}  // extern "C"

namespace evfw_host {

namespace {

struct Logs {
    std::vector<LogLine> lines;
    bool capture = true;
};

Logs &logs_store() {
    static Logs *l = new Logs;
    return *l;
}

}  // namespace

size_t log_count(const Guard &) {
    return logs_store().lines.size();
}

void reset_logs(const Guard &, bool settings) {
    Logs &l = logs_store();
    l.lines.clear();
    if (settings) l.capture = true;
}

std::vector<LogLine> Runtime::logs() const {
    Guard g = lock();
    return logs_store().lines;
}

void Runtime::for_each_log(const std::function<void(const LogLine &)> &visit) const {
    Guard g = lock();
    for (const LogLine &line : logs_store().lines) visit(line);
}

void Runtime::clear_logs() {
    Guard g = lock();
    logs_store().lines.clear();
}

void Runtime::set_log_capture(bool capture) {
    Guard g = lock();
    logs_store().capture = capture;
}

}  // namespace evfw_host

extern "C" int __android_log_print(int prio, const char *tag, const char *fmt, ...) {
    if (fmt == nullptr) return -EINVAL;
    // Formatted once into a buffer that nearly every line fits; a longer
    // line again, whole.
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n < 0) return -EINVAL;
    std::string text(buf, std::min<size_t>(static_cast<size_t>(n), sizeof buf - 1));
    if (static_cast<size_t>(n) >= sizeof buf) {
        text.resize(static_cast<size_t>(n));
        va_start(ap, fmt);
        vsnprintf(text.data(), text.size() + 1, fmt, ap);
        va_end(ap);
    }

    evfw_host::Guard g = evfw_host::lock();
    evfw_host::Logs &l = evfw_host::logs_store();
    if (l.capture)
        l.lines.push_back({prio, tag != nullptr ? tag : "", std::move(text), syscall(SYS_gettid)});
    return n;
}
