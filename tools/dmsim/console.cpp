#include "tools/dmsim/console.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "dati/dati.h"
#include "evfw_ids.h"
#include "sim/errno_text.h"
#include "tools/dmsim/at_port.h"

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

constexpr const char *kConsoleHelp =
        "Type AT command lines (AT+CGDCONT=1,\"IP\",\"internet\", AT+CGACT=1,1, AT+CFUN=1, ...).\n"
        "  !urc <line>   the modem sends an unsolicited result code line (e.g. !urc +CGEV: NW "
        "PDN DEACT 1)\n"
        "  !help         this text\n"
        "  !quit         leave (so does the end of input)\n";

constexpr const char *kPortHelp =
        "The AT port's client gets the answers to its own lines and every URC; what it sends\n"
        "and receives shows here as port> and port< lines.  The end of input does not end\n"
        "the port: !quit or an interrupt (Ctrl-C) does.\n";

// The console: AT lines typed on standard input, and the lines of the AT
// port's client when there is a port.  Each line's results go back where
// the line came from; URCs go to the port when there is one.
class Console {
  public:
    Console(const Options &options, FILE *out, AtPort *port)
        : opt_(options), out_(out), port_(port), sim_(options, out) {}

    bool start() {
        std::string error;
        if (!sim_.start({}, error)) {
            std::fprintf(stderr, "dmsim: %s\n", error.c_str());
            return false;
        }
        // The RIL proxy is up and scripted; the AT client has registered.
        sim_.script([](RilScript &r) { r.enabled = true; });
        sim_.announce(sim_.task(TASK_RILDPROXY), "rildproxy");
        sim_.at_register("ati");
        sim_.settle();
        sim_.new_trace();
        diagnostics();
        return true;
    }

    // A line typed on standard input; false when it asks to leave.
    bool typed(std::string_view line) {
        std::string_view cmd = trim(line);
        if (cmd.empty()) return true;
        if (cmd == "!quit" || cmd == "!exit") return false;
        if (cmd == "!help") {
            std::fputs(kConsoleHelp, out_);
            if (port_ != nullptr) std::fputs(kPortHelp, out_);
            return true;
        }
        if (cmd.starts_with("!urc")) {
            std::string urc(trim(cmd.substr(4)));
            if (urc.empty() || sim_.urc(urc) == 0) {
                std::fprintf(out_, "[no task subscribes to this URC line]\n");
            }
        } else if (cmd.starts_with("!")) {
            std::fprintf(out_, "[unknown console command; !help lists them]\n");
            return true;
        } else {
            sim_.at_line(std::string(cmd));
        }
        sim_.settle();
        results(false);
        return true;
    }

    // A command line of the AT port's client.
    void from_port(const PortLine &line) {
        std::fprintf(out_, "port> %s\n", escape(line.text).c_str());
        if (line.too_long) {
            std::fprintf(out_, "[refused: a command line of more than %zu characters]\n",
                         AtPort::kMaxLine);
            to_port("ERROR");
        } else {
            sim_.at_line(line.text);
            sim_.settle();
            results(true);
        }
        std::fflush(out_);
    }

    int finish() {
        const auto trace = sim_.rt().trace();
        bool ok = sim_.finish();
        if (!opt_.diagram_path.empty()) {
            std::string error;
            ok = write_diagram(trace, "dmsim AT console", opt_.diagram_path, error) && ok;
            if (!error.empty()) std::fprintf(stderr, "dmsim: %s\n", error.c_str());
        }
        return ok ? kExitPass : kExitEnv;
    }

  private:
    void to_port(std::string_view text) {
        const std::string framed = modem_framing(text);
        for (std::string_view rest = framed; !rest.empty();) {
            size_t end = rest.find("\r\n");
            if (end == std::string_view::npos) end = rest.size();
            if (end != 0) std::fprintf(out_, "port< %s\n", escape(rest.substr(0, end)).c_str());
            rest.remove_prefix(std::min(rest.size(), end + 2));
        }
        if (!port_->write(framed)) {
            std::fprintf(out_,
                         "[the port's client reads nothing: its buffer is full, text lost]\n");
        }
    }

    void results(bool from_port) {
        for (const auto &e : sim_.new_trace()) {
            if (e.to == TASK_ATI_ATC && e.event_id == EVENT_DATAMNGR_ATCMD_RESP) {
                const std::string text = text_at(e, offsetof(AtCmdResp, text));
                from_port ? to_port(text) : show(out_, text);
            } else if (e.to == TASK_ATI_ATC && e.event_id == EVENT_ATI_ATCMD_FWD) {
                // The modem answers these through the AT interface, which is
                // not simulated: the client gets nothing.
                std::fprintf(out_, "[forwarded to the modem through the AT interface: %s]\n",
                             escape(text_at(e, 0)).c_str());
            } else if (e.to == TASK_ATI_URC &&
                       (e.event_id == EVENT_ATI_URC || e.event_id == EVENT_ATI_URC_FORGED)) {
                const std::string text = text_at(e, offsetof(AtUrc, text));
                port_ != nullptr ? to_port(text) : show(out_, text);
            }
        }
        diagnostics();
        std::fflush(out_);
    }

    void diagnostics() {
        if (opt_.log) {
            sim_.print_logs(stderr);
            sim_.print_diagnostics(stderr);
        }
    }

    const Options &opt_;
    FILE *out_;
    AtPort *port_;
    Sim sim_;
};

// The write end of the pipe that turns an interrupt into an event of the
// port's poll loop, whichever thread the signal lands on.
int g_signal_pipe = -1;

void on_signal(int) {
    const int saved = errno;
    const char c = 's';
    [[maybe_unused]] ssize_t n = write(g_signal_pipe, &c, 1);
    errno = saved;
}

}  // namespace

int run_console(const Options &options, std::istream &in, bool interactive, FILE *out) {
    Console console(options, out, nullptr);
    if (!console.start()) return kExitEnv;
    if (interactive) {
        std::fprintf(out, "dmsim AT console on %s\n%s", options.lib.c_str(), kConsoleHelp);
    }
    std::string line;
    while (true) {
        if (interactive) {
            std::fputs("> ", out);
            std::fflush(out);
        }
        if (!std::getline(in, line) || !console.typed(line)) break;
    }
    return console.finish();
}

int run_port_console(const Options &options, const std::string &path, bool interactive, FILE *out) {
    AtPort port;
    std::string error;
    if (!port.open(path, error)) {
        std::fprintf(stderr, "dmsim: --port %s: %s\n", path.c_str(), error.c_str());
        return kExitEnv;
    }
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        std::perror("dmsim: pipe");
        return kExitEnv;
    }
    g_signal_pipe = pipe_fds[1];
    struct sigaction sa = {};
    sa.sa_handler = on_signal;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);

    int rc = kExitEnv;
    {
        Console console(options, out, &port);
        if (console.start()) {
            if (interactive) {
                std::fprintf(out, "dmsim AT console on %s\n%s%s", options.lib.c_str(), kConsoleHelp,
                             kPortHelp);
            }
            std::fprintf(out, "serving on %s (%s)\n", path.c_str(), port.terminal().c_str());
            bool input_open = true, running = true;
            std::string typed;
            std::vector<PortLine> lines;
            while (running) {
                if (interactive && input_open) std::fputs("> ", out);
                std::fflush(out);
                pollfd fds[3] = {{pipe_fds[0], POLLIN, 0},
                                 {port.fd(), POLLIN, 0},
                                 {input_open ? STDIN_FILENO : -1, POLLIN, 0}};
                if (poll(fds, 3, -1) < 0) {
                    if (errno == EINTR) continue;
                    std::perror("dmsim: poll");
                    break;
                }
                if (fds[0].revents != 0) {
                    std::fprintf(out, "[interrupted: the port closes]\n");
                    break;
                }
                if (fds[1].revents != 0) {
                    lines.clear();
                    const bool open = port.read(lines);
                    for (const PortLine &l : lines) console.from_port(l);
                    if (!open) {
                        std::fprintf(out, "[the port's terminal failed: %s]\n",
                                     errno_text(errno).c_str());
                        break;
                    }
                }
                if (fds[2].revents != 0) {
                    char buf[1024];
                    const ssize_t n = read(STDIN_FILENO, buf, sizeof(buf));
                    if (n > 0) typed.append(buf, static_cast<size_t>(n));
                    size_t nl;
                    while (running && (nl = typed.find('\n')) != std::string::npos) {
                        running = console.typed(std::string_view(typed).substr(0, nl));
                        typed.erase(0, nl + 1);
                    }
                    if (n <= 0 && !(n < 0 && (errno == EINTR || errno == EAGAIN))) {
                        if (running && !typed.empty()) running = console.typed(typed);
                        input_open = false;
                        if (running) {
                            std::fprintf(out, "[end of input: serving on %s until interrupted]\n",
                                         path.c_str());
                        }
                    }
                }
            }
            rc = console.finish();
        }
    }
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, SIG_DFL);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    g_signal_pipe = -1;
    return rc;
}

}  // namespace dmsim
