#include "tools/dmsim/console.h"

#include <cstring>
#include <string>

#include "dati/dati.h"
#include "evfw_ids.h"

namespace dmsim {

using namespace dm::sim;

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() &&
           (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
        s.remove_suffix(1);
    }
    return s;
}

// A result text as a modem terminal shows it: line ends as line breaks.
void show(FILE *out, std::string_view text) {
    std::string s;
    for (char c : text) {
        if (c != '\r') s += c;
    }
    if (s.empty() || s.back() != '\n') s += '\n';
    std::fputs(s.c_str(), out);
}

std::string text_at(const evfw_host::TraceEntry &e, size_t offset) {
    if (e.data.size() <= offset) return "";
    const char *p = reinterpret_cast<const char *>(e.data.data()) + offset;
    return std::string(p, strnlen(p, e.data.size() - offset));
}

void print_results(Sim &sim, const Options &options, FILE *out) {
    for (const auto &e : sim.new_trace()) {
        if (e.to == TASK_ATI_ATC && e.event_id == EVENT_DATAMNGR_ATCMD_RESP) {
            show(out, text_at(e, offsetof(AtCmdResp, text)));
        } else if (e.to == TASK_ATI_ATC && e.event_id == EVENT_ATI_ATCMD_FWD) {
            std::fprintf(out, "[forwarded to the modem through the AT interface: %s]\n",
                         escape(text_at(e, 0)).c_str());
        } else if (e.to == TASK_ATI_URC &&
                   (e.event_id == EVENT_ATI_URC || e.event_id == EVENT_ATI_URC_FORGED)) {
            show(out, text_at(e, offsetof(AtUrc, text)));
        }
    }
    if (options.log) {
        sim.print_logs(stderr);
        sim.print_diagnostics(stderr);
    }
    std::fflush(out);
}

constexpr const char *kConsoleHelp =
        "Type AT command lines (AT+CGDCONT=1,\"IP\",\"internet\", AT+CGACT=1,1, AT+CFUN=1, ...).\n"
        "  !urc <line>   the modem sends an unsolicited result code line (e.g. !urc +CGEV: NW "
        "PDN DEACT 1)\n"
        "  !help         this text\n"
        "  !quit         leave (so does the end of input)\n";

}  // namespace

int run_console(const Options &options, std::istream &in, bool interactive, FILE *out) {
    Sim sim(options, out);
    std::string error;
    if (!sim.start({}, error)) {
        std::fprintf(stderr, "dmsim: %s\n", error.c_str());
        return kExitEnv;
    }
    // The RIL proxy is up and scripted; the AT client has registered.
    sim.script([](RilScript &r) { r.enabled = true; });
    sim.announce(sim.task(TASK_RILDPROXY), "rildproxy");
    sim.at_register("ati");
    sim.settle();
    sim.new_trace();
    if (options.log) {
        sim.print_logs(stderr);
        sim.print_diagnostics(stderr);
    }
    if (interactive) {
        std::fprintf(out, "dmsim AT console on %s\n%s", options.lib.c_str(), kConsoleHelp);
    }
    std::string line;
    while (true) {
        if (interactive) {
            std::fputs("> ", out);
            std::fflush(out);
        }
        if (!std::getline(in, line)) break;
        std::string_view cmd = trim(line);
        if (cmd.empty()) continue;
        if (cmd == "!quit" || cmd == "!exit") break;
        if (cmd == "!help") {
            std::fputs(kConsoleHelp, out);
            continue;
        }
        if (cmd.starts_with("!urc")) {
            std::string urc(trim(cmd.substr(4)));
            if (urc.empty() || sim.urc(urc) == 0) {
                std::fprintf(out, "[no task subscribes to this URC line]\n");
            }
        } else if (cmd.starts_with("!")) {
            std::fprintf(out, "[unknown console command; !help lists them]\n");
            continue;
        } else {
            sim.at_line(std::string(cmd));
        }
        sim.settle();
        print_results(sim, options, out);
    }
    const auto trace = sim.rt().trace();
    bool ok = sim.finish();
    if (!options.diagram_path.empty()) {
        ok = write_diagram(trace, "dmsim AT console", options.diagram_path, error) && ok;
        if (!error.empty()) std::fprintf(stderr, "dmsim: %s\n", error.c_str());
    }
    return ok ? kExitPass : kExitEnv;
}

}  // namespace dmsim
