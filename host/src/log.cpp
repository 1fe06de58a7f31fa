// Android logging: the daemon's log tables, __android_log_print, capture and
// logcat-style echo.
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

#include "android/log.h"
#include "internal.h"
#include "rvn_log.h"

extern "C" {

const int android_log_prio[RVN_LOG_PRIO_COUNT] = {
        0,
        ANDROID_LOG_ERROR,
        ANDROID_LOG_WARN,
        0,
        ANDROID_LOG_INFO,
        0,
        0,
        0,
        ANDROID_LOG_DEBUG,
        0,
        0,
        0,
        0,
        0,
        0,
        0,
};

const char *const android_log_tag[RVN_LOG_TAG_COUNT] = {
        "RVN",       "RVN_EXT",   "RVN_DATAMNGR", "RVN_MOD3",  "RVN_MOD4",     "RVN_MOD5",
        "RVN_MOD6",  "RVN_MOD7",  "RVN_MOD8",     "RVN_MOD9",  "DATAMNGR_EXT", "RVN_MOD11",
        "RVN_MOD12", "RVN_MOD13", "RVN_MOD14",    "RVN_MOD15",
};

int __android_log_print(int prio, const char *tag, const char *fmt, ...) {
    if (fmt == nullptr) return -EINVAL;
    // Nearly every line fits the stack buffer; longer ones are formatted
    // again into a block of the exact size.
    char stack[4096];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(stack, sizeof stack, fmt, ap);
    va_end(ap);
    if (n < 0) return -EINVAL;
    const char *text = stack;
    std::vector<char> heap;
    if (static_cast<size_t>(n) >= sizeof stack) {
        heap.resize(static_cast<size_t>(n) + 1);
        va_start(ap, fmt);
        vsnprintf(heap.data(), heap.size(), fmt, ap);
        va_end(ap);
        text = heap.data();
    }
    evfw_host::core().log(prio, tag, text);
    return n;
}

}  // extern "C"

namespace evfw_host {

namespace {

char prio_letter(int prio) {
    switch (prio) {
        case ANDROID_LOG_VERBOSE:
            return 'V';
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_FATAL:
            return 'F';
        case ANDROID_LOG_SILENT:
            return 'S';
        default:
            return '?';
    }
}

}  // namespace

void Core::log(int prio, const char *tag, const char *text) {
    std::lock_guard lk(log_mu);
    if (!log_capture && log_echo == nullptr) return;
    LogLine line{prio, tag != nullptr ? tag : "", text};
    if (log_echo != nullptr) {
        std::string s = Runtime::logcat(line);
        s += '\n';
        fputs(s.c_str(), log_echo);
        fflush(log_echo);
    }
    if (log_capture) {
        logs_.push_back(std::move(line));
        note_log_count(logs_.size());
    }
}

std::vector<LogLine> Core::logs() const {
    std::lock_guard lk(log_mu);
    return logs_;
}

void Core::for_each_log(const std::function<void(const LogLine &)> &visit) const {
    std::lock_guard lk(log_mu);
    for (const LogLine &line : logs_) visit(line);
}

void Core::clear_logs() {
    std::lock_guard lk(log_mu);
    logs_.clear();
    note_log_count(0);
}

void Core::set_log_capture(bool capture) {
    std::lock_guard lk(log_mu);
    log_capture = capture;
}

void Core::set_log_echo(FILE *out) {
    std::lock_guard lk(log_mu);
    log_echo = out;
}

std::string Runtime::logcat(const LogLine &line) {
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    struct tm tm {};
    time_t secs = tv.tv_sec;
    localtime_r(&secs, &tm);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S", &tm);

    std::string_view text = line.text;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);

    char head[96];
    snprintf(head, sizeof head, "%s.%03ld %5d %5ld %c ", stamp,
             static_cast<long>(tv.tv_usec / 1000), static_cast<int>(getpid()),
             static_cast<long>(syscall(SYS_gettid)), prio_letter(line.prio));
    std::string out = head;
    out += line.tag;
    out += ": ";
    out += text;
    return out;
}

}  // namespace evfw_host
