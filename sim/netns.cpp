#include "sim/netns.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "sim/errno_text.h"

namespace dm::sim {

namespace {

// Runs the iproute2 tool; false with the reason.
bool ip(std::vector<std::string> args, std::string &error) {
    args.insert(args.begin(), "ip");
    std::vector<char *> argv;
    argv.reserve(args.size() + 1);
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    int rc = posix_spawnp(&pid, "ip", nullptr, nullptr, argv.data(), environ);
    std::string line;
    for (const std::string &a : args) line += (line.empty() ? "" : " ") + a;
    if (rc != 0) {
        error = line + ": " + errno_text(rc) +
                (rc == ENOENT ? " (the ip tool of iproute2 is needed for --netns)" : "");
        return false;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            error = line + ": waitpid: " + errno_text(errno);
            return false;
        }
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = line + ": failed (status " + std::to_string(status) + ")";
        return false;
    }
    return true;
}

// Sets an IPv6 setting of the namespace ("all", "default") or of an
// interface; false with the reason.
bool ipv6_conf(const std::string &dev, const char *key, const char *value, std::string &error) {
    const std::string path = "/proc/sys/net/ipv6/conf/" + dev + "/" + key;
    std::ofstream out(path);
    out << value << "\n";
    out.close();
    if (out) return true;
    error = "cannot set " + path + " to " + value;
    return false;
}

// IPv6 may be off by default for new interfaces; the data interfaces need it.
void enable_ipv6(const std::string &ifname) {
    const std::string path = "/proc/sys/net/ipv6/conf/" + ifname + "/disable_ipv6";
    std::ifstream in(path);
    int off = 0;
    if (in >> off && off != 0) std::ofstream(path) << "0\n";
}

std::string far_end(size_t n) {
    return "dmsimp" + std::to_string(n);
}

std::string address_text(const uint8_t *addr) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, addr, text, sizeof(text));
    return text;
}

// An RA-configured interface while its router runs: what route-netlink has
// told of it so far.
struct Watched {
    const IfaceDecl *decl;
    std::string router;  // the far end, where the router sends from
    unsigned index = 0, router_index = 0;
    bool link_local = false, router_link_local = false;
    uint8_t address[16] = {};
    bool configured = false;
};

// Takes the address messages (a dump's or the kernel's announcements) in
// `buf`: the link-local addresses that both ends need before a router can
// advertise, and the global address the kernel configures.
void take_addresses(const uint8_t *buf, size_t len, std::vector<Watched> &watched) {
    auto left = static_cast<unsigned>(len);
    for (auto *h = reinterpret_cast<const nlmsghdr *>(buf); NLMSG_OK(h, left);
         h = NLMSG_NEXT(h, left)) {
        if (h->nlmsg_type != RTM_NEWADDR || h->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) {
            continue;
        }
        const auto *ifa = static_cast<const ifaddrmsg *>(NLMSG_DATA(h));
        if (ifa->ifa_family != AF_INET6) continue;
        uint32_t flags = ifa->ifa_flags;
        const uint8_t *addr = nullptr;
        int attr_left = static_cast<int>(IFA_PAYLOAD(h));
        for (auto *rta = IFA_RTA(ifa); RTA_OK(rta, attr_left); rta = RTA_NEXT(rta, attr_left)) {
            if (rta->rta_type == IFA_ADDRESS && RTA_PAYLOAD(rta) == 16) {
                addr = static_cast<const uint8_t *>(RTA_DATA(rta));
            } else if (rta->rta_type == IFA_FLAGS && RTA_PAYLOAD(rta) == sizeof(flags)) {
                std::memcpy(&flags, RTA_DATA(rta), sizeof(flags));
            }
        }
        if (addr == nullptr || (flags & IFA_F_TENTATIVE) != 0) continue;
        for (Watched &w : watched) {
            if (ifa->ifa_scope == RT_SCOPE_LINK) {
                w.link_local |= ifa->ifa_index == w.index;
                w.router_link_local |= ifa->ifa_index == w.router_index;
            } else if (ifa->ifa_scope == RT_SCOPE_UNIVERSE && ifa->ifa_index == w.index &&
                       ifa->ifa_prefixlen == 64 && !w.configured) {
                std::memcpy(w.address, addr, sizeof(w.address));
                w.configured = true;
            }
        }
    }
}

// radvd on the far ends of the RA-configured interfaces: its configuration
// and pid file in a folder of its own, its log read from a pipe.
class Router {
  public:
    ~Router() {
        stop();
        for (const char *f : {"/radvd.conf", "/radvd.pid"}) unlink((dir_ + f).c_str());
        if (!dir_.empty()) rmdir(dir_.c_str());
    }

    bool start(const std::vector<Watched> &watched, std::string &error) {
        char tmpl[] = "/tmp/dmsim-ra.XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            error = std::string("mkdtemp: ") + errno_text(errno);
            return false;
        }
        dir_ = tmpl;
        std::ofstream conf(dir_ + "/radvd.conf");
        for (const Watched &w : watched) {
            // Advertised every 3 to 4 s (radvd's shortest), so that an
            // advertisement the kernel missed while busy comes again soon.
            conf << "interface " << w.router
                 << " {\n    AdvSendAdvert on;\n    MinRtrAdvInterval 3;\n"
                 << "    MaxRtrAdvInterval 4;\n    prefix " << w.decl->ra_prefix
                 << "/64 {\n        AdvOnLink on;\n"
                 << "        AdvAutonomous on;\n    };\n};\n";
        }
        conf.close();
        if (!conf) {
            error = "cannot write " + dir_ + "/radvd.conf";
            return false;
        }
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) {
            error = std::string("pipe: ") + errno_text(errno);
            return false;
        }
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&fa, out[1], 1);
        posix_spawn_file_actions_adddup2(&fa, out[1], 2);
        std::string conf_path = dir_ + "/radvd.conf", pid_path = dir_ + "/radvd.pid";
        char *argv[] = {const_cast<char *>("radvd"),
                        const_cast<char *>("-n"),
                        const_cast<char *>("-C"),
                        conf_path.data(),
                        const_cast<char *>("-p"),
                        pid_path.data(),
                        const_cast<char *>("-m"),
                        const_cast<char *>("stderr"),
                        nullptr};
        int rc = posix_spawnp(&pid_, "radvd", &fa, nullptr, argv, environ);
        if (rc == ENOENT) rc = posix_spawn(&pid_, "/usr/sbin/radvd", &fa, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&fa);
        close(out[1]);
        log_fd_ = out[0];
        if (rc != 0) {
            pid_ = -1;
            error = std::string("radvd: ") + errno_text(rc) +
                    (rc == ENOENT ? " (iface-ra needs radvd, Debian package radvd, as the router)"
                                  : "");
            return false;
        }
        return true;
    }

    int log_fd() const { return log_fd_; }
    const std::string &log() const { return log_; }

    // Reads what radvd logged; false once it has ended.
    bool read_log() {
        char buf[512];
        const ssize_t n = read(log_fd_, buf, sizeof(buf));
        if (n > 0) log_.append(buf, static_cast<size_t>(n));
        return n > 0 || (n < 0 && errno == EINTR);
    }

    // Stops it as its operator does, with SIGTERM (it then withdraws its
    // adverts); SIGKILL if it has not ended within a second.
    void stop() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            pollfd p = {log_fd_, POLLIN, 0};
            const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
            while (true) {
                const long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                        until - std::chrono::steady_clock::now())
                                        .count();
                if (ms <= 0 || (poll(&p, 1, static_cast<int>(ms)) < 0 && errno != EINTR)) break;
                if (p.revents != 0 && !read_log()) break;
            }
            kill(pid_, SIGKILL);
            while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
            }
            pid_ = -1;
        }
        if (log_fd_ >= 0) close(log_fd_);
        log_fd_ = -1;
    }

  private:
    std::string dir_, log_;
    pid_t pid_ = -1;
    int log_fd_ = -1;
};

}  // namespace

NetnsResult enter_netns(const std::vector<IfaceDecl> &ifaces, std::string &error) {
    if (geteuid() != 0) {
        error = "--netns needs root: it makes a private network namespace with veth interfaces "
                "(run it as root, for example with sudo)";
        return NetnsResult::kUnprivileged;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        const int err = errno;
        error = std::string("unshare(CLONE_NEWNET): ") + errno_text(err);
        if (err == EPERM) {
            error += " (--netns needs the CAP_SYS_ADMIN capability)";
            return NetnsResult::kUnprivileged;
        }
        if (err == EINVAL || err == ENOSYS) {
            error += " (this kernel has no network namespaces)";
            return NetnsResult::kUnprivileged;
        }
        return NetnsResult::kFailed;
    }
    // No duplicate address detection: an address is usable, and announced,
    // as soon as it is there.  Set before the links exist, which take it.
    if (!ipv6_conf("all", "accept_dad", "0", error) ||
        !ipv6_conf("default", "accept_dad", "0", error) ||
        !ip({"link", "set", "lo", "up"}, error)) {
        return NetnsResult::kFailed;
    }
    for (size_t n = 0; n < ifaces.size(); ++n) {
        const IfaceDecl &d = ifaces[n];
        const std::string other = far_end(n);
        if (!ip({"link", "add", d.name, "type", "veth", "peer", "name", other}, error)) {
            return NetnsResult::kFailed;
        }
        enable_ipv6(d.name);
        enable_ipv6(other);
        if (!d.ra_prefix.empty() && (!ipv6_conf(d.name, "accept_ra", "1", error) ||
                                     !ipv6_conf(other, "accept_ra", "0", error))) {
            return NetnsResult::kFailed;
        }
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

bool advertise(const std::vector<IfaceDecl> &ifaces, std::vector<Slaac> &learned,
               std::string &error) {
    std::vector<Watched> watched;
    for (size_t n = 0; n < ifaces.size(); ++n) {
        if (ifaces[n].ra_prefix.empty()) continue;
        Watched w{&ifaces[n], far_end(n)};
        w.index = if_nametoindex(ifaces[n].name.c_str());
        w.router_index = if_nametoindex(w.router.c_str());
        if (w.index == 0 || w.router_index == 0) {
            error = ifaces[n].name + " or its far end " + w.router + " is not there";
            return false;
        }
        watched.push_back(w);
    }
    if (watched.empty()) return true;

    // Subscribed before anything can happen, then a dump of what is there.
    const int sock = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl sa = {};
    sa.nl_family = AF_NETLINK;
    sa.nl_groups = RTMGRP_IPV6_IFADDR;
    struct {
        nlmsghdr hdr;
        ifaddrmsg ifa;
    } dump = {{sizeof(dump), RTM_GETADDR, NLM_F_REQUEST | NLM_F_DUMP, 1, 0},
              {AF_INET6, 0, 0, 0, 0}};
    if (sock < 0 || bind(sock, reinterpret_cast<sockaddr *>(&sa), sizeof(sa)) != 0 ||
        send(sock, &dump, sizeof(dump), 0) < 0) {
        error = std::string("route-netlink: ") + errno_text(errno);
        if (sock >= 0) close(sock);
        return false;
    }
    Router router;
    bool started = false;
    const auto until = std::chrono::steady_clock::now() + kAdvertiseWait;
    auto done = [&] {
        return std::all_of(watched.begin(), watched.end(),
                           [](const Watched &w) { return w.configured; });
    };
    while (!done()) {
        // A router advertises from its link-local address, and the kernel
        // takes an advertisement on a link that has one.
        if (!started && std::all_of(watched.begin(), watched.end(), [](const Watched &w) {
                return w.link_local && w.router_link_local;
            })) {
            if (!router.start(watched, error)) break;
            started = true;
        }
        const long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                until - std::chrono::steady_clock::now())
                                .count();
        pollfd fds[2] = {{sock, POLLIN, 0}, {started ? router.log_fd() : -1, POLLIN, 0}};
        if (ms <= 0 || (poll(fds, 2, static_cast<int>(ms)) < 0 && errno != EINTR)) {
            error = "no address configured by the kernel within " +
                    std::to_string(kAdvertiseWait.count()) + " s of " +
                    (started ? "the router's start" : "the links' coming up");
            break;
        }
        if (fds[1].revents != 0 && !router.read_log()) {
            error = "radvd ended";
            break;
        }
        if (fds[0].revents != 0) {
            alignas(nlmsghdr) uint8_t buf[16384];
            const ssize_t n = recv(sock, buf, sizeof(buf), MSG_DONTWAIT);
            if (n > 0) take_addresses(buf, static_cast<size_t>(n), watched);
        }
    }
    close(sock);
    router.stop();
    if (!done()) {
        if (!router.log().empty()) error += "; radvd said: " + router.log();
        return false;
    }
    for (const Watched &w : watched) {
        uint8_t prefix[16] = {};
        std::memcpy(prefix, w.address, 8);
        learned.push_back({w.decl->name, address_text(prefix), address_text(w.address)});
    }
    return true;
}

NetnsResult enter_scenario_netns(Scenario &sc, std::string &error) {
    const NetnsResult r = enter_netns(sc.ifaces, error);
    std::vector<Slaac> learned;
    if (r != NetnsResult::kOk) return r;
    if (!advertise(sc.ifaces, learned, error)) return NetnsResult::kFailed;
    std::vector<Step> published;
    for (const Slaac &l : learned) {
        Step s;
        s.op = Op::Property;
        s.line = std::find_if(sc.ifaces.begin(), sc.ifaces.end(), [&](const IfaceDecl &d) {
                     return d.name == l.ifname;
                 })->line;
        s.text = "net.ipv6." + l.ifname + ".prefix";
        s.value = l.prefix;
        s.source = "property " + s.text + " " + s.value +
                   "   (the network daemon: the prefix the kernel learned on " + l.ifname +
                   ", where it configured " + l.address + ")";
        published.push_back(std::move(s));
    }
    sc.steps.insert(sc.steps.begin(), published.begin(), published.end());
    for (Step &s : sc.steps) {
        for (Assign &a : s.payload.assigns) {
            for (const Slaac &l : learned) {
                if (a.slaac == l.ifname) inet_pton(AF_INET6, l.address.c_str(), a.value.data());
            }
        }
    }
    return NetnsResult::kOk;
}

}  // namespace dm::sim
