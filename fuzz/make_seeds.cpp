// Writes the fuzz targets' seed corpora from the scenario files, so that the
// fuzzers start from every flow the tests and the shipped scenarios play:
//     make_seeds <corpus dir> <scenario file>...
// Each scenario gives dispatcher seeds (its announcements and sends to the
// main task), AT seeds (its AT lines and registrations), both cut into runs
// of steps that fit kMaxLen, and a URC seed per URC line (over the PDN rows
// its bearer reports made); the netlink seeds are two address dumps and a
// no-RA message.
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "dati/dati.h"
#include "fuzz/fuzz.h"
#include "sim/scenario.h"

namespace {

using namespace dm::fuzz;
using dm::sim::Op;
using Bytes = std::vector<uint8_t>;

struct Writer {
    Bytes out;
    Writer &u8(uint8_t v) { return out.push_back(v), *this; }
    Writer &u16(uint16_t v) { return u8(v & 0xff).u8(v >> 8); }
    Writer &u32(uint32_t v) { return u16(v & 0xffff).u16(v >> 16); }
    Writer &bytes(const void *p, size_t n) {
        out.insert(out.end(), static_cast<const uint8_t *>(p), static_cast<const uint8_t *>(p) + n);
        return *this;
    }
};

uint8_t sender_of(const dm::sim::PeerRef &p) {
    if (p.task_id == TASK_RILDPROXY) return 0;
    if (p.client == "imsm_0") return 1;
    if (p.client.starts_with("imsm_")) return 2;
    if (p.task_id >= TASK_RB_SIM0 && p.task_id <= TASK_RB_SIM3) return 4;
    if (p.task_id == TASK_ATMNGR) return 5;
    return 3;
}

// A dispatcher step: the payload's non-zero runs as patches over zeros.
Bytes event_step(uint8_t from, uint32_t id, const Bytes &payload) {
    Writer w;
    w.u8(from).u8(kRawId).u16(static_cast<uint16_t>(id));
    w.u8(kRawLen).u16(static_cast<uint16_t>(payload.size())).u8(0);
    std::vector<std::pair<size_t, size_t>> runs;
    for (size_t i = 0; i < payload.size() && runs.size() < kMaxPatches - 1; ++i) {
        if (payload[i] == 0) continue;
        size_t end = i;
        while (end < payload.size() && end - i < 255 && payload[end] != 0) ++end;
        runs.emplace_back(i, end - i);
        i = end - 1;
    }
    w.u8(static_cast<uint8_t>(runs.size()));
    for (auto [at, len] : runs)
        w.u16(static_cast<uint16_t>(at)).u8(static_cast<uint8_t>(len)).bytes(&payload[at], len);
    return w.out;
}

// An AT target step.
Bytes at_step(uint16_t id, const void *data, uint16_t len) {
    return Writer().u16(id).u16(len).bytes(data, len).out;
}

void save(const std::filesystem::path &dir, const std::string &name, const Bytes &data) {
    std::filesystem::create_directories(dir);
    std::ofstream(dir / name, std::ios::binary)
            .write(reinterpret_cast<const char *>(data.data()),
                   static_cast<std::streamsize>(data.size()));
}

// The steps after the setup flags, as many to a seed as fit kMaxLen (a
// longer step alone).
void save_cut(const std::filesystem::path &dir, const std::string &name, uint8_t flags,
              const std::vector<Bytes> &steps) {
    int n = 0;
    for (size_t i = 0; i < steps.size();) {
        Writer seed{{flags}};
        do {
            seed.bytes(steps[i].data(), steps[i].size());
        } while (++i < steps.size() && seed.out.size() + steps[i].size() <= kMaxLen);
        save(dir, name + "-" + std::to_string(++n), seed.out);
    }
}

void seeds_of(const dm::sim::Scenario &sc, const std::filesystem::path &out,
              const std::string &name) {
    uint8_t flags = kAnnounceRil | kAnnounceClients;
    std::vector<Bytes> events, at;
    std::vector<std::pair<uint8_t, uint8_t>> rows;  // cid, interface of bearer reports
    bool at_seen = false;
    int urcs = 0;
    auto urc_seed = [&](const std::string &text) {
        Writer urc;
        urc.u8((flags & kEpdg ? 1 : 0) | (at_seen ? 2 : 0)).u8(std::min<size_t>(rows.size(), 7));
        for (size_t i = 0; i < rows.size() && i < 7; ++i) urc.u8(rows[i].first).u8(rows[i].second);
        urc.u32(0).u32(0).bytes(text.data(), text.size());
        save(out / "urc", name + "-" + std::to_string(++urcs), urc.out);
    };
    for (const dm::sim::Step &s : sc.steps) {
        if (s.op == Op::RilAuto) flags |= kRilAnswers;
        if (s.op == Op::Property) {
            const bool on = s.value == "1";
            if (on && s.text == "persist.qpx_epdg_support") flags |= kEpdg;
            if (on && s.text == "ro.qpx_multiple_ims_support") flags |= kMultiIms;
            if (s.text.starts_with("net.ipv6.")) flags |= kPrefixes;
        }
        if (s.op == Op::Announce) {
            Bytes name_field(132, 0);
            memcpy(name_field.data(), s.text.data(), s.text.size());
            events.push_back(
                    event_step(sender_of(s.peer), EVENT_DATAMNGR_NOTIFICATION, name_field));
        } else if (s.op == Op::Send && s.target == TASK_DATAMNGR) {
            const Bytes payload = s.payload.build();
            events.push_back(event_step(sender_of(s.peer), s.event_id, payload));
            if (s.event_id == EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC && payload.size() > 16)
                rows.emplace_back(payload[16], payload[8]);
            if (s.event_id == EVENT_ATMNGR_URC && payload.size() == sizeof(AtUrc))
                urc_seed(reinterpret_cast<const AtUrc *>(payload.data())->text);
        } else if (s.op == Op::Send && s.target == TASK_DATAMNGR_DATI_HDL) {
            const Bytes payload = s.payload.build();
            at.push_back(at_step(s.event_id, payload.data(), payload.size()));
        } else if (s.op == Op::At || s.op == Op::AtRegister) {
            const bool line = s.op == Op::At;
            const std::string text = line ? s.text + "\r" : s.text;
            at.push_back(at_step(line ? EVENT_DATAMNGR_ATCMD_REQ : EVENT_DATAMNGR_ATCMD_REGISTER,
                                 text.c_str(), text.size() + 1));
            at_seen = true;
        } else if (s.op == Op::Urc) {
            urc_seed(s.text);
        }
    }
    save_cut(out / "dispatcher", name, flags, events);
    save_cut(out / "dati", name, flags, at);
}

// An RTM_NEWADDR message with one IPv6 address.
void put_address(Writer &w, const uint8_t (&addr)[16], uint16_t type = RTM_NEWADDR) {
    const nlmsghdr hdr = {NLMSG_LENGTH(sizeof(ifaddrmsg)) + RTA_LENGTH(16), type, 0, 0, 0};
    const ifaddrmsg ifa = {AF_INET6, 64, 0, 0, 1};
    const rtattr rta = {RTA_LENGTH(16), IFA_ADDRESS};
    w.bytes(&hdr, sizeof(hdr)).bytes(&ifa, sizeof(ifa)).bytes(&rta, sizeof(rta)).bytes(addr, 16);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: make_seeds <corpus dir> <scenario file>...\n");
        return 2;
    }
    const std::filesystem::path out = argv[1];
    for (int i = 2; i < argc; ++i) {
        dm::sim::Scenario sc;
        std::string error;
        if (!dm::sim::parse_scenario_file(argv[i], sc, error)) {
            std::fprintf(stderr, "make_seeds: %s\n", error.c_str());
            return 1;
        }
        const std::filesystem::path p = argv[i];
        seeds_of(sc, out, p.parent_path().filename().string() + "-" + p.stem().string());
    }
    const uint8_t link_local[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const uint8_t global[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 5};
    Writer dump, no_ra;
    dump.u8(kNlParse | kNlReceive);
    put_address(dump, link_local);
    put_address(dump, global);
    no_ra.u8(kNlNoRa | kNlParse);
    put_address(no_ra, link_local, 110);
    save(out / "netlink", "dump", dump.out);
    save(out / "netlink", "no_ra", no_ra.out);
    return 0;
}
