// Writes the fuzz targets' seed corpora from the scenario files, so that the
// fuzzers start from every flow the tests and the shipped scenarios play:
//     make_seeds <corpus dir> <scenario file>...
// Each scenario gives dispatcher seeds (its announcements and sends to the
// main task), AT seeds (its AT lines, registrations and sends to the AT task),
// both cut into runs of steps that fit kMaxLen, and a URC seed per URC line
// (over the PDN rows its bearer reports made); the netlink seeds are an
// address dump and a no-RA message.  A seed is a byte string.
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "dati/dati.h"
#include "fuzz/fuzz.h"
#include "sim/scenario.h"

namespace {

using namespace dm::fuzz;
using dm::sim::Op;

// `v` in `n` bytes, little-endian, as the targets' Reader takes it.
std::string le(size_t v, int n) {
    std::string out;
    for (; n > 0; --n, v >>= 8) out += static_cast<char>(v & 0xff);
    return out;
}

void save(const std::filesystem::path &dir, const std::string &name, const std::string &seed) {
    std::filesystem::create_directories(dir);
    std::ofstream(dir / name, std::ios::binary) << seed;
}

// The dispatcher target's index of a sender.
uint8_t sender_of(const dm::sim::PeerRef &p) {
    if (p.is_client()) return p.client == "imsm_0" ? 1 : p.client.starts_with("imsm_") ? 2 : 3;
    if (p.task_id >= TASK_RB_SIM0 && p.task_id <= TASK_RB_SIM3) return 4;
    return p.task_id == TASK_RILDPROXY ? 0 : p.task_id == TASK_ATMNGR ? 5 : 3;
}

// A dispatcher step: a raw id and length, fill 0, and the payload's runs of
// non-zero bytes (at most kMaxPatches - 1 of them) as patches.
std::string event_step(const dm::sim::PeerRef &from, uint32_t id, const std::string &data) {
    std::string patches;
    size_t n = 0;
    for (size_t i = data.find_first_not_of('\0'); i < data.size() && n + 1 < kMaxPatches; ++n) {
        const size_t run = std::min({data.find('\0', i), data.size(), i + 255}) - i;
        patches += le(i, 2) + le(run, 1) + data.substr(i, run);
        i = data.find_first_not_of('\0', i + run);
    }
    return le(sender_of(from), 1) + le(kRawId, 1) + le(id, 2) + le(kRawLen, 1) +
           le(data.size(), 2) + le(0, 1) + le(n, 1) + patches;
}

// An RTM_NEWADDR message (or one of `type`) with one IPv6 address.
std::string address(const uint8_t (&addr)[16], uint16_t type = RTM_NEWADDR) {
    const auto raw = [](const auto &v) {
        return std::string(reinterpret_cast<const char *>(&v), sizeof(v));
    };
    return raw(nlmsghdr{NLMSG_LENGTH(sizeof(ifaddrmsg)) + RTA_LENGTH(16), type, 0, 0, 0}) +
           raw(ifaddrmsg{AF_INET6, 64, 0, 0, 1}) + raw(rtattr{RTA_LENGTH(16), IFA_ADDRESS}) +
           raw(addr);
}

// Writes a scenario's seeds; false if it is refused.
bool seeds_of(const std::filesystem::path &file, const std::filesystem::path &out) {
    dm::sim::Scenario sc;
    std::string error;
    if (!dm::sim::parse_scenario_file(file, sc, error)) {
        std::fprintf(stderr, "make_seeds: %s\n", error.c_str());
        return false;
    }
    const std::string name = file.parent_path().filename().string() + "-" + file.stem().string();
    uint8_t flags = kAnnounceRil | kAnnounceClients;
    // The seeds of the dispatcher and AT targets, their flags put before them
    // at the end: a step goes to the last one while the seed fits kMaxLen (a
    // longer step alone).
    std::vector<std::string> events, at;
    const auto add = [](std::vector<std::string> &seeds, const std::string &step) {
        if (seeds.empty() || 1 + seeds.back().size() + step.size() > kMaxLen) seeds.emplace_back();
        seeds.back() += step;
    };
    const auto at_step = [&](uint32_t id, const std::string &data) {
        add(at, le(id, 2) + le(data.size(), 2) + data);
    };
    std::string rows;          // cid and interface of the first 7 bearer reports
    int urcs = 0, at_bit = 0;  // the URC seeds so far; 2 once an AT line or name was sent
    const auto urc_seed = [&](const std::string &text) {  // kind and sim 0
        save(out / "urc", name + "-" + std::to_string(++urcs),
             le((flags & kEpdg ? 1 : 0) | at_bit, 1) + le(rows.size() / 2, 1) + rows + le(0, 8) +
                     text);
    };
    for (const dm::sim::Step &s : sc.steps) {
        const bool on = s.op == Op::Property && s.value == "1";
        if (on && s.text == "persist.qpx_epdg_support") flags |= kEpdg;
        if (on && s.text == "ro.qpx_multiple_ims_support") flags |= kMultiIms;
        if (s.op == Op::Property && s.text.starts_with("net.ipv6.")) flags |= kPrefixes;
        if (s.op == Op::RilAuto) flags |= kRilAnswers;
        if (s.op == Op::Urc) urc_seed(s.text);
        if (s.op == Op::Announce)  // the name in a field of 132 bytes
            add(events, event_step(s.peer, EVENT_DATAMNGR_NOTIFICATION,
                                   s.text + std::string(132 - s.text.size(), '\0')));
        if (s.op == Op::At || s.op == Op::AtRegister) {  // the text and its NUL
            at_step(s.op == Op::At ? EVENT_DATAMNGR_ATCMD_REQ : EVENT_DATAMNGR_ATCMD_REGISTER,
                    s.text + (s.op == Op::At ? "\r" : "") + '\0');
            at_bit = 2;
        }
        if (s.op != Op::Send) continue;
        const std::vector<uint8_t> built = s.payload.build();
        const std::string payload(built.begin(), built.end());
        if (s.target == TASK_DATAMNGR_DATI_HDL) at_step(s.event_id, payload);
        if (s.target != TASK_DATAMNGR) continue;
        add(events, event_step(s.peer, s.event_id, payload));
        const bool bearer = s.event_id == EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC;
        if (bearer && payload.size() > 16 && rows.size() < 14) rows += {payload[16], payload[8]};
        if (s.event_id == EVENT_ATMNGR_URC && payload.size() == sizeof(AtUrc))
            urc_seed(reinterpret_cast<const AtUrc *>(payload.data())->text);
    }
    for (auto [target, seeds] : {std::pair{"dispatcher", &events}, {"dati", &at}})
        for (size_t i = 0; i < seeds->size(); ++i)
            save(out / target, name + "-" + std::to_string(i + 1), le(flags, 1) + (*seeds)[i]);
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: make_seeds <corpus dir> <scenario file>...\n");
        return 2;
    }
    for (int i = 2; i < argc; ++i)
        if (!seeds_of(argv[i], argv[1])) return 1;
    const std::filesystem::path netlink = std::filesystem::path(argv[1]) / "netlink";
    const uint8_t link_local[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const uint8_t global[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 5};
    save(netlink, "dump", le(kNlParse | kNlReceive, 1) + address(link_local) + address(global));
    // Of type RTM_NORA (110): the kernel tells that no router advertisement came.
    save(netlink, "no_ra", le(kNlNoRa | kNlParse, 1) + address(link_local, 110));
    return 0;
}
