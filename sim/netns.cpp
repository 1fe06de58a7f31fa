#include "sim/netns.h"

#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

extern char **environ;

namespace dm::sim {

namespace {

// Runs the iproute2 tool; false with the reason.
bool ip(std::vector<std::string> args, std::string &error) {
    args.insert(args.begin(), "ip");
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    int rc = posix_spawnp(&pid, "ip", nullptr, nullptr, argv.data(), environ);
    std::string line;
    for (const std::string &a : args) line += (line.empty() ? "" : " ") + a;
    if (rc != 0) {
        error = line + ": " + std::strerror(rc) +
                (rc == ENOENT ? " (the ip tool of iproute2 is needed for --netns)" : "");
        return false;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            error = line + ": waitpid: " + std::strerror(errno);
            return false;
        }
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = line + ": failed (status " + std::to_string(status) + ")";
        return false;
    }
    return true;
}

// IPv6 may be off by default for new interfaces; the data interfaces need it.
void enable_ipv6(const std::string &ifname) {
    const std::string path = "/proc/sys/net/ipv6/conf/" + ifname + "/disable_ipv6";
    std::ifstream in(path);
    int off = 0;
    if (in >> off && off != 0) std::ofstream(path) << "0\n";
}

}  // namespace

NetnsResult enter_netns(const std::vector<IfaceDecl> &ifaces, std::string &error) {
    if (geteuid() != 0) {
        error = "--netns needs root: it makes a private network namespace with veth interfaces "
                "(run it as root, for example with sudo)";
        return NetnsResult::kUnprivileged;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        const int err = errno;
        error = std::string("unshare(CLONE_NEWNET): ") + std::strerror(err);
        if (err == EPERM) {
            error += " (--netns needs the CAP_SYS_ADMIN capability)";
            return NetnsResult::kUnprivileged;
        }
        return NetnsResult::kFailed;
    }
    if (!ip({"link", "set", "lo", "up"}, error)) return NetnsResult::kFailed;
    int n = 0;
    for (const IfaceDecl &d : ifaces) {
        const std::string other = "dmsimp" + std::to_string(n++);
        if (!ip({"link", "add", d.name, "type", "veth", "peer", "name", other}, error)) {
            return NetnsResult::kFailed;
        }
        enable_ipv6(d.name);
        for (const IfaceAddr &a : d.addrs) {
            if (!ip({"-6", "addr", "add", a.addr + "/" + std::to_string(a.prefix_len), "dev",
                     d.name, "nodad"},
                    error)) {
                return NetnsResult::kFailed;
            }
        }
        if (!ip({"link", "set", other, "up"}, error) || !ip({"link", "set", d.name, "up"}, error)) {
            return NetnsResult::kFailed;
        }
    }
    return NetnsResult::kOk;
}

}  // namespace dm::sim
