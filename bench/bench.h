// The data manager's event paths as dm_bench measures them: each path is an
// event a peer sends into the real library in the deterministic host runtime
// (testkit Harness), what the library must do with it, and its floor, the
// copies the path requires and nothing else.
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <cstdint>
#include <string>
#include <vector>

#include "testkit/testkit.h"

namespace bench {

using dm::testkit::Harness;
using dm::testkit::Peer;

// The copies of a path, done with memcpy and memset between buffers of the
// path's sizes, each read from where the path reads it.
struct Floor {
    struct Op {
        int to, from;  // buffers; from -1: cleared, not copied
        size_t to_offset, from_offset, bytes;
    };
    std::vector<std::vector<uint8_t>> buffers;
    std::vector<Op> ops;

    int buffer(size_t size) {
        buffers.emplace_back(size, 0x5a);
        return static_cast<int>(buffers.size()) - 1;
    }
    void copy(int to, size_t to_offset, int from, size_t from_offset, size_t bytes) {
        ops.push_back({to, from, to_offset, from_offset, bytes});
    }
    void clear(int to, size_t bytes) { ops.push_back({to, -1, 0, 0, bytes}); }
    void once();  // the copies, once
};

// The event a path's peer sends again and again, and what the library must
// send for it: one event `out_id` of `out_len` bytes to `out_to`.
struct Event {
    Peer *from = nullptr;
    evfw_event_t *request = nullptr;  // answered on this request's route, when set
    uint32_t to = 0, id = 0;
    std::vector<uint8_t> payload;
    uint32_t out_to = 0, out_id = 0;
    size_t out_len = 0;
};

// "" when the traced run of `event` did what it must, else why not.
std::string sent_one(Harness &h, const Event &event);

struct Path {
    const char *name;   // the benchmark's name
    const char *label;  // its row in the tables
    Floor floor;
    Event (*setup)(Harness &);  // announces the peers, returns the event
    std::string (*check)(Harness &, const Event &) = sent_one;
};

const std::vector<Path> &paths();

// A harness with the path set up and proved: one run with the trace and the
// log capture on, checked, its log lines counted.  Then trace and capture go
// off (lines are still formatted, then dropped), dm_debug_lv is 15 (log on)
// or 0, and a few more events run, so that the library's imports are bound
// before anything is measured.  "" when the path did what it must.
std::string prepare(Harness &h, const Path &path, bool log_on, Event &event, size_t &lines);
// One event of the path: the peer's send and its delivery, the library's
// handling and the delivery of what it sent.
void one_event(Harness &h, const Event &event);
// The path's captured request, if any, given back.
void finish(Event &event);

// dm_bench --instructions N: each path's floor, log off and log on, N events
// each between callgrind's client requests, dumped under the window's name.
void count_windows(int events);
// dm_bench --instructions-report N PREFIX: the table from those dumps.
bool report_instructions(const std::string &prefix, int events);

}  // namespace bench

#endif  // BENCH_BENCH_H
