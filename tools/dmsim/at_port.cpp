#include "tools/dmsim/at_port.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "sim/errno_text.h"

namespace dmsim {

namespace {

bool is_final_result(std::string_view line) {
    for (std::string_view code :
         {"OK", "ERROR", "NO CARRIER", "BUSY", "NO ANSWER", "NO DIALTONE"}) {
        if (line == code) return true;
    }
    return line.starts_with("+CME ERROR") || line.starts_with("+CMS ERROR");
}

}  // namespace

std::string modem_framing(std::string_view text) {
    std::vector<std::string_view> lines;
    size_t start = 0;
    for (size_t i = 0; i <= text.size(); ++i) {
        if (i == text.size() || text[i] == '\r' || text[i] == '\n') {
            if (i > start) lines.push_back(text.substr(start, i - start));
            start = i + 1;
        }
    }
    if (lines.empty()) return "";
    const bool final = is_final_result(lines.back());
    std::string out;
    const size_t info = final ? lines.size() - 1 : lines.size();
    for (size_t i = 0; i < info; ++i) {
        out += i == 0 ? "\r\n" : "";
        out += lines[i];
        out += "\r\n";
    }
    if (final) {
        out += "\r\n";
        out += lines.back();
        out += "\r\n";
    }
    return out;
}

AtPort::~AtPort() {
    if (!link_.empty()) {
        // Only our own link goes: another run may have taken the path since.
        char target[PATH_MAX];
        const ssize_t n = readlink(link_.c_str(), target, sizeof(target) - 1);
        if (n > 0 && std::string_view(target, static_cast<size_t>(n)) == pts_) {
            unlink(link_.c_str());
        }
    }
    if (slave_ >= 0) close(slave_);
    if (master_ >= 0) close(master_);
}

bool AtPort::open(const std::string &link, std::string &error) {
    auto fail = [&](const std::string &what) {
        error = what + ": " + dm::sim::errno_text(errno);
        return false;
    };
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master_ < 0) return fail("posix_openpt");
    char name[128];
    if (grantpt(master_) != 0 || unlockpt(master_) != 0 ||
        ptsname_r(master_, name, sizeof(name)) != 0) {
        return fail("preparing the pseudo-terminal");
    }
    pts_ = name;
    slave_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave_ < 0) return fail("open " + pts_);
    termios t;
    if (tcgetattr(slave_, &t) != 0) return fail("tcgetattr " + pts_);
    cfmakeraw(&t);
    if (tcsetattr(slave_, TCSANOW, &t) != 0) return fail("tcsetattr " + pts_);
    const int flags = fcntl(master_, F_GETFL);
    if (flags < 0 || fcntl(master_, F_SETFL, flags | O_NONBLOCK) != 0) return fail("fcntl");

    struct stat st;
    if (lstat(link.c_str(), &st) == 0) {
        char target[PATH_MAX];
        const ssize_t n =
                S_ISLNK(st.st_mode) ? readlink(link.c_str(), target, sizeof(target) - 1) : -1;
        if (n <= 0 || !std::string_view(target, static_cast<size_t>(n)).starts_with("/dev/pts/")) {
            error = link +
                    " exists and is not a link to a pseudo-terminal; expected a free path "
                    "for the port's link";
            return false;
        }
        if (unlink(link.c_str()) != 0) return fail("unlink " + link);
    } else if (errno != ENOENT) {
        return fail(link);
    }
    if (symlink(pts_.c_str(), link.c_str()) != 0) return fail("symlink " + link);
    link_ = link;
    return true;
}

bool AtPort::read(std::vector<PortLine> &lines) {
    char buf[512];
    while (true) {
        const ssize_t n = ::read(master_, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) return true;  // all read
        if (n <= 0) return false;
        for (ssize_t i = 0; i < n; ++i) {
            const char c = buf[i];
            if (c == '\r' || c == '\n') {
                if (!pending_.empty() || overflow_) lines.push_back({pending_, overflow_});
                pending_.clear();
                overflow_ = false;
            } else if (c != '\0') {
                if (pending_.size() < kMaxLine) {
                    pending_ += c;
                } else {
                    overflow_ = true;
                }
            }
        }
    }
}

bool AtPort::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(master_, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

}  // namespace dmsim
