// A run rendered for people: the printed trace, a log line as logcat shows
// it, and the message flow as a Mermaid sequence diagram.
#include <sys/time.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "android/log.h"

#include "sim/errno_text.h"
#include "sim/sim.h"

namespace dm::sim {

namespace {

// Mermaid: every context that sent or received an event is a participant,
// in order of first appearance; every event is an arrow named by the event.
std::string participant(uint32_t id) {
    return "P" + std::to_string(id);
}

std::string label_of(uint32_t id) {
    if (id == 0) return "nobody";
    return std::string(context_get_name(id)) + " " + std::to_string(id);
}

// Mermaid reads ';' and '#' in message text as syntax.
std::string clean(std::string s) {
    for (char &c : s) {
        if (c == ';' || c == '#' || c == '\n' || c == '\r') c = ' ';
    }
    return s;
}

// Android's letters for its priorities, VERBOSE (2) to FATAL (7).
char prio_letter(int prio) {
    return prio >= ANDROID_LOG_VERBOSE && prio <= ANDROID_LOG_FATAL ? "VDIWEF"[prio - 2] : '?';
}

}  // namespace

void print_trace(FILE *out, const std::vector<evfw_host::TraceEntry> &trace,
                 const std::vector<evfw_host::Diagnostic> &diags) {
    constexpr size_t kShownBytes = 32;
    auto next_diag = diags.begin();
    auto diags_until = [&](uint64_t seq) {
        for (; next_diag != diags.end() && next_diag->after_seq < seq; ++next_diag) {
            fprintf(out, "     !! evfw_host: %s\n", next_diag->text.c_str());
        }
    };
    for (const evfw_host::TraceEntry &e : trace) {
        diags_until(e.seq);
        fprintf(out, "%4" PRIu64 " %s(%u) -> %s(%u) %s(%u) len=%zu", e.seq,
                context_get_name(e.from), e.from, context_get_name(e.to), e.to,
                event_get_name(e.event_id), e.event_id, e.len);
        if (!e.data.empty()) fputs(" data=", out);
        for (size_t i = 0; i < e.data.size() && i < kShownBytes; ++i) {
            fprintf(out, "%02x", e.data[i]);
        }
        if (e.data.size() > kShownBytes) fputs("...", out);
        fputs(e.dropped ? " (dropped)\n" : "\n", out);
    }
    diags_until(UINT64_MAX);
}

std::string logcat(const evfw_host::LogLine &line) {
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    struct tm tm {};
    const time_t secs = tv.tv_sec;
    localtime_r(&secs, &tm);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S", &tm);
    std::string_view text = line.text;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    char head[96];
    snprintf(head, sizeof head, "%s.%03ld %5d %5ld %c ", stamp,
             static_cast<long>(tv.tv_usec / 1000), static_cast<int>(getpid()), line.tid,
             prio_letter(line.prio));
    return std::string(head) + line.tag + ": " + std::string(text);
}

bool write_diagram(const std::vector<evfw_host::TraceEntry> &trace, const std::string &title,
                   const std::string &path, std::string &error) {
    std::vector<uint32_t> order;
    auto seen = [&](uint32_t id) {
        for (uint32_t o : order) {
            if (o == id) return;
        }
        order.push_back(id);
    };
    for (const auto &e : trace) {
        seen(e.from);
        seen(e.to);
    }
    std::string text = "%% " + clean(title) + "\nsequenceDiagram\n";
    for (uint32_t id : order) {
        text += "    participant " + participant(id) + " as " + clean(label_of(id)) + "\n";
    }
    for (const auto &e : trace) {
        text += "    " + participant(e.from) + (e.dropped ? "-x" : "->>") + participant(e.to) +
                ": " + clean(event_get_name(e.event_id)) + " " + std::to_string(e.event_id) +
                (e.dropped ? " (dropped)" : "") + "\n";
    }
    FILE *f = std::fopen(path.c_str(), "w");
    if (f == nullptr) {
        error = "cannot write the diagram to " + path + ": " + errno_text(errno);
        return false;
    }
    bool ok = std::fputs(text.c_str(), f) >= 0;
    ok = std::fclose(f) == 0 && ok;
    if (!ok) error = "cannot write the diagram to " + path;
    return ok;
}

}  // namespace dm::sim
