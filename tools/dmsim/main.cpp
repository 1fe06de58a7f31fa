// dmsim: the host simulator of the data manager.  It loads
// librvn_datamngr.so by path into the threaded host runtime, as the daemon
// loads it, surrounds it with scripted peers and runs scenario files or an
// interactive AT console.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "sim/errno_text.h"
#include "sim/netns.h"
#include "sim/records.h"
#include "sim/scenario.h"
#include "sim/sim.h"
#include "tools/dmsim/console.h"

#ifndef DMSIM_DEFAULT_LIB
#define DMSIM_DEFAULT_LIB "librvn_datamngr.so"
#endif

namespace {

using namespace dm::sim;
using dmsim::run_console;
using dmsim::run_port_console;

constexpr const char *kUsage =
        "usage: dmsim [options] run [--netns] [--repeat N] SCENARIO...\n"
        "       dmsim [options] at [--port PATH]\n"
        "       dmsim records [RECORD]\n"
        "       dmsim --help\n";

constexpr const char *kHelp = R"(
dmsim runs the data manager (librvn_datamngr.so) as the daemon does: loaded by
path into the threaded host runtime (one thread per task), with its peers
simulated around it: the RIL proxy (task 202), the IMS managers imsm_0..imsm_3
and the LAN manager (external clients), RB (tasks 902..905), the AT interface
(tasks 7 and 8) and the modem's AT manager (tasks 302, 307).

commands:
  run SCENARIO...  runs scenario files (format: scenarios/README.md).  Prints
                   each step with the events it caused, and a PASS or FAIL line
                   with file:line for each expectation.
  at               interactive AT console: AT lines from standard input go to
                   the AT command interface (event 4065 from task 7 to task
                   403); its answers (4066) and URCs (18, 21) are shown as a
                   modem terminal shows them.  "!urc <line>" plays a modem URC
                   line, "!quit" or the end of input leaves.  The prompt shows
                   only when standard input is a terminal.
  at --port PATH   the same console, and an AT port served as a modem serves
                   it: a pseudo-terminal in raw mode, linked at PATH; the line
                   "serving on PATH ..." tells that it is ready.  The client's
                   command lines end in CR (LF and CRLF do too).
                   Answers and URCs come framed as a modem frames them:
                   "\r\nOK\r\n", or information lines "\r\n+CGACT: 0, 0\r\n
                   ...\r\n" and then "\r\nOK\r\n".  URCs reach the client
                   between answers: "!urc <line>" typed on standard input, or
                   the data manager's own AT@URC="<line>".  There is no echo.
                   Lines the data manager forwards to the modem (AT+CFUN?, ...)
                   get no answer here; the modem answers them on the device.
                   The port's traffic shows on standard output as port> and
                   port< lines.  The end of standard input does not close the
                   port: "!quit", SIGINT, SIGTERM or SIGHUP do, and remove the
                   link.  Example, with chat (Debian package ppp):
                     dmsim at --port /tmp/modem &
                     chat -V -t 5 '' 'AT+CGDCONT=1,"IP","internet"' OK \
                         AT+CGACT=1,1 OK </tmp/modem >/tmp/modem
  records [RECORD] lists the records that scenarios fill and check by field
                   name, with sizes and offsets.

options:
  --lib PATH       the library to load (default: %s)
  --log            print the library's log lines, logcat style, and the host
                   runtime's diagnostics ("evfw_host: ..."), which the AT
                   console otherwise keeps off the screen
  --trace FILE     write the event trace of the run to FILE, the runtime's
                   diagnostics in their places ("!! evfw_host: ...")
  --diagram FILE   write the message flow as a Mermaid sequence diagram to FILE
  --netns          (run) run inside a private network namespace that holds
                   the data interfaces the scenario declares (veth pdnetN with
                   their IPv6 addresses, no duplicate address detection);
                   needs root.  An interface declared with
                     iface-ra pdnet4 2001:db8:4::/64
                   gets its address from the kernel (SLAAC): radvd (package
                   radvd) advertises the prefix on its far end until the
                   kernel has configured an address (at most 10 s), and dmsim
                   then publishes the prefix the kernel learned as the
                   property net.ipv6.pdnet4.prefix, as the network daemon
                   does; ipv6_addr=slaac:pdnet4 in a step stands for the
                   kernel's address
  --unprivileged-exit N
                   exit status when --netns lacks the privileges (default 3;
                   the CTest registration uses 77, CTest's "skipped")
  --fail PLAN      make a call the library imports fail, PLAN being
                   CALL:N (its Nth call), CALL:N- (the Nth and every later
                   one) or CALL:pP[/SEED] (each call with probability P);
                   system takes =STATUS after N (default 256, or -1).  CALL
                   is one of evfw_event_alloc, evfw_task_send_event,
                   evfw_context_common_send, evfw_task_bcast_ext_event,
                   evfw_task_send_recv_event (sent, then the wait times out),
                   evfw_mutex_init, evfw_thrd_init, evfw_task_init,
                   property_get (absent), getifaddrs, if_indextoname, socket,
                   bind, send, recv, system.  Repeatable; calls are counted
                   from the library's load, and each failure shows in the
                   trace ("!! evfw_host: fault plan: ...")
  --thread-linger MS
                   the threads the library starts (its init thread) stay MS
                   milliseconds longer before they return, as on a busy
                   device; the run starts only once they have returned
  --repeat N       (run, one scenario) runs the scenario N times in this
                   process, each time with a fresh runtime and the library
                   loaded anew (--netns: one namespace for all of them).  Only
                   the first run is shown (and written to --trace and
                   --diagram); a later run is shown only when it fails, and
                   then the repetitions stop.  After every 1000 runs and at
                   the end a line gives the process's resident size and its
                   peak (VmRSS and VmHWM of /proc/self/status), in KiB
  -h, --help       this text
With several scenarios each runs in a process of its own, and the names given
to --trace and --diagram get "-<scenario>" before their extension.

The scripted RIL proxy ("ril auto" in a scenario; always on in the console)
answers each request with an event derived from the request, so that the
answer travels back on the requester's route: a setup request (4003) gets a
successful SetupDataCallResp (4004) for the request's interface N: active 1,
ifname "pdnetN", pdp_type as requested, one default bearer with cid N; for
the IMS interfaces 4 and 5 it first fetches the IMS parameters (4049), as the
RIL does.  Other requests get a zeroed answer of the answer's length:
4005->4006, 4009->4010, 4011->4012, 4013->4014, 4015->4016, 4017->4018,
4019->4020, 4030->4031, 4032->4034, 4037->4038, 9318->4053.  Scenarios can
change the answers field by field or give other rules.

AT clients: requests that the AT command interface makes for an AT client
(+CGACT, +CFUN, +EFUN, +EGTYPE) carry the AT client's route.  The data
manager's own answer delivery refuses AT clients (their reply path is the
legacy one), so the host side delivers their results itself: when the
scripted RIL proxy receives a request that came on the AT interface's
channel, it answers the data manager as usual and then calls the library's
exported entry point for the answer, with the request as template:
dati_setup_data_call_resp (4004), dati_fail_resp (4052),
dati_radio_power_resp (4034), dati_allow_data_resp (4038).  A deactivation
(+CGACT=0) was answered at once by the AT command interface, so its answer
(4006) adds nothing.

exit status: 0 every expectation held; 1 an expectation failed; 2 a usage or
scenario error (the message names file:line and what was expected); 3 an
environment error (library not loadable, --netns without root, a file that
cannot be written).
)";

struct Args {
    Options opt;
    int repeat = 1;
    std::string port;
    std::string command;
    std::vector<std::string> operands;
};

int usage_error(const std::string &what) {
    std::fprintf(stderr, "dmsim: %s\n%s(dmsim --help tells more)\n", what.c_str(), kUsage);
    return kExitUsage;
}

// FILE with "-<scenario>" inserted before its extension.
std::string per_scenario(const std::string &file, const std::string &scenario) {
    if (file.empty()) return file;
    std::string stem = scenario.substr(scenario.find_last_of('/') + 1);
    stem = stem.substr(0, stem.find('.'));
    const size_t slash = file.find_last_of('/');
    const size_t dot = file.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
        return file + "-" + stem;
    }
    return file.substr(0, dot) + "-" + stem + file.substr(dot);
}

// The figure of a line of /proc/self/status that begins with `name`
// ("VmRSS:    1234 kB") into `out`; another line or no number leaves it.
void status_figure(const char *line, std::string_view name, long &out) {
    if (std::strncmp(line, name.data(), name.size()) != 0) return;
    const char *digits = line + name.size();
    char *end = nullptr;
    errno = 0;
    const long figure = std::strtol(digits, &end, 10);
    if (end != digits && errno == 0) out = figure;
}

// The process's resident size and its peak (VmRSS and VmHWM of
// /proc/self/status), in KiB; -1 when not found.
struct Resident {
    long rss = -1;
    long hwm = -1;
};
Resident resident() {
    Resident r;
    FILE *f = std::fopen("/proc/self/status", "r");
    if (f == nullptr) return r;
    char line[256];
    while (std::fgets(line, sizeof(line), f) != nullptr) {
        status_figure(line, "VmRSS:", r.rss);
        status_figure(line, "VmHWM:", r.hwm);
    }
    std::fclose(f);
    return r;
}

// Runs the scenario `repeat` times, each time as a run of its own (a fresh
// runtime, the library loaded and unloaded again), so that the resident size
// tells whether a run leaves anything behind.  Later runs write into a buffer
// that is shown only when the run fails.
int repeat_scenario(const Scenario &sc, const Options &opt, int repeat) {
    Options quiet = opt;
    quiet.trace_path.clear();
    quiet.diagram_path.clear();
    for (int n = 1; n <= repeat; ++n) {
        int rc = kExitPass;
        if (n == 1) {
            rc = run_scenario(sc, opt, stdout);
        } else {
            char *buf = nullptr;
            size_t len = 0;
            FILE *out = open_memstream(&buf, &len);
            if (out == nullptr) {
                std::perror("dmsim: open_memstream");
                return kExitEnv;
            }
            rc = run_scenario(sc, quiet, out);
            std::fclose(out);
            if (rc != kExitPass) std::fwrite(buf, 1, len, stdout);
            std::free(buf);
        }
        if (rc != kExitPass) {
            std::printf("== %s: repetition %d of %d failed\n", sc.file.c_str(), n, repeat);
            return rc;
        }
        if (n % 1000 == 0 || n == repeat) {
            const Resident r = resident();
            std::printf("   %d runs: resident %ld KiB, peak %ld KiB\n", n, r.rss, r.hwm);
            std::fflush(stdout);
        }
    }
    std::printf("== %s: PASS (%d runs)\n", sc.file.c_str(), repeat);
    return kExitPass;
}

int run_file(const std::string &path, const Options &opt, int repeat) {
    Scenario sc;
    std::string error;
    if (!parse_scenario_file(path, sc, error)) {
        std::fprintf(stderr, "dmsim: %s\n", error.c_str());
        return kExitUsage;
    }
    if (!sc.ifaces.empty() && !opt.netns) {
        std::fprintf(stderr,
                     "dmsim: %s:%d: the scenario declares the interface %s; expected the run "
                     "to have --netns\n",
                     path.c_str(), sc.ifaces[0].line, sc.ifaces[0].name.c_str());
        return kExitUsage;
    }
    if (access(opt.lib.c_str(), R_OK) != 0) {
        std::fprintf(stderr, "dmsim: the library %s cannot be read: %s (give it with --lib)\n",
                     opt.lib.c_str(), errno_text(errno).c_str());
        return kExitEnv;
    }
    if (opt.netns) {
        NetnsResult r = enter_scenario_netns(sc, error);
        if (r != NetnsResult::kOk) {
            std::fprintf(stderr, "dmsim: %s: %s\n", path.c_str(), error.c_str());
            return r == NetnsResult::kUnprivileged ? opt.unprivileged_exit : kExitEnv;
        }
    }
    return repeat > 1 ? repeat_scenario(sc, opt, repeat) : run_scenario(sc, opt, stdout);
}

int run(const Args &a) {
    if (a.operands.empty()) return usage_error("run needs at least one scenario file");
    if (a.operands.size() == 1) return run_file(a.operands[0], a.opt, a.repeat);
    if (a.repeat > 1) return usage_error("--repeat runs one scenario file");
    // Each scenario in a process of its own: a fresh library, a fresh
    // network namespace.
    int worst = kExitPass;
    for (const std::string &path : a.operands) {
        Options opt = a.opt;
        opt.trace_path = per_scenario(opt.trace_path, path);
        opt.diagram_path = per_scenario(opt.diagram_path, path);
        std::fflush(stdout);
        std::fflush(stderr);
        pid_t pid = fork();
        if (pid < 0) {
            std::perror("dmsim: fork");
            return kExitEnv;
        }
        if (pid == 0) {
            int rc = run_file(path, opt, 1);
            std::fflush(stdout);
            std::fflush(stderr);
            _exit(rc);
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0) {
            if (errno != EINTR) return kExitEnv;
        }
        int rc = WIFEXITED(status) ? WEXITSTATUS(status) : kExitEnv;
        if (!WIFEXITED(status)) {
            std::fprintf(stderr, "dmsim: %s: the run ended by signal %d\n", path.c_str(),
                         WIFSIGNALED(status) ? WTERMSIG(status) : 0);
        }
        // The most serious outcome wins; a skip counts as passing beside others.
        if (rc == a.opt.unprivileged_exit && rc != kExitEnv) rc = kExitPass;
        worst = std::max(worst, rc);
    }
    return worst;
}

// Recursive through the nested records: a record holds others a level or two
// deep, never itself.
// NOLINTNEXTLINE(misc-no-recursion)
void print_record(const RecordDesc &r, size_t base, const std::string &prefix) {
    for (const FieldDesc &f : r.fields) {
        if (f.kind == Kind::Record) {
            std::string name = prefix + std::string(f.name);
            if (f.count > 1) {
                std::printf("  %-28s @%-6zu %s[%zu] (%s.<0..%zu>.<field>)\n", name.c_str(),
                            base + f.offset, std::string(f.record->name).c_str(), f.count,
                            name.c_str(), f.count - 1);
            } else {
                print_record(*f.record, base + f.offset, name + ".");
            }
            continue;
        }
        std::printf("  %-28s @%-6zu %s", (prefix + std::string(f.name)).c_str(), base + f.offset,
                    kind_name(f.kind));
        if (f.kind == Kind::Text || f.kind == Kind::Bytes) std::printf("[%zu]", f.size);
        std::printf("\n");
    }
}

int records(const Args &a) {
    if (a.operands.size() > 1) return usage_error("records takes at most one record name");
    int shown = 0;
    for (const RecordDesc *r : all_records()) {
        if (!a.operands.empty() && r->name != a.operands[0]) continue;
        if (r->size == 0) {
            std::printf("%s (a NUL-terminated text of any length)\n  text\n",
                        std::string(r->name).c_str());
        } else {
            std::printf("%s (%zu bytes)\n", std::string(r->name).c_str(), r->size);
            print_record(*r, 0, "");
        }
        ++shown;
    }
    if (shown == 0) return usage_error("no record named " + a.operands[0]);
    return kExitPass;
}

}  // namespace

int main(int argc, char **argv) {
    Args a;
    a.opt.lib = DMSIM_DEFAULT_LIB;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
        if (arg == "-h" || arg == "--help") {
            std::printf("%s", kUsage);
            std::printf(kHelp, DMSIM_DEFAULT_LIB);
            return kExitPass;
        } else if (arg == "--lib" || arg == "--trace" || arg == "--diagram" ||
                   arg == "--unprivileged-exit" || arg == "--repeat" || arg == "--fail" ||
                   arg == "--thread-linger" || arg == "--port") {
            const char *v = value();
            if (v == nullptr) return usage_error(arg + " needs a value");
            if (arg == "--lib") {
                a.opt.lib = v;
            } else if (arg == "--trace") {
                a.opt.trace_path = v;
            } else if (arg == "--diagram") {
                a.opt.diagram_path = v;
            } else if (arg == "--port") {
                if (*v == '\0') return usage_error("--port needs a path for the port's link");
                a.port = v;
            } else if (arg == "--fail") {
                std::string error;
                evfw_host::Runtime &rt = evfw_host::Runtime::instance();
                const bool ok = rt.add_fault(v, error);
                rt.clear_faults();
                if (!ok) return usage_error(error);
                a.opt.faults.emplace_back(v);
            } else if (arg == "--thread-linger") {
                char *end = nullptr;
                const long ms = std::strtol(v, &end, 10);
                if (*v == '\0' || *end != '\0' || ms < 0 || ms > 60000) {
                    return usage_error("--thread-linger needs milliseconds 0..60000");
                }
                a.opt.thread_linger = std::chrono::milliseconds(ms);
            } else if (arg == "--repeat") {
                char *end = nullptr;
                long n = std::strtol(v, &end, 10);
                if (*v == '\0' || *end != '\0' || n < 1 || n > INT_MAX) {
                    return usage_error("--repeat needs a count 1.." + std::to_string(INT_MAX));
                }
                a.repeat = static_cast<int>(n);
            } else {
                char *end = nullptr;
                long n = std::strtol(v, &end, 10);
                if (*v == '\0' || *end != '\0' || n < 0 || n > 255) {
                    return usage_error("--unprivileged-exit needs a status 0..255");
                }
                a.opt.unprivileged_exit = static_cast<int>(n);
            }
        } else if (arg == "--log") {
            a.opt.log = true;
        } else if (arg == "--netns") {
            a.opt.netns = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage_error("unknown option " + arg);
        } else if (a.command.empty()) {
            a.command = arg;
        } else {
            a.operands.push_back(arg);
        }
    }
    if (a.command.empty()) return usage_error("expected a command: run, at or records");
    if (a.opt.netns && a.command != "run") return usage_error("--netns goes with run");
    if (a.repeat > 1 && a.command != "run") return usage_error("--repeat goes with run");
    if (!a.port.empty() && a.command != "at") return usage_error("--port goes with at");
    if (a.command == "run") return run(a);
    if (a.command == "records") return records(a);
    if (a.command == "at") {
        if (!a.operands.empty()) return usage_error("at reads its lines from standard input");
        if (access(a.opt.lib.c_str(), R_OK) != 0) {
            std::fprintf(stderr, "dmsim: the library %s cannot be read: %s (give it with --lib)\n",
                         a.opt.lib.c_str(), errno_text(errno).c_str());
            return kExitEnv;
        }
        if (!a.port.empty()) {
            return run_port_console(a.opt, a.port, isatty(STDIN_FILENO) != 0, stdout);
        }
        return run_console(a.opt, std::cin, isatty(STDIN_FILENO) != 0, stdout);
    }
    return usage_error("unknown command " + a.command + "; expected run, at or records");
}
