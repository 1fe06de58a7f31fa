// The PDN subsystem where it is called directly or needs what no peer can
// send: the table's operations, the APN search of a setup request, the
// operator hooks, a parked IMS query, and the DNS command run through a real
// shell against a fake "ndc".  Event flows are in the scenario tables beside.
#include <sys/stat.h>

#include <fstream>

#include "common/dm_test.h"
#include "entity/operator_hooks.h"
#include "entity/task_info.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"

namespace {

using namespace dm_test;

class Pdn : public DmTest {
  protected:
    PdnInfo *up(int32_t cid, uint32_t interface_id, uint32_t primary_cid) {
        DataCallEntry e = {9, interface_id, primary_cid, cid, {0x5a}};
        return update_pdn_info(&e, nullptr);
    }
};

TEST_F(Pdn, IndexesNameACellularOrAnEpdgRow) {
    struct {
        int32_t index;
        const PdnInfo *row;
    } cases[] = {{0, find_pdn_info_by_index(0)},
                 {15, find_pdn_info_by_index(0) + 15},
                 {100, find_pdn_info_by_index(100)},
                 {115, find_pdn_info_by_index(100) + 15},
                 {16, nullptr},
                 {99, nullptr},
                 {116, nullptr},
                 {-1, nullptr}};
    ASSERT_TRUE(cases[0].row != nullptr && cases[2].row != nullptr);
    EXPECT_NE(cases[0].row, cases[2].row);
    for (const auto &c : cases) {
        EXPECT_EQ(find_pdn_info_by_index(c.index), c.row) << c.index;
        EXPECT_EQ(logged("[DMGR-WAR] find_pdn_info_by_index fail index " + std::to_string(c.index) +
                         "\n"),
                  c.row == nullptr ? 1u : 0u);
    }
}

TEST_F(Pdn, SearchesSkipFreeRowsAndPreferTheLowestCellularRow) {
    EXPECT_EQ(std::tuple(find_pdn_info_by_apn("ims"), get_interface_by_cid(5)),
              std::tuple(nullptr, UINT32_MAX));
    find_pdn_info_by_index(1)->apn[0] = 'x';  // free: never matches
    PdnInfo *epdg = up(101, 7, 101);
    strcpy(epdg->apn, "x");
    EXPECT_EQ(find_pdn_info_by_apn("x"), epdg);
    PdnInfo *cell = up(3, 7, 3);
    strcpy(cell->apn, "x");
    EXPECT_EQ(std::tuple(find_pdn_info_by_apn("x"), find_pdn_info_by_apn("X"),
                         find_pdn_info_by_apn(nullptr), find_pdn_info_by_interface(7)),
              std::tuple(cell, nullptr, nullptr, cell));
    // A cid in both tables: the cellular row.
    PdnInfo *both = up(5, 8, 5);
    PdnInfo *dedicated = up(105, 9, 104);
    EXPECT_EQ(std::tuple(find_pdn_info_by_cid(5), find_pdn_info_by_cid(105),
                         get_interface_by_cid(105)),
              std::tuple(both, dedicated, 9u));
    // Only a default bearer stands for its interface.
    EXPECT_EQ(find_pdn_info_by_interface(9), nullptr);
    EXPECT_EQ(logged("[DMGR-WAR] find_pdn_info_by_interface fail interface id 9\n"), 1u);
    EXPECT_EQ(find_pdn_info_by_cid(6), nullptr);
    EXPECT_EQ(logged("[DMGR-WAR] find_pdn_info_by_cid fail cid 6\n"), 1u);
    EXPECT_EQ(logged("fail"), 2u);  // the APN search and the cid lookup say nothing
}

TEST_F(Pdn, UpdateWritesTheEntryAndKeepsTheRowsOwnFields) {
    PdnInfo *row = up(4, 2, 4);
    strcpy(row->apn, "ims");
    strcpy(row->ifname, "pdnet2");
    row->prefix_len = 64;
    TaskInfo *owner = reinterpret_cast<TaskInfo *>(row);  // any address will do
    DataCallEntry e = {7, 3, 1, 4, {1, 2}};
    EXPECT_EQ(update_pdn_info(&e, owner), row);
    EXPECT_EQ(std::tuple(row->active, row->status, row->interface_id, row->primary_cid, row->cid),
              std::tuple(1u, 7u, 3u, 1u, 4));
    EXPECT_EQ(row->owner, owner);
    EXPECT_EQ(memcmp(&row->call, &e, sizeof(e)), 0);
    EXPECT_EQ(std::string(row->apn) + row->ifname + std::to_string(row->prefix_len), "imspdnet264");
    EXPECT_EQ(logged("[DMGR-INF] update_pdn_info cid 4, pimary cid 1, interface 3\n"), 1u);
    for (int32_t cid : {20, -3}) {
        e.cid = cid;
        EXPECT_EQ(update_pdn_info(&e, nullptr), nullptr);
        EXPECT_EQ(logged("[DMGR-ERR] update_pdn_info find pdn by index " + std::to_string(cid) +
                         " fail\n"),
                  1u);
    }
}

TEST_F(Pdn, ClearsGoByInterfaceAndTableOrByCidInBothTables) {
    for (auto [cid, iface, primary] :
         {std::tuple{2, 6u, 2u}, {3, 6u, 2u}, {102, 6u, 102u}, {7, 1u, 7u}})
        up(cid, iface, primary);
    EXPECT_EQ(clear_pdn_info_by_if_type(6, 3), 0);
    EXPECT_EQ(find_pdn_info_by_index(2)->active, 1u);
    EXPECT_EQ(clear_pdn_info_by_if_type(6, 1), 0);
    EXPECT_EQ(find_pdn_info_by_index(2)->active + find_pdn_info_by_index(3)->active, 0u);
    EXPECT_EQ(find_pdn_info_by_index(102)->active, 1u);
    EXPECT_EQ(clear_pdn_info_by_if_type(6, 2), 0);
    EXPECT_EQ(std::tuple(find_pdn_info_by_index(102)->cid, find_pdn_info_by_index(7)->active),
              std::tuple(0, 1u));
    up(107, 1, 107);
    up(7, 1, 7);
    EXPECT_EQ(clear_pdn_info_by_cid(107), 0);
    EXPECT_EQ(clear_pdn_info_by_cid(8), 0);
    EXPECT_EQ(logged("clear_pdn_info_by_cid"), 1u);
    EXPECT_EQ(find_pdn_info_by_index(7)->active, 1u);
    // cid 7 in both tables: two rows, two lines.
    find_pdn_info_by_index(108)->active = 1;
    find_pdn_info_by_index(108)->cid = 7;
    clear_pdn_info_by_cid(7);
    EXPECT_EQ(logged("[DMGR-INF] clear_pdn_info_by_cid 7\n"), 2u);
    EXPECT_EQ(find_pdn_info_by_index(108)->cid + find_pdn_info_by_index(7)->cid, 0);
}

TEST_F(Pdn, ResetFreesEveryRowAndDumpShowsTheCellularTable) {
    strcpy(up(1, 3, 1)->apn, "internet");
    memset(find_pdn_info_by_index(2)->apn, 'a', 128);  // no NUL: read within the field
    up(110, 3, 110);
    dump_pdn_info();
    auto lines = h.logs_containing("PDN info ");
    ASSERT_EQ(lines.size(), 16u);
    EXPECT_EQ(log_body(lines[1]), "PDN info 1 active 1 internet interface id 3 cid 1\n");
    EXPECT_EQ(log_body(lines[2]),
              "PDN info 2 active 0 " + std::string(128, 'a') + " interface id 0 cid 0\n");
    EXPECT_EQ(log_body(lines[15]), "PDN info 15 active 0  interface id 0 cid 0\n");
    EXPECT_EQ(reset_pdn_info(), 0);
    EXPECT_EQ(find_pdn_info_by_index(110)->active + find_pdn_info_by_index(1)->active, 0u);
    EXPECT_EQ(find_pdn_info_by_index(2)->apn[0], '\0');
}

// No flow of the data manager fills a row's APN; a row whose APN is known is
// marked active on the interface of a setup request for it.
TEST_F(Pdn, SetupRequestMarksTheRowOfItsApn) {
    h.announce_ril();
    PdnInfo *row = find_pdn_info_by_index(110);
    memset(row->apn, 'n', sizeof(row->apn));  // compared within the field
    row->active = 1;
    Bytes req = words(704, {{648, 7}});
    memset(req.data() + 256, 'n', 128);
    h.send_bytes(h.client("lanmngr"), EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, req);
    h.pump();
    EXPECT_EQ(row->interface_id, 7u);
    EXPECT_EQ(payloads(TASK_RILDPROXY, 4003), std::vector<Bytes>{req});
    req[300] = 'x';
    row->active = 0;
    row->interface_id = 0;
    h.send_bytes(h.client("lanmngr"), EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, req);
    h.pump();
    EXPECT_EQ(row->interface_id + row->active, 0u);
}

// Handlers whose results the dispatcher ignores still give them to other
// callers of the library; an answer under an unknown id goes nowhere.
TEST_F(Pdn, HandlersTellWhetherTheyActed) {
    h.announce_ril();
    SetupFailInd fail_ind = {5, 0};
    EXPECT_EQ(dm_setup_data_call_fail_ind(&fail_ind, nullptr), -1);
    rild_req_interface_id = 4;
    evfw_event_t *event = evfw_event_alloc(nullptr);
    EXPECT_EQ(dm_setup_data_call_fail_ind(&fail_ind, event), 0);
    EXPECT_EQ(rild_req_interface_id, -1);
    DeactivateReq cid3 = {3, 0, {}}, none = {UINT32_MAX, 0, {}};
    EXPECT_EQ(dm_deactivate_data_call_req(&cid3, event), -1);
    EXPECT_EQ(dm_deactivate_data_call_if_req(&none, event), -1);
    up(3, 6, 3);
    EXPECT_EQ(dm_deactivate_data_call_req(&cid3, event), 0);
    h.clear();
    auto resp = std::make_unique<SetupDataCallResp>();
    resp->active = 1;
    event_set_id(event, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    EXPECT_EQ(dm_setup_data_call_resp(resp.get(), event), 0);
    // Nothing to do for a non-IMS interface is no failure; an answer whose
    // requester is unknown is.
    auto req = std::make_unique<SetupDataCallReq>();
    req->interface_id = 6;
    EXPECT_EQ(dm_add_ims_para(req.get()), 0);
    auto bearer = std::make_unique<DedicateBearerInd>();
    bearer->entry.interface_id = 1;
    EXPECT_EQ(dm_dedicate_bearer_activated_urc(bearer.get(), event), 0);
    LastFailCauseResp fail_cause = {};
    EXPECT_EQ(dm_last_data_call_fail_cause_resp(&fail_cause, event), -1);
    evfw_event_free(event);
    EXPECT_EQ(logged("[DMGR-ERR] dm_setup_data_call_resp invalid event 4003\n"), 1u);
    EXPECT_EQ(logged("SETUP DATA CALL"), 0u);
}

// A query of the IMS manager parked in its slot (state 3, which no flow of
// the data manager enters) is answered when the set-up answer arrives.
TEST_F(Pdn, SetupAnswerReplaysAParkedQuery) {
    auto &imsm = h.client("imsm_0");
    h.announce(imsm);
    h.announce_ril();
    Bytes answer = words(47876, {{12, 4}, {16, 1}, {248, 1}, {256, 4}, {260, 4}, {264, 4}});
    for (bool parked_event : {true, false}) {
        ImsParaSlot *slot = ims_para_slot(4);
        slot->state = kImsSlotQueryParked;
        strcpy(slot->parked_req.req.ifname, "pdnet4");
        slot->parked_req.req.req_token = 0x3030;
        slot->parked_req.event =
                parked_event ? evfw_event_alloc(query_task_info_by_name("imsm_0")) : nullptr;
        h.send_bytes(h.ril(), EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, answer);
        h.pump();
        EXPECT_EQ(std::tuple(slot->state, slot->parked_req.event),
                  std::tuple(kImsSlotResponseStored, nullptr));
    }
    // The replay runs before the answer's rows reach the table.
    auto sent = h.sent_to(imsm.id(), EVENT_DATAMNGR_GET_IMS_PDN_RESP);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(record_of<SetupDataCallResp>(sent[0]).status, 1u);
    EXPECT_EQ(logged("[DMGR-ERR] dm_get_ims_pdn_req  null PDN\n"), 1u);
    EXPECT_EQ(logged("[DMGR-ERR] dm_setup_data_call_resp interface id 4 parked query without "
                     "event\n"),
              1u);
    // A pass request starts the slot afresh, releasing a query still parked.
    ims_para_slot(4)->state = kImsSlotQueryParked;
    ims_para_slot(4)->parked_req.event = evfw_event_alloc(nullptr);
    h.send_bytes(imsm, EVENT_DATAMNGR_PASS_IMS_PDN_REQ, words(704, {{656, 1}}));
    h.pump();
    EXPECT_EQ(ims_para_slot(4)->state, kImsSlotParamsPassed);
}

// ---- operator hooks ------------------------------------------------------------

int g_calls[4];
int32_t g_verdict;

class Hooks : public Pdn {
  protected:
    void SetUp() override {
        memset(g_calls, 0, sizeof(g_calls));
        hooks.setup_req_check = [](SetupDataCallReq *, evfw_event_t *) {
            return ++g_calls[0], g_verdict;
        };
        hooks.setup_resp = [](SetupDataCallResp *r, evfw_event_t *) {
            return g_calls[1] += r->status == 0, 0;
        };
        hooks.deactivate = [](DeactivateReq *r, evfw_event_t *) {
            return g_calls[2] += r->cause, 0;
        };
        dm_set_operator_hooks(&hooks);
        h.rt().set_property("persist.qpx_epdg_support", "1");
        h.announce(lan);
        h.announce_ril();
    }
    OperatorHooks hooks = {};
    evfw_host::Peer &lan = h.client("lanmngr");
};

TEST_F(Hooks, ARejectedSetupIsAnsweredThroughTheOwnQueueAsAFailure) {
    g_verdict = 1;
    Bytes req = words(704, {{648, 2}});
    req[700] = 3;
    h.send_bytes(lan, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, req);
    h.pump();
    EXPECT_EQ(logged("[DMGR-INF] dm_setup_data_call_req operator reject\n"), 1u);
    EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());
    ASSERT_EQ(h.sent_to(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP).size(), 1u);
    auto to_rb = h.sent_to(TASK_RB_SIM3, EVENT_RB_SETUP_DATA_CALL_CNF);
    ASSERT_EQ(to_rb.size(), 1u);
    auto answer = record_of<SetupDataCallResp>(to_rb[0]);
    EXPECT_EQ(std::tuple(answer.status, answer.active, answer.sim_id, answer.sim_byte),
              std::tuple(1u, 0u, 3u, uint8_t{3}));
    EXPECT_EQ(std::vector<int>(g_calls, g_calls + 2), (std::vector<int>{1, 0}));
}

TEST_F(Hooks, AnAcceptedSetupGoesOnAndItsSuccessIsShownToTheAnswerHook) {
    g_verdict = 0;
    h.send_bytes(lan, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, Bytes(704));
    h.send_bytes(h.ril(), EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, words(47876, {{16, 1}}));
    h.send_bytes(h.ril(), EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, words(47876, {{4, 2}}));
    h.send_bytes(lan, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, Bytes(12));
    h.send_bytes(h.task(TASK_RB_SIM0), EVENT_RB_DEACTIVATE_DATA_CALL_REQ, Bytes(12));
    h.pump();
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ).size(), 1u);
    // check, successful answers, and the cause of each deactivation relayed
    EXPECT_EQ(std::vector<int>(g_calls, g_calls + 3), (std::vector<int>{1, 1, 100}));
    hooks = {};
    h.send_bytes(lan, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, Bytes(704));
    h.pump();
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ).size(), 2u);
}

// ---- DNS -----------------------------------------------------------------------

// A fake "ndc" first on PATH: it records its command line and exits with 3.
class Dns : public DmTest {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/pdn_ndc_XXXXXX";
        dir_ = mkdtemp(tmpl);
        std::ofstream(dir_ + "/ndc")
                << "#!/bin/sh\necho \"ndc $*\" >> " << dir_ << "/calls\nexit 3\n";
        chmod((dir_ + "/ndc").c_str(), 0755);
        path_ = getenv("PATH");
        setenv("PATH", (dir_ + ":" + path_).c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", path_.c_str(), 1);
        system(("rm -rf " + dir_).c_str());
        DmTest::TearDown();
    }
    std::vector<std::string> calls() const {
        std::ifstream in(dir_ + "/calls");
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }
    std::string dir_, path_;
};

struct DnsCase {
    bool ipv6;
    uint32_t count;
    const char *servers;  // after "ndc resolver setnetdns 100"
    bool stores_dns2, stores_dns3;
};

const uint8_t kV6[3][16] = {
        {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
        {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 2, 0x1a, 0x2b, 0xff, 0xfe, 0x3c, 0x4d, 0x5e},
        {}};
const uint8_t kV4[3][4] = {{8, 8, 8, 8}, {8, 8, 4, 4}, {1, 1, 1, 1}};
const uint8_t kAddr[16] = {10, 0, 0, 2, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
#define V6A " 2001:0db8:0000:0000:0000:0000:0000:0001"
#define V6B " fe80:0000:0000:0000:021a:2bff:fe3c:4d5e"

class DnsCases : public Dns, public ::testing::WithParamInterface<DnsCase> {};

TEST_P(DnsCases, CommandLineAndRecord) {
    const DnsCase &c = GetParam();
    const size_t len = c.ipv6 ? 16 : 4;
    const uint8_t *dns[3] = {c.ipv6 ? kV6[0] : kV4[0], c.ipv6 ? kV6[1] : kV4[1],
                             c.ipv6 ? kV6[2] : kV4[2]};
    // The record's slots {addr, count, dns2, dns3} for each family.
    static constexpr size_t kSlots[2][4] = {{296, 380, 388, 405}, {313, 384, 422, 487}};
    const size_t *at = kSlots[c.ipv6];
    Bytes record(kDnsRecordLen + 8, 0xaa), want = record;
    memcpy(&want[at[0]], kAddr, len);
    memcpy(&want[at[1]], &c.count, 4);
    if (c.stores_dns2) memcpy(&want[at[2]], dns[1], len);
    if (c.stores_dns3) memcpy(&want[at[3]], dns[2], len);
    EXPECT_EQ(dm_network_config("pdnet3", c.ipv6, kAddr, dns[0], c.count, dns[1], dns[2], 100,
                                reinterpret_cast<DnsRecord *>(record.data())),
              0);
    const std::string cmd = std::string("ndc resolver setnetdns 100") + c.servers;
    EXPECT_EQ(calls(), std::vector<std::string>{cmd});
    EXPECT_TRUE(record == want);
    EXPECT_EQ(logged("[DMGR-INF] dm_network_config interface pdnet3 network id : 100"), 1u);
    EXPECT_EQ(logged("[DMGR-INF] cmd = (" + cmd + ")"), 1u);
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

TEST_F(Dns, WithoutARecordTheCommandStillRunsAndAddressesStayInTheBuffer) {
    dm_network_config("pdnet4", 1, kAddr, kV6[0], 1, kV6[1], kV6[2], -5, nullptr);
    dm_network_config("pdnet4", 0, nullptr, kV4[0], 1, kV4[1], nullptr, 7, nullptr);
    EXPECT_EQ(calls(), (std::vector<std::string>{"ndc resolver setnetdns -5" V6A V6B,
                                                 "ndc resolver setnetdns 7 8.8.8.8 8.8.4.4"}));
    EXPECT_EQ(logged("[DMGR-ERR] dm_network_config NULL PDN info\n"), 2u);
    char cmd[kDnsCmdLen];
    memset(cmd, 'x', sizeof(cmd) - 10);
    cmd[sizeof(cmd) - 10] = '\0';
    EXPECT_EQ(append_ipv6_addr(cmd, kV6[1]), 0);
    EXPECT_EQ(std::string(cmd + sizeof(cmd) - 10), " fe80:000");
    EXPECT_EQ(append_ipv4_addr(cmd, kV4[0]), 0);  // full: nothing more goes in
    EXPECT_EQ(std::string(cmd + sizeof(cmd) - 10), " fe80:000");
    EXPECT_EQ(append_ipv4_addr(cmd, nullptr), -1);
    EXPECT_EQ(append_ipv6_addr(cmd, nullptr), -1);
    EXPECT_EQ(logged("[DMGR-ERR] append_ipv4_addr no address\n"), 1u);
    EXPECT_EQ(logged("[DMGR-ERR] append_ipv6_addr no address\n"), 1u);
}

}  // namespace
