// Instructions and heap allocations per event, from callgrind.
//
// `dm_bench --instructions N` runs, under valgrind's callgrind (strings and
// positions not compressed), each path's floor and the path with log off and
// on, N events each, and dumps the counts of each such window under its name
// (PREFIX.1, PREFIX.2, ...).  `--instructions-report N PREFIX` reads them
// and splits each window by owner:
//  - the library: functions whose source file is under entity/, pdn/, ims/
//    or dati/;
//  - the runtime: functions of libevfw_host.so;
//  - the harness: bench/ and testkit/;
//  - anything else (the C and C++ libraries, templates of system headers)
//    counts for whoever called it: the inclusive cost of a call from an
//    owned function into such code is added to the caller's owner.
// A heap allocation is a call into malloc, calloc, realloc or operator new;
// it counts for the owner of the function that made the call.
// Instruction counts repeat from run to run, unlike times.
#include <valgrind/callgrind.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <numeric>
#include <sstream>

#include "bench/bench.h"

namespace bench {
namespace {

enum Owner { kLibrary, kRuntime, kHarness, kOther, kOwners };

struct Counts {
    double ir[kOwners] = {};
    double allocs[kOwners] = {};
    double total = 0;  // every instruction of the window
    double lines = 0;  // log lines per event, from the window's name
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
    return kOther;
}

bool allocates(const std::string &function) {
    const std::string name = function.substr(0, function.find_first_of("@'"));
    return name == "malloc" || name == "calloc" || name == "realloc" ||
           name.rfind("operator new", 0) == 0;
}

// One dump: the window's name and its counts.
bool read_dump(const std::string &path, std::string &window, Counts &c) {
    std::ifstream in(path);
    window.clear();
    std::string object, file, function, callee_object, callee_file, callee, line;
    Owner owner = kOther;
    bool after_calls = false;  // the next cost line is a call's inclusive cost
    while (std::getline(in, line)) {
        const size_t eq = line.find('=');
        const std::string key = line.substr(0, eq);
        const std::string value = eq != std::string::npos ? line.substr(eq + 1) : "";
        if (line.rfind("desc: Trigger: Client Request: ", 0) == 0) {
            window = line.substr(31);
        } else if (key == "ob") {
            object = value;
        } else if (key == "fl") {
            file = value;
        } else if (key == "fn") {
            function = value;
            owner = owner_of(object, file);
            callee_object = object;
            callee_file = file;
        } else if (key == "cob") {
            callee_object = value;
        } else if (key == "cfi" || key == "cfl") {
            callee_file = value;
        } else if (key == "cfn") {
            callee = value;
        } else if (key == "calls") {
            if (allocates(callee) && !allocates(function)) c.allocs[owner] += std::stod(value);
            after_calls = true;
        } else if (!line.empty() && (std::isdigit(static_cast<unsigned char>(line[0])) ||
                                     line[0] == '+' || line[0] == '-' || line[0] == '*')) {
            std::istringstream fields(line);
            std::string position;
            double ir = 0;
            fields >> position >> ir;
            if (!after_calls || owner_of(callee_object, callee_file) == kOther) c.ir[owner] += ir;
            after_calls = false;
            callee_object = object;
            callee_file = file;
        } else if (line.rfind("summary: ", 0) == 0 || line.rfind("totals: ", 0) == 0) {
            c.total = std::stod(line.substr(line.find(' ') + 1));
        }
    }
    return !window.empty();
}

}  // namespace

void count_windows(int events) {
    auto window = [events](const std::string &name, auto one) {
        CALLGRIND_ZERO_STATS;
        for (int i = 0; i < events; ++i) one();
        CALLGRIND_DUMP_STATS_AT(name.c_str());
    };
    for (const Path &p : paths()) {
        Floor floor = p.floor;
        window(std::string("floor/") + p.name, [&floor] { floor.once(); });
        for (bool log_on : {false, true}) {
            Harness h;
            Event event;
            size_t lines = 0;
            const std::string why = prepare(h, p, log_on, event, lines);
            if (!why.empty()) {
                std::fprintf(stderr, "%s: %s\n", p.name, why.c_str());
                std::exit(1);  // NOLINT(concurrency-mt-unsafe): the runtime is deterministic here
            }
            // The window's name carries the log lines of one event, for the report.
            window(std::string(p.name) + (log_on ? "/log_on" : "/log_off") +
                           " lines=" + std::to_string(lines),
                   [&] { one_event(h, event); });
            finish(event);
        }
    }
}

bool report_instructions(const std::string &prefix, int events) {
    std::map<std::string, Counts> windows;
    std::string window;
    Counts c;
    for (int i = 1; read_dump(prefix + "." + std::to_string(i), window, c); ++i, c = Counts{}) {
        if (const size_t at = window.find(" lines="); at != std::string::npos) {
            c.lines = std::stod(window.substr(at + 7));
            window.resize(at);
        }
        windows[window] = c;
    }
    const double n = events;
    double worst = 0;
    std::string worst_path, library_allocs;
    std::printf(
            "| path | floor | library | library / floor | runtime | library, log on | "
            "runtime, log on | lines on/off | per line | library allocations off/on | "
            "all allocations off/on |\n|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const Path &p : paths()) {
        const Counts &o = windows[std::string(p.name) + "/log_off"];
        const Counts &l = windows[std::string(p.name) + "/log_on"];
        const double fl = windows[std::string("floor/") + p.name].total / n;
        if (fl == 0 || o.total == 0 || l.total == 0) return false;
        const double ratio = o.ir[kLibrary] / n / fl;
        std::printf("| %s | %.0f | %.0f | %.2f | %.0f | %.0f | %.0f | %.0f/%.0f |", p.label, fl,
                    o.ir[kLibrary] / n, ratio, o.ir[kRuntime] / n, l.ir[kLibrary] / n,
                    l.ir[kRuntime] / n, l.lines, o.lines);
        if (l.lines > o.lines) {
            const double extra = l.ir[kLibrary] + l.ir[kRuntime] - o.ir[kLibrary] - o.ir[kRuntime];
            std::printf(" %.0f |", extra / n / (l.lines - o.lines));
        } else {
            std::printf(" – |");
        }
        std::printf(" %g/%g | %g/%g |\n", o.allocs[kLibrary] / n, l.allocs[kLibrary] / n,
                    std::accumulate(o.allocs, o.allocs + kOwners, 0.0) / n,
                    std::accumulate(l.allocs, l.allocs + kOwners, 0.0) / n);
        if (ratio > worst) {
            worst = ratio;
            worst_path = p.label;
        }
        if (o.allocs[kLibrary] + l.allocs[kLibrary] > 0)
            library_allocs += std::string(" ") + p.name;
    }
    std::printf("\nLibrary against its floor: at most %.2f (%s), %s.\n", worst, worst_path.c_str(),
                worst <= 2.5 ? "within 2.5 on every path" : "ABOVE 2.5");
    std::printf("Heap allocations by the library: %s.\n",
                library_allocs.empty() ? "none on any path" : ("on" + library_allocs).c_str());
    return true;
}

}  // namespace bench
