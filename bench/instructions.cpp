// The instruction-count report of scripts/bench --instructions: reads the
// callgrind dumps that `dm_bench --instructions N` left (one per collection
// window, named by the window) and splits each window's instructions by
// owner.  Counts, unlike times, repeat exactly from run to run.
//
// Owner of a function: the host runtime when it lies in libevfw_host.so; the
// library when its source file is under entity/, pdn/, ims/ or dati/; the
// harness (the peers' flows, the test kit) under bench/ or testkit/.  What
// else runs (the C and C++ libraries, templates instantiated from system
// headers) belongs to whoever called it: a call's inclusive cost from an
// owned function into such code is added to the caller's owner.
#include <dirent.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bench.h"

namespace bench {
namespace {

enum Owner { kLibrary, kRuntime, kHarness, kCaller, kOwners };

struct Counts {
    double by[kOwners] = {};
    double total = 0;  // the whole window
    double lines = 0;  // log lines per event
};

Owner owner_of(const std::string &object, const std::string &file) {
    static const std::string src = DM_SOURCE_DIR;
    if (object.find("libevfw_host.so") != std::string::npos) return kRuntime;
    for (const char *dir : {"/entity/", "/pdn/", "/ims/", "/dati/"}) {
        if (file.rfind(src + dir, 0) == 0) return kLibrary;
    }
    for (const char *dir : {"/bench/", "/testkit/"}) {
        if (file.rfind(src + dir, 0) == 0) return kHarness;
    }
    return kCaller;
}

// "(id) name" defines a compressed name, "(id)" refers to it.
std::string expand(std::map<std::string, std::string> &names, const std::string &value) {
    if (value.empty() || value[0] != '(') return value;
    const size_t close = value.find(')');
    const std::string id = value.substr(0, close + 1);
    if (close + 1 < value.size()) names[id] = value.substr(close + 2);
    return names[id];
}

double cost_of(const std::string &line) {
    std::istringstream in(line);
    std::string position;
    double ir = 0;
    in >> position >> ir;
    return ir;
}

// One dump: the window's name and its instructions by owner.
bool read_dump(const std::string &path, std::string &window, Counts &counts) {
    std::ifstream in(path);
    std::map<std::string, std::string> objects, files, functions;
    std::string object, file, callee_object, callee_file, line;
    Owner current = kCaller;
    bool in_call = false;
    while (std::getline(in, line)) {
        const size_t eq = line.find('=');
        const std::string key = eq != std::string::npos ? line.substr(0, eq) : "";
        const std::string value = eq != std::string::npos ? line.substr(eq + 1) : "";
        if (line.rfind("desc: Trigger: Client Request: ", 0) == 0) {
            window = line.substr(31);
        } else if (key == "ob") {
            object = expand(objects, value);
        } else if (key == "fl") {
            file = expand(files, value);
        } else if (key == "fi" || key == "fe") {
            expand(files, value);  // inlined code: the function stays its own
        } else if (key == "fn") {
            expand(functions, value);
            current = owner_of(object, file);
            callee_object = object;
            callee_file = file;
        } else if (key == "cob") {
            callee_object = expand(objects, value);
        } else if (key == "cfi" || key == "cfl") {
            callee_file = expand(files, value);
        } else if (key == "cfn") {
            expand(functions, value);
        } else if (key == "calls") {
            in_call = true;
        } else if (!line.empty() && (std::isdigit(static_cast<unsigned char>(line[0])) ||
                                     line[0] == '+' || line[0] == '-' || line[0] == '*')) {
            const double ir = cost_of(line);
            if (!in_call) {
                if (current != kCaller) counts.by[current] += ir;
            } else {
                if (current != kCaller && owner_of(callee_object, callee_file) == kCaller) {
                    counts.by[current] += ir;
                }
                in_call = false;
                callee_object = object;
                callee_file = file;
            }
        } else if (line.rfind("totals: ", 0) == 0 || line.rfind("summary: ", 0) == 0) {
            counts.total = std::stod(line.substr(line.find(' ') + 1));
        }
    }
    return !window.empty();
}

}  // namespace

bool report_instructions(const std::string &dir, int iterations) {
    std::map<std::string, Counts> windows;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            const std::string name = e->d_name;
            if (name.rfind("callgrind.out", 0) != 0) continue;
            std::string window;
            Counts counts;
            if (!read_dump(dir + "/" + name, window, counts)) continue;
            if (const size_t at = window.find(" lines="); at != std::string::npos) {
                counts.lines = std::stod(window.substr(at + 7));
                window.resize(at);
            }
            windows[window] = counts;
        }
        closedir(d);
    }
    if (windows.empty()) return false;
    const double n = iterations;
    std::printf("%-24s %9s %9s %8s %9s %8s %9s %9s %6s %9s\n", "path", "floor", "library", "lib/fl",
                "runtime", "rt/fl", "lib (on)", "rt (on)", "lines", "per line");
    for (const auto &[window, floor] : windows) {
        if (window.rfind("floor/", 0) != 0) continue;
        const std::string path = window.substr(6);
        const auto off = windows.find(path + "/log_off");
        const auto on = windows.find(path + "/log_on");
        if (off == windows.end() || on == windows.end()) continue;
        const double fl = floor.total / n;
        const Counts &o = off->second;
        const Counts &l = on->second;
        const double extra = l.lines - o.lines;
        const double per_line =
                extra > 0 ? (l.by[kLibrary] + l.by[kRuntime] - o.by[kLibrary] - o.by[kRuntime]) /
                                    n / extra
                          : 0;
        std::printf("%-24s %9.0f %9.0f %8.2f %9.0f %8.2f %9.0f %9.0f %3.0f/%-2.0f %9.0f\n",
                    path.c_str(), fl, o.by[kLibrary] / n, o.by[kLibrary] / n / fl,
                    o.by[kRuntime] / n, o.by[kRuntime] / n / fl, l.by[kLibrary] / n,
                    l.by[kRuntime] / n, l.lines, o.lines, per_line);
    }
    std::printf(
            "  instructions per event (callgrind, %d events a window): library = the data\n"
            "  manager's code and the C library calls it makes (its copies); runtime = the\n"
            "  host runtime's, with its C library calls (log lines are formatted there, as\n"
            "  liblog does on the phone); floor = the path's copies alone; log off unless\n"
            "  \"(on)\" (dm_debug_lv 15); lines = log lines per event, on/off (the AT command\n"
            "  interface's are never gated); per line = what each extra line costs\n",
            iterations);
    return true;
}

}  // namespace bench
