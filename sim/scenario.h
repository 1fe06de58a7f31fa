// Scenario files of dmsim: a small line-oriented script of steps (peers
// announcing themselves, events sent field by field, a scripted RIL proxy,
// AT lines, modem URCs) and of expectations on what the peers receive and
// what the data manager logs.  The format is described in
// scenarios/README.md; the parser is strict: every error names the file,
// the line and what was expected there.
#ifndef DM_SIM_SCENARIO_H
#define DM_SIM_SCENARIO_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "sim/records.h"

namespace dm::sim {

// A peer of the data manager: a simulated task (by task id) or an external
// client (by name).
struct PeerRef {
    uint32_t task_id = 0;  // 0 for a client
    std::string client;

    bool is_client() const { return task_id == 0; }
    std::string label() const;
};

// One field given in a step: a named field of the record or a raw offset.
struct Assign {
    FieldRef field;
    std::vector<uint8_t> value;
    // A value slaac:IFACE: the address the kernel configures on that
    // RA-configured interface, written into `value` once it is known
    // (enter_scenario_netns).
    std::string slaac;
};

// A payload written in a step: its record, its length and the fields given.
struct Payload {
    const RecordDesc *record = nullptr;  // nullptr: raw bytes only
    size_t len = 0;                      // bytes (for a text record: computed)
    bool len_given = false;
    bool record_given = false;
    std::vector<Assign> assigns;

    // The bytes: zeros with the fields written in.  A text record is its
    // text and a NUL.
    std::vector<uint8_t> build() const;
};

enum class Op {
    Property,
    Announce,
    Send,
    RilAuto,
    RilOff,
    RilAnswer,
    RilReply,
    RilIgnore,
    At,
    AtRegister,
    Urc,
    Expect,
    ExpectNone,
    ExpectAt,
    ExpectUrc,
    ExpectLog,
    ExpectNoLog,
    ExpectPdn,
};

struct Step {
    Op op = Op::Property;
    int line = 0;
    std::string source;  // the line as written
    PeerRef peer;
    uint32_t target = 0;    // Send: the data manager's task
    uint32_t event_id = 0;  // Send, Expect, ExpectNone (0: any), RilReply/RilIgnore: request
    uint32_t reply_id = 0;  // RilReply: answer
    int32_t iface = -1;     // RilAnswer: interface, -1 for all
    int32_t cid = 0;        // ExpectPdn: the cid whose PDN row is checked
    Payload payload;
    std::string text;   // AT line, URC line, log text, property key, announced name
    std::string value;  // property value
    int count = -1;     // ExpectLog: exact number of lines, -1 for at least one
};

struct IfaceAddr {
    std::string addr;  // IPv6 text
    int prefix_len = 64;
};

struct IfaceDecl {
    int line = 0;
    std::string name;
    std::vector<IfaceAddr> addrs;
    // iface-ra: the /64 prefix a router on the interface's far end
    // advertises ("2001:db8:4::"), from which the kernel configures the
    // address itself; empty for an interface with the addresses given.
    std::string ra_prefix;
};

struct Scenario {
    std::string file;
    std::string title;
    std::vector<IfaceDecl> ifaces;
    std::vector<std::string> clients;  // in order of first mention
    std::vector<Step> steps;

    bool is_expectation(const Step &s) const;
};

// Parses a scenario file; false with "file:line: ..." in `error`.
bool parse_scenario_file(const std::string &path, Scenario &out, std::string &error);
// Parses scenario text; `name` stands for the file in messages.
bool parse_scenario(std::string_view name, std::string_view text, Scenario &out,
                    std::string &error);

// Names of ids, for scenarios and output.
bool event_id_by_name(std::string_view token, uint32_t &id);

}  // namespace dm::sim

#endif  // DM_SIM_SCENARIO_H
