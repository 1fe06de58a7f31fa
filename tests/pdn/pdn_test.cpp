// The PDN subsystem where it is called directly or needs what no peer can
// send: the table's operations and their results, the APN search of a setup
// request, the results other modules read, a parked IMS query, the operator
// hooks, and the DNS command run through a real shell against a fake "ndc".
// Event flows are in the scenario tables beside.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/dm_test.h"
#include "entity/operator_hooks.h"
#include "entity/task_info.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"
#include "pdn/relay.h"

namespace {

using namespace dm_test;

class Pdn : public DmTest {
  protected:
    PdnInfo *up(int32_t cid, uint32_t interface_id, uint32_t primary_cid) {
        DataCallEntry e = {9, interface_id, primary_cid, cid, {0x5a}};
        return update_pdn_info(&e, nullptr);
    }
};

// A cid names a row in 0..15 (cellular) and 100..115 (ePDG) only; searches
// skip free rows and take the cellular table first; clears and the reset
// report 0; the dump (no flow calls it) shows the cellular table.
TEST_F(Pdn, RowsSearchesClearsAndTheDump) {
    for (int32_t cid : {0, 15, 100, 115}) EXPECT_NE(up(cid, 1, cid), nullptr) << cid;
    for (int32_t cid : {-1, 16, 99, 116}) EXPECT_EQ(up(cid, 1, cid), nullptr) << cid;
    EXPECT_EQ(reset_pdn_info(), 0);
    EXPECT_EQ(find_pdn_info_by_cid(0), nullptr);
    // An update keeps what the entry does not carry.
    PdnInfo *cell = up(3, 8, 3), *epdg = up(103, 8, 103);
    strcpy(cell->apn, "internet");
    DataCallEntry e = {7, 8, 3, 3, {1, 2}};
    EXPECT_EQ(update_pdn_info(&e, reinterpret_cast<TaskInfo *>(epdg)), cell);
    EXPECT_EQ(std::tuple(cell->status, std::string(cell->apn), memcmp(&cell->call, &e, sizeof(e)),
                         cell->owner),
              std::tuple(7u, "internet", 0, reinterpret_cast<TaskInfo *>(epdg)));
    up(6, 9, 5);  // a dedicated bearer only
    EXPECT_EQ(std::tuple(get_interface_by_cid(4), find_pdn_info_by_interface(9)),
              std::tuple(UINT32_MAX, nullptr));
    epdg->cid = 3;  // the same cid in both tables
    EXPECT_EQ(find_pdn_info_by_cid(3), cell);
    cell->active = 0;
    EXPECT_EQ(std::tuple(find_pdn_info_by_cid(3), find_pdn_info_by_apn(nullptr)),
              std::tuple(epdg, nullptr));
    cell->active = 1;
    EXPECT_EQ(values({clear_pdn_info_by_if_type(8, 3), clear_pdn_info_by_cid(4),
                      count("clear_pdn_info_by_cid"), cell->active, epdg->active}),
              "0 0 0 1 1");
    memset(find_pdn_info_by_index(2)->apn, 'a', 128);  // read within its field
    dump_pdn_info();
    auto lines = h.logs_containing("PDN info ");
    ASSERT_EQ(lines.size(), 16u);
    EXPECT_EQ(log_body(lines[2]),
              "PDN info 2 active 0 " + std::string(128, 'a') + " interface id 0 cid 0\n");
    EXPECT_EQ(log_body(lines[3]), "PDN info 3 active 1 internet interface id 8 cid 3\n");
    EXPECT_EQ(values({clear_pdn_info_by_cid(3), clear_pdn_info_by_if_type(9, 1), cell->active,
                      epdg->active, find_pdn_info_by_cid(6) != nullptr}),
              "0 0 0 0 0");
}

// No flow fills a row's APN; a row whose APN is known is marked active on the
// interface of a setup request for it.
TEST_F(Pdn, SetupRequestMarksTheRowOfItsApn) {
    h.announce_ril();
    PdnInfo *row = find_pdn_info_by_index(110);
    memset(row->apn, 'n', sizeof(row->apn));  // compared within the field
    row->active = 1;
    Bytes req(704);
    memset(req.data() + 256, 'n', 128);
    auto setup = [&](uint8_t interface_id, char apn_byte) {
        req[648] = interface_id, req[300] = apn_byte;
        h.send_bytes(h.client("lanmngr"), EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, req);
        return h.pump(), std::tuple(row->interface_id, row->active);
    };
    EXPECT_EQ(setup(7, 'n'), std::tuple(7u, 1u));
    EXPECT_EQ(setup(8, 'x'), std::tuple(7u, 1u));  // another APN
    row->active = 0;
    EXPECT_EQ(setup(9, 'n'), std::tuple(7u, 0u));  // a free row is never found
    EXPECT_EQ(payloads(TASK_RILDPROXY, 4003).size(), 3u);
}

// Handlers whose results the dispatcher ignores still give them to the other
// modules that call them (the AT command interface, the +CGEV handlers).
TEST_F(Pdn, HandlersTellWhetherTheyActed) {
    h.announce_ril();
    SetupFailInd fail_ind = {5, 0};
    EXPECT_EQ(dm_setup_data_call_fail_ind(&fail_ind, nullptr), -1);
    evfw_event_t *event = evfw_event_alloc(nullptr);
    for (int32_t r : {0, -1}) {  // the failed answer needs an event of its own
        std::string error;
        EXPECT_TRUE(r == 0 || h.rt().add_fault("evfw_event_alloc:1", error)) << error;
        rild_req_interface_id = 4;
        EXPECT_EQ(dm_setup_data_call_fail_ind(&fail_ind, event), r);
    }
    DeactivateReq cid3 = {3, 0, {}}, none = {UINT32_MAX, 0, {}};
    EXPECT_EQ(dm_deactivate_data_call_req(&cid3, event), -1);
    EXPECT_EQ(dm_deactivate_data_call_if_req(&none, event), -1);
    up(3, 6, 3);
    EXPECT_EQ(dm_deactivate_data_call_req(&cid3, event), 0);
    EXPECT_EQ(dm_handover_resp(nullptr, event), 0);
    // Nothing to do (RB without ePDG support, IMS parameters for a non-IMS
    // interface) is no failure.
    EXPECT_EQ(dm_send_to_rb(&cid3, 12, event, EVENT_RB_SETUP_DATA_CALL_CNF, 1), 0);
    auto req = std::make_unique<SetupDataCallReq>();
    for (uint32_t interface_id : {6u, 4u}) {
        req->interface_id = interface_id;
        EXPECT_EQ(dm_add_ims_para(req.get()), 0);
    }
    EXPECT_EQ(std::tuple(req->ims_para_valid, ims_para_slot(4)->state), std::tuple(1u, 1u));
    h.clear();
    auto resp = std::make_unique<SetupDataCallResp>();
    resp->active = 1;
    event_set_id(event, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    EXPECT_EQ(dm_setup_data_call_resp(resp.get(), event), 0);
    EXPECT_EQ(logged("[DMGR-ERR] dm_setup_data_call_resp invalid event 4003\n"), 1u);
    // An answer whose requester is unknown fails; one to a legacy requester is
    // dropped, and one to a row of an unknown kind goes nowhere.
    WordPair answer = {};
    EXPECT_EQ(dm_allow_data_resp(&answer, event), -1);
    TaskInfo row = *task_info_row(6);
    EXPECT_EQ(dm_deliver_answer_to(&row, "op", &answer, 8, evfw_event_alloc(nullptr), 4012), 0);
    row.dest = 7;
    EXPECT_EQ(dm_deliver_answer_to(&row, "op", &answer, 8, event, 4012), 0);
    EXPECT_EQ(logged("[DMGR-ERR] op invalid destination 7\n"), 1u);
    EXPECT_TRUE(h.rt().trace().empty());
    evfw_event_free(event);
}

// A query of the IMS manager parked in its slot (state 3, which no flow of
// the data manager enters) is answered when the set-up answer arrives.
TEST_F(Pdn, SetupAnswerReplaysAParkedQuery) {
    h.announce(h.client("imsm_0"));
    h.announce_ril();
    Bytes answer = words(47876, {{12, 4}, {16, 1}, {248, 1}, {256, 4}, {260, 4}, {264, 4}});
    ImsParaSlot *slot = ims_para_slot(4);
    for (bool parked_event : {true, false}) {
        slot->state = kImsSlotQueryParked;
        strcpy(slot->parked_req.req.ifname, "pdnet4");
        slot->parked_req.event =
                parked_event ? evfw_event_alloc(query_task_info_by_name("imsm_0")) : nullptr;
        h.send_bytes(h.ril(), EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, answer);
        h.pump();
        EXPECT_EQ(std::tuple(slot->state, slot->parked_req.event),
                  std::tuple(kImsSlotResponseStored, nullptr));
    }
    // The replay runs before the answer's rows reach the table.
    auto sent = h.sent_to(h.client("imsm_0").id(), EVENT_DATAMNGR_GET_IMS_PDN_RESP);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(record_of<SetupDataCallResp>(sent[0]).status, 1u);
    EXPECT_EQ(logged("[DMGR-ERR] dm_setup_data_call_resp interface id 4 parked query"), 1u);
}

// A rejected setup is answered through the own queue as a failure; an
// accepted one goes on, and the answer and teardown hooks see the flows.
TEST_F(Pdn, OperatorHooks) {
    static int calls[3], verdict = 1;
    OperatorHooks hooks = {};
    hooks.setup_req_check = [](SetupDataCallReq *, evfw_event_t *) { return ++calls[0], verdict; };
    hooks.setup_resp = [](SetupDataCallResp *r, evfw_event_t *) {
        return calls[1] += r->status == 0, 0;
    };
    hooks.deactivate = [](DeactivateReq *r, evfw_event_t *) { return calls[2] += r->cause, 0; };
    dm_set_operator_hooks(&hooks);
    h.rt().set_property("persist.qpx_epdg_support", "1");
    h.announce_ril();
    auto req = std::make_unique<SetupDataCallReq>();
    req->sim_id = 3;
    EXPECT_EQ(dm_setup_data_call_req(req.get(), nullptr), 0);
    h.pump();
    EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());
    auto to_rb = h.sent_to(TASK_RB_SIM3, EVENT_RB_SETUP_DATA_CALL_CNF);
    ASSERT_EQ(to_rb.size(), 1u);
    auto answer = record_of<SetupDataCallResp>(to_rb[0]);
    EXPECT_EQ(std::tuple(answer.status, answer.active, answer.sim_id, answer.sim_byte),
              std::tuple(1u, 0u, 3u, uint8_t{3}));
    verdict = 0;
    auto &lan = h.client("lanmngr");
    h.send_bytes(lan, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, Bytes(704));
    h.send_bytes(h.ril(), EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, words(47876, {{16, 1}}));
    h.send_bytes(h.ril(), EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, words(47876, {{4, 2}}));
    h.send_bytes(lan, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, Bytes(12));
    h.send_bytes(h.task(TASK_RB_SIM0), EVENT_RB_DEACTIVATE_DATA_CALL_REQ, Bytes(12));
    h.pump();
    // check, successful answers, and the cause of each deactivation relayed
    EXPECT_EQ(std::vector<int>(calls, calls + 3), (std::vector<int>{2, 1, 100}));
    hooks = {};
    h.send_bytes(lan, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, Bytes(704));
    h.pump();
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ).size(), 2u);
}

// ---- DNS -----------------------------------------------------------------------

// A fake "ndc" first on PATH: it records its command line and exits with 3,
// a status that is logged, never returned.
class Dns : public DmTest {
  protected:
    void SetUp() override {
        std::ofstream(dir_ + "/ndc")
                << "#!/bin/sh\necho \"ndc $*\" >> " << dir_ << "/calls\nexit 3\n";
        chmod((dir_ + "/ndc").c_str(), 0755);
        // The library's shell command runs on this thread; no other thread reads the environment.
        setenv("PATH", (dir_ + ":" + path_).c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    }
    void TearDown() override {
        setenv("PATH", path_.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
        std::filesystem::remove_all(dir_);
        DmTest::TearDown();
    }
    std::string calls() const {  // the command lines, one a line
        return (std::stringstream() << std::ifstream(dir_ + "/calls").rdbuf()).str();
    }
    char tmpl_[20] = "/tmp/pdn_ndc_XXXXXX";
    const std::string dir_ = mkdtemp(tmpl_), path_ = getenv("PATH");
};

struct DnsCase {
    bool ipv6;
    uint32_t count;
    const char *servers;  // after "ndc resolver setnetdns 100"
    bool stores_dns2, stores_dns3;
};

// Each family's servers {dns1, dns2, dns3}; IPv4 in the first 4 bytes.
const uint8_t kServers[2][3][16] = {
        {{8, 8, 8, 8}, {8, 8, 4, 4}, {1, 1, 1, 1}},
        {{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
         {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 2, 0x1a, 0x2b, 0xff, 0xfe, 0x3c, 0x4d, 0x5e},
         {}}};
const auto &kV4 = kServers[0], &kV6 = kServers[1];
const uint8_t kAddr[16] = {10, 0, 0, 2, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
#define V6A " 2001:0db8:0000:0000:0000:0000:0000:0001"
#define V6B " fe80:0000:0000:0000:021a:2bff:fe3c:4d5e"

class DnsCases : public Dns, public ::testing::WithParamInterface<DnsCase> {};

TEST_P(DnsCases, CommandLineAndRecord) {
    const DnsCase &c = GetParam();
    const size_t len = c.ipv6 ? 16 : 4;
    const auto &servers = kServers[c.ipv6];
    // The record's slots {addr, count, dns2, dns3} for each family.
    static constexpr size_t kSlots[2][4] = {{296, 380, 388, 405}, {313, 384, 422, 487}};
    const size_t *at = kSlots[c.ipv6];
    Bytes record(kDnsRecordLen + 8, 0xaa), want = record;
    memcpy(&want[at[0]], kAddr, len);
    memcpy(&want[at[1]], &c.count, 4);
    if (c.stores_dns2) memcpy(&want[at[2]], servers[1], len);
    if (c.stores_dns3) memcpy(&want[at[3]], servers[2], len);
    EXPECT_EQ(dm_network_config("pdnet3", c.ipv6, kAddr, servers[0], c.count, servers[1],
                                servers[2], 100, reinterpret_cast<DnsRecord *>(record.data())),
              0);
    const std::string cmd = std::string("ndc resolver setnetdns 100") + c.servers;
    EXPECT_EQ(calls(), cmd + "\n");
    EXPECT_TRUE(record == want);
    EXPECT_EQ(logged("[DMGR-INF] add dns server & dns, ret = (768)"), 1u);
    EXPECT_EQ(logged("[DMGR-ERR] dm_network_config no IPv6 dns addr 0"), c.ipv6 && !c.count);
}

INSTANTIATE_TEST_SUITE_P(
        All, DnsCases,
        ::testing::Values(DnsCase{false, 1, " 8.8.8.8 8.8.4.4", true, false},
                          // IPv4 has no zero-count test: the second server goes out.
                          DnsCase{false, 0, " 8.8.8.8 8.8.4.4", false, false},
                          DnsCase{false, 2, " 8.8.8.8 8.8.4.4 1.1.1.1", true, true},
                          DnsCase{true, 0, V6A, false, false},
                          DnsCase{true, 1, V6A V6B, true, false},
                          DnsCase{true, 2, V6A V6B " 0000:0000:0000:0000:0000:0000:0000:0000", true,
                                  true},
                          // Counts are unsigned: all bits set is above 1.
                          DnsCase{false, UINT32_MAX, " 8.8.8.8 8.8.4.4 1.1.1.1", true, true}));

TEST_F(Dns, WithoutARecordTheCommandStillRunsAndAppendsStayInTheBuffer) {
    dm_network_config("pdnet4", 1, kAddr, kV6[0], 1, kV6[1], kV6[2], -5, nullptr);
    dm_network_config("pdnet4", 0, nullptr, kV4[0], 1, kV4[1], nullptr, 7, nullptr);
    EXPECT_EQ(calls(),
              "ndc resolver setnetdns -5" V6A V6B "\nndc resolver setnetdns 7 8.8.8.8 8.8.4.4\n");
    EXPECT_EQ(logged("[DMGR-ERR] dm_network_config NULL PDN info\n"), 2u);
    // Appends stop at the end of the command's buffer, terminated there or not.
    char cmd[kDnsCmdLen + 16];
    memset(cmd, 'x', sizeof(cmd));
    cmd[kDnsCmdLen - 10] = '\0';
    EXPECT_EQ(append_ipv6_addr(cmd, kV6[1]), 0);
    EXPECT_EQ(append_ipv4_addr(cmd, kV4[0]), 0);  // full: nothing more goes in
    EXPECT_EQ(std::string(cmd + kDnsCmdLen - 10), " fe80:000");
    cmd[kDnsCmdLen - 1] = 'x';
    EXPECT_EQ(append_ipv4_addr(cmd, kV4[0]), 0);
    EXPECT_EQ(std::string(cmd + kDnsCmdLen - 2, cmd + sizeof(cmd)),
              std::string("0\0", 2) + std::string(16, 'x'));
    EXPECT_EQ(std::tuple(append_ipv4_addr(cmd, nullptr), append_ipv6_addr(cmd, nullptr)),
              std::tuple(-1, -1));
}

}  // namespace
