// dmsim's scenario language: the record table (dotted field paths, the
// values a scenario may write, the event -> record map against the data
// manager's own length table) and the parser, with the refusal of malformed
// scenarios, field paths among them, naming the line and what was expected.
#include <gtest/gtest.h>

#include <algorithm>

#include "evfw_ids.h"
#include "pdn/pdn_info.h"
#include "sim/records.h"
#include "sim/scenario.h"

namespace {

using namespace dm::sim;
using Bytes = std::vector<uint8_t>;

TEST(Records, FieldPathsResolveToTheWireOffsets) {
    // Offsets written out from the wire layout, not taken from the structs:
    // a field, an array's last entry, a nested record, an array in one.
    const std::tuple<const char *, const char *, size_t, size_t, Kind> cases[] = {
            {"SetupDataCallReq", "sim_id", 700, 1, Kind::U8},
            {"SetupDataCallResp", "ipv6_addr", 160, 16, Kind::Ipv6},
            {"SetupDataCallResp", "calls.10.interface_id", 252 + 10 * 3956 + 4, 4, Kind::U32},
            {"SetupDataCallResp", "extra_call.cid", 43772 + 12, 4, Kind::I32},
            {"DataCallListInd", "resp.calls.1.primary_cid", 4 + 252 + 3956 + 8, 4, Kind::U32},
            {"AtCmdResp", "text", 20, 4096, Kind::Text},
            {"PdnInfo", "owner", offsetof(PdnInfo, owner), sizeof(void *), Kind::Ptr}};
    for (const auto &[record, path, offset, size, kind] : cases) {
        FieldRef f;
        std::string err;
        ASSERT_TRUE(resolve_field(*find_record(record), path, f, err)) << err;
        EXPECT_EQ(std::tuple(f.offset, f.size, f.kind), std::tuple(offset, size, kind)) << path;
    }
}

TEST(Records, ValuesEncodeLittleEndianOrAreRefused) {
    // kind, field size, text, quoted, bytes (none: refused)
    const std::tuple<Kind, size_t, const char *, bool, Bytes> cases[] = {
            {Kind::U32, 4, "4003", false, {0xa3, 0x0f, 0, 0}},
            {Kind::U32, 4, "-7", false, {0xf9, 0xff, 0xff, 0xff}},
            {Kind::I32, 4, "4294967295", false, {0xff, 0xff, 0xff, 0xff}},
            {Kind::U32, 4, "4294967296", false, {}},
            {Kind::U32, 4, "7", true, {}},
            {Kind::U32, 4, "hex:01020304", false, {1, 2, 3, 4}},
            {Kind::Text, 4, "abcde", false, {}},
            {Kind::Bytes, 4, "hex:0a0b", false, {0x0a, 0x0b}},
            {Kind::Ipv4, 4, "10.0.0.1", false, {10, 0, 0, 1}},
            {Kind::Ipv6, 16, "2001:db8::g", false, {}},
            {Kind::Ptr, 8, "set", false, {1}},
            {Kind::Ptr, 8, "0", false, {}}};
    for (const auto &[kind, size, text, quoted, bytes] : cases) {
        Bytes out;
        std::string err;
        EXPECT_EQ(encode_value(kind, size, text, quoted, out, err) ? out : Bytes{}, bytes) << text;
    }
    const uint8_t field[8] = {'i', 'm', 's', 0, 'x', 0, 0, 0};
    EXPECT_TRUE(value_matches(Kind::Text, field, 8, {'i', 'm', 's'}));
    EXPECT_FALSE(value_matches(Kind::Text, field, 8, {'i', 'm'}));
    EXPECT_FALSE(value_matches(Kind::Bytes, field, 3, {'i', 'm'})) << "bytes want zeros after";
    EXPECT_TRUE(value_matches(Kind::Ptr, field, 8, {1}));
    EXPECT_EQ(format_value(Kind::U32, Bytes{0xf9, 0xff, 0xff, 0xff}.data(), 4), "-7");
    EXPECT_EQ(format_value(Kind::Text, field, 8), "\"ims\"");
    EXPECT_EQ(format_value(Kind::Ptr, field + 5, 3), "null");
}

TEST(Parser, StepsBuildTheirRecordsFieldByFieldOverZeros) {
    Scenario sc;
    std::string err;
    const char *text =
            "# comment\n"
            "client ims_test\n"
            "iface pdnet4 2001:db8::1/64 2001:db8::2\n"
            "iface-ra pdnet5 2001:db8:5:0::/64\n"
            "send imsm_2 4003 apn=\"my apn\" interface_id=4 sim_id=2 @652:u8=0x7f\n"
            "send rb1 to dati 4065 text=\"AT\\r\"\n"
            "send ims_test 4003 len=8 @0=5\n"
            "expect-log count=2 a  b\\x21\n"
            "ril answer * pdp_type=2 calls.0.cid=9\n"
            "expect-pdn -1 owner=null\n";
    ASSERT_TRUE(parse_scenario("t.scn", text, sc, err)) << err;
    ASSERT_EQ(sc.steps.size(), 6u);
    EXPECT_EQ(sc.steps[0].line, 5);
    SetupDataCallReq req;
    ASSERT_EQ(sc.steps[0].payload.build().size(), sizeof(req));
    std::ranges::copy(sc.steps[0].payload.build(), reinterpret_cast<uint8_t *>(&req));
    EXPECT_EQ(std::tuple(std::string(req.apn), req.interface_id, req.sim_id, req.opaque_652[0]),
              std::tuple(std::string("my apn"), 4u, uint8_t{2}, uint8_t{0x7f}));
    EXPECT_EQ(sc.steps[1].target, uint32_t{TASK_DATAMNGR_DATI_HDL});
    EXPECT_EQ(sc.steps[1].payload.build(), (Bytes{'A', 'T', '\r', 0}));
    EXPECT_EQ(sc.steps[2].payload.build(), (Bytes{5, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(std::tuple(sc.steps[3].count, sc.steps[3].text), std::tuple(2, std::string("a  b!")));
    EXPECT_EQ(std::tuple(sc.steps[4].iface, sc.steps[4].payload.assigns.size()),
              std::tuple(-1, 2ul));
    EXPECT_EQ(std::tuple(sc.steps[5].op, sc.steps[5].cid), std::tuple(Op::ExpectPdn, -1));
    EXPECT_EQ(sc.clients, (std::vector<std::string>{"ims_test", "imsm_2"}));
    EXPECT_EQ(std::tuple(sc.ifaces.at(0).addrs.at(1).prefix_len, sc.ifaces.at(1).ra_prefix),
              std::tuple(64, std::string("2001:db8:5::")));
}

TEST(Parser, MalformedScenariosAreRefusedNamingTheLineAndWhatWasExpected) {
    // Each is refused at its last line.
    const std::pair<std::string_view, const char *> cases[] = {
            {"sned imsm_0 4003\n", "unknown step 'sned'; expected one of:"},
            {"\n\nsend imsm9 4003\n", "unknown peer 'imsm9'; expected a task"},
            {"send 402 4003\n", "'402' is a task of the data manager"},
            {"send imsm_0 EVENT_NOPE\n", "expected an event id"},
            {"send imsm_0 4003 apn=\"ims\n", "unterminated double quote"},
            {"send imsm_0 4003 interface_id=four\n", "interface_id: expected an integer"},
            {"expect imsm_0 4004 cid=1\n", "SetupDataCallResp has no field 'cid' (fields:"},
            {"expect imsm_0 4004 calls.11.cid=1\n", "'calls' is an array of 11 DataCallEntry"},
            {"expect imsm_0 4004 calls.2=1\n", "'calls.2' is a DataCallEntry record: name"},
            {"expect imsm_0 4004 status.x=1\n", "'status' is a u32, not a record"},
            {"send imsm_0 4003 SetupDataCallResp len=8\n", "len=8 contradicts"},
            {"send imsm_0 4013\n", "event 4013 has no record by default"},
            {"send imsm_0 4032 len=8 @6=1\n", "@6 lies beyond the payload of 8 bytes"},
            {"send imsm_0 to rildproxy 4003\n", "expected a task of the data manager"},
            {"announce rb0\n", "expected announce <peer> <name>"},
            {"expect-log count=x hello\n", "expected expect-log count=<n>"},
            {"expect-pdn x active=1\n", "expected expect-pdn <cid>"},
            {"ril maybe\n", "expected ril auto | ril off"},
            {"urc +CGEV\\q\n", "unknown escape \\q"},
            {"expect-none rb0\niface-ra pdnet4 2001:db8::/64\n", "an interface is declared"},
            {"iface-ra pdnet4 2001:db8::/56\n", "expected a /64 prefix"},
            {"iface-ra pdnet4 2001:db8::1/64\n", "expected a prefix whose last 64 bits"},
            {"iface-ra pdnet4 fe80::/64\n", "expected a global or unique-local prefix"},
            {"iface a ::1\niface-ra a 2001:db8::/64\n", "interface a is declared twice"},
            {"iface a ::1\nexpect imsm_0 4048 ipv6_addr=slaac:a\n",
             "ipv6_addr: 'slaac:a' names no interface declared with iface-ra"},
            {"client rildproxy\n", "'rildproxy' names a task"},
            {"# nothing\n", "the scenario has no steps"}};
    for (auto [text, error] : cases) {
        Scenario sc;
        std::string err;
        const std::string line = "t.scn:" + std::to_string(std::ranges::count(text, '\n')) + ": ";
        EXPECT_TRUE(!parse_scenario("t.scn", text, sc, err) && err.starts_with(line + error))
                << text << err;
    }
}

}  // namespace
