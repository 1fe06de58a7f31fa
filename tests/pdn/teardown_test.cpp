// Teardown by cid and by interface, the handover peer's deactivations,
// handover and the initial-attach APN, through the host runtime.
#include <gtest/gtest.h>

#include "entity/operator_hooks.h"
#include "pdn/pdn_info.h"
#include "pdn_test_util.h"

namespace {

using dm::testkit::Peer;
using dm::testkit::Received;
using dm::testkit::record_of;
using pdn_test::default_bearer;
using pdn_test::entry;
using pdn_test::PdnTest;
using pdn_test::put_row;

class PdnTeardownTest : public PdnTest {
  protected:
    void SetUp() override {
        h.announce(lan);
        h.announce_ril();
        h.clear();
    }

    Peer &lan = h.client("lanmngr");
    Peer &rb = h.task(TASK_RB_SIM0);
};

TEST_F(PdnTeardownTest, TeardownByCidTakesTheWholeCellularInterfaceDownBeforeTheAnswer) {
    PdnInfo *def = put_row(default_bearer(7, 3), "internet");
    PdnInfo *ded = put_row(entry(8, 3, 7));
    PdnInfo *other = put_row(default_bearer(2, 1));
    PdnInfo *epdg = put_row(default_bearer(103, 3));
    h.ril().on_receive([](Peer &self, const Received &in) {
        if (in.event_id == EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ) {
            WordPair answer = {0, 3};
            self.reply(in.event, TASK_DATAMNGR, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP, &answer,
                       sizeof(answer));
        }
    });

    DeactivateReq req = {7, 55, {1, 2, 3, 4}};
    h.send(lan, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, req);
    h.pump();

    auto to_ril = h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ);
    ASSERT_EQ(to_ril.size(), 1u);
    auto sent = record_of<DeactivateReq>(to_ril[0]);
    EXPECT_EQ(sent.id, 3u);    // the interface, not the cid
    EXPECT_EQ(sent.cause, 1);  // the requester's cause is replaced
    EXPECT_EQ(memcmp(sent.relayed, req.relayed, sizeof(req.relayed)), 0);
    EXPECT_EQ(def->active, 0u);
    EXPECT_EQ(ded->active, 0u);
    EXPECT_EQ(other->active, 1u);
    EXPECT_EQ(epdg->active, 1u);
    EXPECT_EQ(
            lines("dm_deactivate_data_call_req", "DMGR-INF", "dm_deactivate_data_call_req cid 7\n"),
            1u);
    EXPECT_EQ(lines("dm_deactivate_data_call_if_with_cause_req", "DMGR-INF",
                    "dm_deactivate_data_call_if_with_cause_req interface id 3 cause 1\n"),
              1u);

    // The answer goes back to the requester and changes no row.
    auto answers = h.sent_to(lan.id(), EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_RESP);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(record_of<WordPair>(answers[0]).word1, 3u);
    EXPECT_EQ(other->active, 1u);
    EXPECT_EQ(lines("dm_deactivate_data_call_resp", "DMGR-INF",
                    "dm_deactivate_data_call_resp reply external to lanmngr\n"),
              1u);
    EXPECT_EQ(h.stray_events(), 0);
}

class PdnUnknownCidTest : public PdnTeardownTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(PdnUnknownCidTest, IsRefusedAndNothingIsSent) {
    const uint32_t cid = GetParam();
    put_row(default_bearer(1, 1));
    PdnInfo *inactive = put_row(default_bearer(9, 2));
    inactive->active = 0;
    DeactivateReq req = {cid, 0, {}};
    h.send(lan, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, req);
    h.pump();
    EXPECT_EQ(lines("dm_deactivate_data_call_req", "DMGR-ERR",
                    "dm_deactivate_data_call_req can't find interface by cid " +
                            std::to_string(cid) + "\n"),
              1u);
    EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());
    EXPECT_TRUE(h.sent_to(lan.id()).empty());
    EXPECT_EQ(find_pdn_info_by_cid(1)->active, 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

INSTANTIATE_TEST_SUITE_P(PdnCids, PdnUnknownCidTest, ::testing::Values(9u, 16u, 200u, UINT32_MAX));

TEST_F(PdnTeardownTest, HandoverPeerDeactivationCarriesCause100) {
    PdnInfo *def = put_row(default_bearer(4, 2));
    PdnInfo *epdg = put_row(default_bearer(104, 2));
    DeactivateReq req = {2, 7, {9, 9, 9, 9}};
    h.send(rb, EVENT_RB_DEACTIVATE_DATA_CALL_REQ, req);
    h.pump();
    auto to_ril = h.sent_to(TASK_RILDPROXY);
    ASSERT_EQ(to_ril.size(), 1u);
    EXPECT_EQ(to_ril[0].event_id, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ);
    auto sent = record_of<DeactivateReq>(to_ril[0]);
    EXPECT_EQ(sent.id, 2u);
    EXPECT_EQ(sent.cause, 100);
    EXPECT_EQ(def->active, 0u);
    EXPECT_EQ(epdg->active, 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnTeardownTest, DeactivationOfInterfaceMinusOneIsRefused) {
    DeactivateReq req = {UINT32_MAX, 0, {}};
    h.send(rb, EVENT_RB_DEACTIVATE_DATA_CALL_REQ, req);
    h.pump();
    EXPECT_EQ(lines("dm_deactivate_data_call_if_with_cause_req", "DMGR-ERR",
                    "dm_deactivate_data_call_if_with_cause_req can't find interface by cid "
                    "4294967295\n"),
              1u);
    EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnTeardownTest, EpdgDeactivationNoticeEndsOnlyEpdgRows) {
    PdnInfo *cell = put_row(default_bearer(5, 6));
    PdnInfo *epdg = put_row(default_bearer(105, 6));
    PdnInfo *epdg_other = put_row(default_bearer(106, 7));
    DeactivateReq req = {6, 42, {1, 1, 1, 1}};
    h.send(rb, EVENT_RB_EPDG_DEACTIVATE_NOTIFY, req);
    h.pump();
    EXPECT_EQ(cell->active, 1u);
    EXPECT_EQ(epdg->active, 0u);
    EXPECT_EQ(epdg_other->active, 1u);
    auto to_ril = h.sent_to(TASK_RILDPROXY, EVENT_RB_EPDG_DEACTIVATE_NOTIFY);
    ASSERT_EQ(to_ril.size(), 1u);
    EXPECT_EQ(memcmp(to_ril[0].data.data(), &req, sizeof(req)), 0);
    EXPECT_EQ(h.stray_events(), 0);
}

int g_deactivations = 0;
int32_t g_seen_cause = 0;
int32_t see_deactivation(DeactivateReq *req, evfw_event_t *) {
    ++g_deactivations;
    g_seen_cause = req->cause;
    return 0;
}

TEST_F(PdnTeardownTest, OperatorDeactivationHookSeesTheRequestWithItsCause) {
    OperatorHooks hooks = {};
    hooks.deactivate = see_deactivation;
    dm_set_operator_hooks(&hooks);
    g_deactivations = 0;
    DeactivateReq req = {3, 0, {}};
    h.send(rb, EVENT_RB_DEACTIVATE_DATA_CALL_REQ, req);
    h.pump();
    dm_set_operator_hooks(nullptr);
    EXPECT_EQ(g_deactivations, 1);
    EXPECT_EQ(g_seen_cause, 100);
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY).size(), 1u);
}

// ---- handover ----

struct HandoverCase {
    uint8_t sim;
    uint8_t interface_id;
    const char *imsm;  // the IMS manager told first, or null
};

void PrintTo(const HandoverCase &c, std::ostream *os) {
    *os << "sim " << int(c.sim) << " interface " << int(c.interface_id);
}

class PdnHandoverTest : public PdnTeardownTest,
                        public ::testing::WithParamInterface<HandoverCase> {};

TEST_P(PdnHandoverTest, ImsInterfacesAreToldToTheImsManagerBeforeTheRil) {
    const HandoverCase &c = GetParam();
    h.rt().set_property("ro.qpx_multiple_ims_support", "0");
    Peer &imsm0 = h.client("imsm_0");
    Peer &imsm2 = h.client("imsm_2");
    h.announce(imsm0);
    h.announce(imsm2);
    h.clear();

    HandoverReq req = {c.sim, {0x11, 0x22}, c.interface_id, {0x33, 0x44}};
    h.send(rb, EVENT_RB_HANDOVER_REQ, req);
    h.pump();

    auto to_ril = h.sent_to(TASK_RILDPROXY, EVENT_RB_HANDOVER_REQ);
    ASSERT_EQ(to_ril.size(), 1u);
    EXPECT_EQ(memcmp(to_ril[0].data.data(), &req, sizeof(req)), 0);
    EXPECT_EQ(lines("dm_handover_req", "DMGR-INF", "dm_handover_req\n"), 1u);

    auto told0 = h.sent_to(imsm0.id(), EVENT_RB_HANDOVER_REQ);
    auto told2 = h.sent_to(imsm2.id(), EVENT_RB_HANDOVER_REQ);
    if (c.imsm == nullptr) {
        EXPECT_TRUE(told0.empty());
        EXPECT_TRUE(told2.empty());
    } else {
        auto &told = std::string(c.imsm) == "imsm_0" ? told0 : told2;
        ASSERT_EQ(told.size(), 1u);
        EXPECT_EQ(told0.size() + told2.size(), 1u);
        EXPECT_LT(told[0].seq, to_ril[0].seq);
        EXPECT_EQ(memcmp(told[0].data.data(), &req, sizeof(req)), 0);
    }
    EXPECT_EQ(h.stray_events(), 0);
}

INSTANTIATE_TEST_SUITE_P(PdnInterfaces, PdnHandoverTest,
                         ::testing::Values(HandoverCase{0, 4, "imsm_0"},
                                           HandoverCase{2, 5, "imsm_2"},
                                           HandoverCase{0, 1, nullptr},
                                           HandoverCase{2, 6, nullptr}));

TEST_F(PdnTeardownTest, HandoverOfAnImsInterfaceWithoutImsManagerStillReachesTheRil) {
    // No "ro.qpx_multiple_ims_support": the IMS manager cannot be chosen.
    HandoverReq req = {0, {}, 4, {}};
    h.send(rb, EVENT_RB_HANDOVER_REQ, req);
    h.pump();
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, EVENT_RB_HANDOVER_REQ).size(), 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

// ---- initial-attach APN and the answers nobody waits for ----

TEST_F(PdnTeardownTest, InitialAttachApnIsRelayedAndItsAnswerDropped) {
    std::vector<uint8_t> record(kInitialAttachApnLen);
    for (size_t i = 0; i < record.size(); ++i) record[i] = static_cast<uint8_t>(i * 7);
    h.send_bytes(lan, EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_REQ, record);
    h.pump();
    auto to_ril = h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_REQ);
    ASSERT_EQ(to_ril.size(), 1u);
    EXPECT_EQ(to_ril[0].data, record);
    EXPECT_EQ(lines("dm_set_initial_attach_apn_req", "DMGR-INF",
                    "dm_set_initial_attach_apn_req for event 4030\n"),
              1u);

    h.clear();
    WordPair answer = {0, 0};
    h.send(h.ril(), EVENT_DATAMNGR_SET_INITIAL_ATTACH_APN_RESP, answer);
    h.send(h.ril(), EVENT_DATAMNGR_HANDOVER_RESP, answer);
    h.pump();
    EXPECT_EQ(h.rt().trace().size(), 2u);  // the two answers themselves
    EXPECT_EQ(h.stray_events(), 0);
    // One routine under two names.
    EXPECT_EQ(reinterpret_cast<void *>(&dm_set_initial_attach_apn_resp),
              reinterpret_cast<void *>(&dm_handover_resp));
}

}  // namespace
