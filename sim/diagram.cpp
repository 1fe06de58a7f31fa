// The message flow of a run as a Mermaid sequence diagram: every context
// that sent or received an event is a participant, in order of first
// appearance; every event is an arrow named by the event.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sim/errno_text.h"
#include "sim/sim.h"

namespace dm::sim {

namespace {

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

}  // namespace

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
