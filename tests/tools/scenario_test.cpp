// The scenario parser of dmsim: what a well-formed scenario becomes, and the
// refusal of malformed ones with the file, the line and what was expected.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "evfw_ids.h"
#include "pdn/pdn_records.h"
#include "tools/dmsim/scenario.h"

namespace {

using namespace dmsim;

Scenario parse_ok(const std::string &text) {
    Scenario sc;
    std::string err;
    EXPECT_TRUE(parse_scenario("t.scn", text, sc, err)) << err;
    return sc;
}

TEST(ScenarioTest, SendBuildsTheRecordFieldByFieldOverZeros) {
    Scenario sc = parse_ok(
            "# comment\n"
            "send imsm_2 4003 apn=\"my apn\" interface_id=4 sim_id=2 @652:u8=0x7f\n");
    ASSERT_EQ(sc.steps.size(), 1u);
    const Step &s = sc.steps[0];
    EXPECT_EQ(s.line, 2);
    EXPECT_EQ(s.peer.client, "imsm_2");
    EXPECT_EQ(s.target, static_cast<uint32_t>(TASK_DATAMNGR));
    std::vector<uint8_t> b = s.payload.build();
    ASSERT_EQ(b.size(), sizeof(SetupDataCallReq));
    SetupDataCallReq req;
    std::memcpy(&req, b.data(), sizeof(req));
    EXPECT_STREQ(req.apn, "my apn");
    EXPECT_EQ(req.interface_id, 4u);
    EXPECT_EQ(req.sim_id, 2);
    EXPECT_EQ(req.opaque_652[0], 0x7f);
    EXPECT_EQ(req.ims_para_valid, 0u);
    EXPECT_EQ(sc.clients, std::vector<std::string>{"imsm_2"});
}

TEST(ScenarioTest, PeersTargetsLengthsAndTextSteps) {
    Scenario sc = parse_ok(
            "client ims_test\n"
            "send rb1 to dati 4065 text=\"AT\\r\"\n"
            "send ims_test 4003 len=8 @0=5\n"
            "at AT+CGDCONT=1,\"IP\",\"x\"\n"
            "expect-log count=2 a  b\\x21\n"
            "expect-none rildproxy\n"
            "ril answer * pdp_type=2 calls.0.cid=9\n"
            "ril reply 4032 4034 word0=1\n");
    ASSERT_EQ(sc.steps.size(), 7u);
    EXPECT_EQ(sc.steps[0].peer.task_id, static_cast<uint32_t>(TASK_RB_SIM1));
    EXPECT_EQ(sc.steps[0].target, static_cast<uint32_t>(TASK_DATAMNGR_DATI_HDL));
    EXPECT_EQ(sc.steps[0].payload.build(), (std::vector<uint8_t>{'A', 'T', '\r', 0}));
    EXPECT_EQ(sc.steps[1].payload.build(), (std::vector<uint8_t>{5, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(sc.steps[2].text, "AT+CGDCONT=1,\"IP\",\"x\"");
    EXPECT_EQ(sc.steps[3].count, 2);
    EXPECT_EQ(sc.steps[3].text, "a  b!");
    EXPECT_EQ(sc.steps[4].event_id, 0u);
    EXPECT_EQ(sc.steps[5].iface, -1);
    EXPECT_EQ(sc.steps[5].payload.assigns.size(), 2u);
    EXPECT_EQ(sc.steps[6].reply_id, static_cast<uint32_t>(EVENT_DATAMNGR_RADIO_POWER_RESP));
    EXPECT_EQ(sc.clients, std::vector<std::string>{"ims_test"});
}

TEST(ScenarioTest, InterfacesAreDeclaredWithTheirAddresses) {
    Scenario sc = parse_ok("iface pdnet4 2001:db8::1/64 2001:db8::2\nexpect-none rb0\n");
    ASSERT_EQ(sc.ifaces.size(), 1u);
    EXPECT_EQ(sc.ifaces[0].name, "pdnet4");
    ASSERT_EQ(sc.ifaces[0].addrs.size(), 2u);
    EXPECT_EQ(sc.ifaces[0].addrs[1].prefix_len, 64);
}

struct BadCase {
    const char *text;
    const char *error;  // the whole message starts with "t.scn:<line>: "
};

class MalformedScenarioTest : public ::testing::TestWithParam<BadCase> {};

TEST_P(MalformedScenarioTest, IsRefusedNamingTheLineAndWhatWasExpected) {
    Scenario sc;
    std::string err;
    EXPECT_FALSE(parse_scenario("t.scn", GetParam().text, sc, err));
    EXPECT_EQ(err.rfind(GetParam().error, 0), 0u) << err;
}

INSTANTIATE_TEST_SUITE_P(
        Parser, MalformedScenarioTest,
        ::testing::Values(
                BadCase{"sned imsm_0 4003\n", "t.scn:1: unknown step 'sned'; expected one of:"},
                BadCase{"\n\nsend imsm9 4003\n", "t.scn:3: unknown peer 'imsm9'; expected a task"},
                BadCase{"send 402 4003\n", "t.scn:1: '402' is a task of the data manager"},
                BadCase{"send imsm_0 EVENT_NOPE\n", "t.scn:1: expected an event id"},
                BadCase{"send imsm_0 4003 apn=\"ims\n", "t.scn:1: unterminated double quote"},
                BadCase{"send imsm_0 4003 cid=1\n", "t.scn:1: SetupDataCallReq has no field 'cid'"},
                BadCase{"send imsm_0 4003 interface_id=four\n",
                        "t.scn:1: interface_id: expected an integer"},
                BadCase{"send imsm_0 4003 len=703 Bogus\n",
                        "t.scn:1: expected a field name=value, found 'Bogus'"},
                BadCase{"send imsm_0 4003 SetupDataCallResp len=8\n",
                        "t.scn:1: len=8 contradicts SetupDataCallResp"},
                BadCase{"send imsm_0 4013\n", "t.scn:1: event 4013 has no record by default"},
                BadCase{"send imsm_0 4032 len=8 @6=1\n",
                        "t.scn:1: @6 lies beyond the payload of 8 bytes"},
                BadCase{"send imsm_0 to rildproxy 4003\n",
                        "t.scn:1: expected a task of the data manager after 'to'"},
                BadCase{"announce rb0\n", "t.scn:1: expected announce <peer> <name>"},
                BadCase{"expect imsm_0\n", "t.scn:1: expected expect <peer> <event>"},
                BadCase{"expect-log count=x hello\n", "t.scn:1: expected expect-log count=<n>"},
                BadCase{"ril answer 4 status\n", "t.scn:1: expected a field name=value"},
                BadCase{"ril maybe\n", "t.scn:1: expected ril auto | ril off"},
                BadCase{"urc +CGEV\\q\n", "t.scn:1: unknown escape \\q"},
                BadCase{"expect-none rb0\niface pdnet4 2001:db8::1\n",
                        "t.scn:2: iface declares an interface before the run"},
                BadCase{"iface pdnet4 2001:db8::zz\n", "t.scn:1: expected an IPv6 address"},
                BadCase{"client rildproxy\n", "t.scn:1: 'rildproxy' names a task"},
                BadCase{"# nothing\n", "t.scn:1: the scenario has no steps"}));

}  // namespace
