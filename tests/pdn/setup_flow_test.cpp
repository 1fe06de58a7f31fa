// Data-call setup through the host runtime: a peer's request reaches the RIL
// proxy once it is ready, the RIL's answer fills the PDN table and the IMS
// slot and is forwarded to RB; failure indications, notify acknowledgements
// and operator hooks.
#include <gtest/gtest.h>

#include "entity/operator_hooks.h"
#include "entity/task_info.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"
#include "pdn_test_util.h"

namespace {

using dm::testkit::Peer;
using dm::testkit::Received;
using dm::testkit::record_of;
using pdn_test::default_bearer;
using pdn_test::entry;
using pdn_test::PdnTest;
using pdn_test::setup_req;
using pdn_test::setup_resp;

class PdnSetupTest : public PdnTest {
  protected:
    void epdg_on() { h.rt().set_property("persist.qpx_epdg_support", "1"); }

    // The RIL answers every setup request with `answer`, on the request's
    // route, as the RIL proxy does.
    void ril_answers_with(const SetupDataCallResp &answer) {
        h.ril().on_receive([&answer](Peer &self, const Received &in) {
            if (in.event_id == EVENT_DATAMNGR_SETUP_DATA_CALL_REQ) {
                self.reply(in.event, TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, &answer,
                           sizeof(answer));
            }
        });
    }

    // Sends an answer from the RIL as if it answered a request of `from`.
    void answer_from_ril(uint32_t event_id, const SetupDataCallResp &answer) {
        h.ril().send(TASK_DATAMNGR, event_id, &answer, sizeof(answer));
        h.pump();
    }

    Peer &imsm = h.client("imsm_0");
};

// ---- the full flow ----

class PdnSetupFlowTest : public PdnSetupTest, public ::testing::WithParamInterface<bool> {};

TEST_P(PdnSetupFlowTest, RequestWaitsForTheRilThenItsAnswerFillsTheTableAndReachesRb) {
    const bool epdg = GetParam();
    if (epdg) epdg_on();
    Peer &rb = h.task(TASK_RB_SIM0 + 2);
    h.announce(imsm);

    SetupDataCallReq req = setup_req("internet", 3, 2);
    // The answer is the RIL's to the request: its interface and SIM, one
    // default bearer with a dedicated one, and the call over ePDG.
    auto answer = setup_resp(req.interface_id, req.sim_id);
    answer->num_calls = 2;
    answer->calls[0] = default_bearer(1, 3);
    answer->calls[1] = entry(2, 3, 1);
    answer->has_extra_call = 1;
    answer->extra_call = default_bearer(101, 3);
    ril_answers_with(*answer);

    h.send(imsm, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, req);
    h.pump();
    EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());
    EXPECT_EQ(find_pdn_info_by_cid(1), nullptr);

    h.announce_ril();
    auto to_ril = h.ril().received();
    ASSERT_EQ(to_ril.size(), 1u);
    EXPECT_EQ(to_ril[0].event_id, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    ASSERT_EQ(to_ril[0].data.size(), sizeof(req));
    EXPECT_EQ(memcmp(to_ril[0].data.data(), &req, sizeof(req)), 0);

    // The answer came on the IMS manager's route: the rows are its own.
    const TaskInfo *owner = task_info_row(0);
    PdnInfo *def = find_pdn_info_by_cid(1);
    PdnInfo *ded = find_pdn_info_by_cid(2);
    PdnInfo *epdg_row = find_pdn_info_by_cid(101);
    ASSERT_NE(def, nullptr);
    ASSERT_NE(ded, nullptr);
    ASSERT_NE(epdg_row, nullptr);
    EXPECT_EQ(def->owner, owner);
    EXPECT_EQ(ded->primary_cid, 1u);
    EXPECT_EQ(epdg_row->owner, owner);
    EXPECT_EQ(find_pdn_info_by_interface(3), def);
    // Only the extra call gets the interface details.
    EXPECT_STREQ(epdg_row->ifname, "pdnet3");
    EXPECT_EQ(epdg_row->addr_type, static_cast<uint32_t>(kPdpIpv4v6));
    EXPECT_EQ(epdg_row->prefix_len, 64u);
    EXPECT_EQ(epdg_row->preferred_lifetime, 14400u);
    EXPECT_EQ(epdg_row->valid_lifetime, 86400u);
    EXPECT_STREQ(def->ifname, "");

    // Nothing goes back to the requester; RB hears of it when ePDG is on.
    EXPECT_TRUE(h.sent_to(imsm.id()).empty());
    auto to_rb = rb.received();
    if (epdg) {
        ASSERT_EQ(to_rb.size(), 1u);
        EXPECT_EQ(to_rb[0].event_id, EVENT_RB_SETUP_DATA_CALL_CNF);
        auto forwarded = record_of<SetupDataCallResp>(to_rb[0]);
        EXPECT_EQ(forwarded.rate_type, 7u);
        EXPECT_EQ(forwarded.extra_call.cid, 101);
    } else {
        EXPECT_TRUE(to_rb.empty());
        EXPECT_TRUE(h.sent_with_id(EVENT_RB_SETUP_DATA_CALL_CNF).empty());
    }
    EXPECT_EQ(h.stray_events(), 0);
}

INSTANTIATE_TEST_SUITE_P(PdnEpdgSupport, PdnSetupFlowTest, ::testing::Bool(),
                         [](const auto &info) { return info.param ? "On" : "Off"; });

// ---- requests ----

TEST_F(PdnSetupTest, RequestMarksTheRowOfItsApnActiveOnItsInterface) {
    PdnInfo *row = pdn_test::put_row(default_bearer(4, 1), "ims");
    h.announce_ril();
    h.send(imsm, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, setup_req("ims", 4));
    h.pump();
    EXPECT_EQ(row->interface_id, 4u);
    EXPECT_EQ(row->active, 1u);
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ).size(), 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnSetupTest, ApnFillingItsWholeFieldIsComparedWithinTheField) {
    PdnInfo *exact = pdn_test::put_row(default_bearer(6, 1));
    memset(exact->apn, 'A', sizeof(exact->apn));
    h.announce_ril();
    SetupDataCallReq req = setup_req("", 9);
    memset(req.apn, 'A', sizeof(req.apn));
    memset(req.opaque_384, 'B', sizeof(req.opaque_384));
    h.send(imsm, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, req);
    h.pump();
    EXPECT_EQ(exact->interface_id, 9u);
    // Relayed as it came, the bytes after the APN included.
    auto to_ril = h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    ASSERT_EQ(to_ril.size(), 1u);
    EXPECT_EQ(memcmp(to_ril[0].data.data(), &req, sizeof(req)), 0);
}

TEST_F(PdnSetupTest, HandoverSetupForAnImsInterfaceCarriesTheStoredImsParameters) {
    ImsParaSlot *slot = ims_para_slot(kImsInterface);
    for (size_t i = 0; i < kImsParaBlockLen; ++i) slot->params.ims_para[i] = 0xa0 + i;
    slot->params.emergency_ind = 1;
    slot->params.ims_word_684 = 684;
    slot->params.ims_word_688 = 688;
    slot->params.assigned_rate_type = 99;
    h.announce_ril();

    SetupDataCallReq req = setup_req("ims", kImsInterface);
    h.send(h.task(TASK_RB_SIM0), EVENT_RB_SETUP_DATA_CALL_REQ, req);
    h.pump();

    auto to_ril = h.sent_to(TASK_RILDPROXY);
    ASSERT_EQ(to_ril.size(), 1u);
    EXPECT_EQ(to_ril[0].event_id, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    auto sent = record_of<SetupDataCallReq>(to_ril[0]);
    EXPECT_EQ(sent.ims_para_valid, 1u);
    EXPECT_EQ(memcmp(sent.ims_para, slot->params.ims_para, kImsParaBlockLen), 0);
    EXPECT_EQ(sent.emergency_ind, 1u);
    EXPECT_EQ(sent.ims_word_684, 684u);
    EXPECT_EQ(sent.ims_word_688, 688u);
    EXPECT_EQ(sent.assigned_rate_type, 3u);  // the requester's own
    EXPECT_EQ(slot->state, static_cast<uint32_t>(kImsSlotParamsPassed));
    EXPECT_EQ(lines("dm_setup_data_call_req", "DMGR-DBG",
                    "dm_setup_data_call_req add ims para for RB handover data call setup\n"),
              1u);
    EXPECT_EQ(lines("dm_add_ims_para", "DMGR-INF", "dm_add_ims_para for interface id 4\n"), 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnSetupTest, HandoverSetupForAnotherInterfaceIsRelayedUnchanged) {
    h.announce_ril();
    SetupDataCallReq req = setup_req("internet", 6);
    h.send(h.task(TASK_RB_SIM0), EVENT_RB_SETUP_DATA_CALL_REQ, req);
    // The same interface from an ordinary requester adds nothing either.
    h.send(imsm, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, setup_req("ims", kImsInterface));
    h.pump();
    auto to_ril = h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ);
    ASSERT_EQ(to_ril.size(), 2u);
    EXPECT_EQ(memcmp(to_ril[0].data.data(), &req, sizeof(req)), 0);
    EXPECT_EQ(record_of<SetupDataCallReq>(to_ril[1]).ims_para_valid, 0u);
    EXPECT_EQ(lines("dm_add_ims_para", "DMGR-DBG", "dm_add_ims_para no need for interface id 6\n"),
              1u);
    EXPECT_EQ(ims_para_slot(kImsInterface)->state, static_cast<uint32_t>(kImsSlotEmpty));
}

// ---- answers ----

class PdnSetupAnswerTest : public PdnSetupTest {
  protected:
    void SetUp() override {
        epdg_on();
        h.announce(imsm);
    }
    Peer &rb = h.task(TASK_RB_SIM0);
};

TEST_F(PdnSetupAnswerTest, InactiveAnswerWithoutCauseIsAFailureWithStatusOne) {
    auto answer = setup_resp(kImsInterface);
    answer->active = 0;
    answer->num_calls = 1;
    answer->calls[0] = default_bearer(1, kImsInterface);
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);

    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-ERR",
                    "dm_setup_data_call_resp interface id 4 active 0 invalid set status fail\n"),
              2u);
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-ERR",
                    "dm_setup_data_call_resp response fail status 1\n"),
              1u);
    EXPECT_EQ(find_pdn_info_by_index(1)->active, 0u);
    // Stored and forwarded all the same.
    ImsParaSlot *slot = ims_para_slot(kImsInterface);
    EXPECT_EQ(slot->state, static_cast<uint32_t>(kImsSlotResponseStored));
    EXPECT_EQ(slot->response.status, 1u);
    auto to_rb = rb.received();
    ASSERT_EQ(to_rb.size(), 1u);
    EXPECT_EQ(record_of<SetupDataCallResp>(to_rb[0]).status, 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnSetupAnswerTest, InactiveAnswerKeepsItsOwnCause) {
    auto answer = setup_resp(kEmergencyImsInterface);
    answer->active = 0;
    answer->status = 33;
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-ERR",
                    "dm_setup_data_call_resp interface id 5 active 0 invalid set status fail\n"),
              1u);
    EXPECT_EQ(ims_para_slot(kEmergencyImsInterface)->response.status, 33u);
}

TEST_F(PdnSetupAnswerTest, AnswerForAnotherInterfaceIsWarnedAboutAndProcessedInFull) {
    rild_req_interface_id = 5;
    auto answer = setup_resp(kImsInterface);
    answer->num_calls = 1;
    answer->calls[0] = default_bearer(3, kImsInterface);
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-WAR",
                    "dm_setup_data_call_resp interface id 4 != curr req from RILD interface id "
                    "5\n"),
              1u);
    EXPECT_EQ(rild_req_interface_id, -1);
    EXPECT_NE(find_pdn_info_by_cid(3), nullptr);
    EXPECT_EQ(ims_para_slot(kImsInterface)->state, static_cast<uint32_t>(kImsSlotResponseStored));
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-INF",
                    "dm_setup_data_call_resp interface id 4 for IMS switch to state 2\n"),
              1u);

    // The answer for the current request passes without a warning.
    h.clear();
    rild_req_interface_id = 4;
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    EXPECT_TRUE(h.logs_containing("!= curr req").empty());
}

TEST_F(PdnSetupAnswerTest, SuccessWithoutEntriesChangesNoRowButIsConfirmedToRb) {
    auto answer = setup_resp(3);
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    for (int32_t i = 0; i < kPdnRows; ++i) {
        EXPECT_EQ(find_pdn_info_by_index(i)->active, 0u);
        EXPECT_EQ(find_pdn_info_by_index(kEpdgCidBase + i)->active, 0u);
    }
    auto to_rb = rb.received();
    ASSERT_EQ(to_rb.size(), 1u);
    EXPECT_EQ(to_rb[0].event_id, EVENT_RB_SETUP_DATA_CALL_CNF);
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-INF",
                    "dm_setup_data_call_resp SETUP DATA CALL CNF to RB 4004\n"),
              1u);
}

TEST_F(PdnSetupAnswerTest, FailedAnswerChangesNoRowAndStillReachesRb) {
    auto answer = setup_resp(3, 1);
    answer->status = 5;
    answer->num_calls = 1;
    answer->calls[0] = default_bearer(1, 3);
    Peer &rb1 = h.task(TASK_RB_SIM1);
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    EXPECT_EQ(find_pdn_info_by_index(1)->active, 0u);
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-ERR",
                    "dm_setup_data_call_resp response fail status 5\n"),
              1u);
    EXPECT_EQ(rb1.received().size(), 1u);
    EXPECT_TRUE(rb.received().empty());
}

struct CountCase {
    int32_t num_calls;
    int32_t rows;  // rows written, cids 0..rows-1
    const char *error;
};

void PrintTo(const CountCase &c, std::ostream *os) {
    *os << "num_calls " << c.num_calls;
}

class PdnCallCountTest : public PdnSetupAnswerTest,
                         public ::testing::WithParamInterface<CountCase> {};

TEST_P(PdnCallCountTest, EntriesAreReadOnlyWithinTheRecord) {
    const CountCase &c = GetParam();
    auto answer = setup_resp(2);
    for (size_t i = 0; i < kMaxDataCalls; ++i) answer->calls[i] = default_bearer(i, 2);
    // Read as a twelfth entry, the bytes after the eleventh would name cid 13.
    answer->extra_call = default_bearer(13, 2);
    answer->has_extra_call = 0;
    answer->num_calls = c.num_calls;
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    for (int32_t cid = 0; cid < kPdnRows; ++cid) {
        EXPECT_EQ(find_pdn_info_by_index(cid)->active, cid < c.rows ? 1u : 0u) << cid;
    }
    EXPECT_EQ(h.logs_containing("find pdn by index").size(), 0u);
    if (c.error != nullptr) {
        EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-ERR", c.error), 1u);
    } else {
        EXPECT_TRUE(h.logs_containing("num calls").empty());
    }
    EXPECT_EQ(rb.received().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
        PdnCounts, PdnCallCountTest,
        ::testing::Values(
                CountCase{0, 0, nullptr}, CountCase{3, 3, nullptr}, CountCase{11, 11, nullptr},
                CountCase{12, 11,
                          "dm_setup_data_call_resp num calls 12 above 11, only 11 entries read\n"},
                CountCase{INT32_MAX, 11,
                          "dm_setup_data_call_resp num calls 2147483647 above 11, only 11 "
                          "entries read\n"},
                CountCase{-1, 0,
                          "dm_setup_data_call_resp num calls -1 negative, no entry read\n"}));

TEST_F(PdnSetupAnswerTest, InterfaceNameFillingItsWholeFieldIsCutToATerminatedRowName) {
    auto answer = setup_resp(2);
    memset(answer->ifname, 'n', sizeof(answer->ifname));
    answer->has_extra_call = 1;
    answer->extra_call = default_bearer(0, 2);
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    PdnInfo *row = find_pdn_info_by_cid(0);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(std::string(row->ifname), std::string(sizeof(row->ifname) - 1, 'n'));
}

TEST_F(PdnSetupAnswerTest, HandoverPeerAnswersReachRbAsIndications) {
    auto answer = setup_resp(3, 3);
    Peer &rb3 = h.task(TASK_RB_SIM3);
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_IND, *answer);
    auto to_rb = rb3.received();
    ASSERT_EQ(to_rb.size(), 1u);
    EXPECT_EQ(to_rb[0].event_id, EVENT_RB_SETUP_DATA_CALL_IND);
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-INF",
                    "dm_setup_data_call_resp SETUP DATA CALL IND to RB 4051\n"),
              1u);
}

TEST_F(PdnSetupAnswerTest, AnswerUnderAnUnknownIdIsNotForwarded) {
    auto answer = setup_resp(3);
    evfw_event_t *event = evfw_event_alloc(nullptr);
    event_set_id(event, EVENT_DATAMNGR_GET_IMS_PDN_RESP);
    EXPECT_EQ(dm_setup_data_call_resp(answer.get(), event), 0);
    evfw_event_free(event);
    h.pump();
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-ERR",
                    "dm_setup_data_call_resp invalid event 4048\n"),
              1u);
    EXPECT_TRUE(rb.received().empty());
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnSetupTest, WithoutEpdgAnswersAreMadeLteAndRbHearsNothing) {
    Peer &rb = h.task(TASK_RB_SIM0);
    auto answer = setup_resp(kImsInterface);
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    EXPECT_EQ(ims_para_slot(kImsInterface)->response.rate_type, kRateTypeLte);
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-DBG",
                    "dm_setup_data_call_resp set rate type as LTE when no EDPG\n"),
              1u);
    EXPECT_EQ(lines("dm_send_to_rb", "DMGR-DBG", "dm_send_to_rb skip when epdg not support\n"), 1u);
    EXPECT_TRUE(rb.received().empty());

    h.clear();
    h.rt().set_property("persist.qpx_epdg_support", "1");
    pdn_setup_state_reset();
    answer_from_ril(EVENT_DATAMNGR_SETUP_DATA_CALL_RESP, *answer);
    EXPECT_EQ(ims_para_slot(kImsInterface)->response.rate_type, 7u);
    EXPECT_EQ(rb.received().size(), 1u);
}

// ---- RB and the ePDG setting ----

TEST_F(PdnSetupTest, RbOfASimOutOfRangeIsTheFirstSims) {
    epdg_on();
    uint32_t word = 0;
    evfw_event_t *event = evfw_event_alloc(nullptr);
    EXPECT_EQ(dm_send_to_rb(&word, 4, event, EVENT_RB_DEACT_DATA_CALL_IND, 7), 0);
    EXPECT_EQ(dm_send_to_rb(&word, 4, event, EVENT_RB_DEACT_DATA_CALL_IND, 3), 0);
    EXPECT_EQ(dm_send_to_rb(&word, 4, event, EVENT_RB_DEACT_DATA_CALL_IND, UINT32_MAX), 0);
    evfw_event_free(event);
    auto sent = h.sent_with_id(EVENT_RB_DEACT_DATA_CALL_IND);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].to, static_cast<uint32_t>(TASK_RB_SIM0));
    EXPECT_EQ(sent[1].to, static_cast<uint32_t>(TASK_RB_SIM3));
    EXPECT_EQ(sent[2].to, static_cast<uint32_t>(TASK_RB_SIM0));
    EXPECT_EQ(lines("dm_send_to_rb", "DMGR-DBG", "dm_send_to_rb sim id 7\n"), 1u);
    h.pump();
}

TEST_F(PdnSetupTest, EpdgSettingIsReadOnceUnlessItReadsAsMinusOne) {
    EXPECT_EQ(dm_is_epdg_support(), 0);
    epdg_on();
    EXPECT_EQ(dm_is_epdg_support(), 0);

    pdn_setup_state_reset();
    EXPECT_EQ(dm_is_epdg_support(), 1);
    h.rt().set_property("persist.qpx_epdg_support", "0");
    EXPECT_EQ(dm_is_epdg_support(), 1);

    pdn_setup_state_reset();
    h.rt().set_property("persist.qpx_epdg_support", "-1");
    EXPECT_EQ(dm_is_epdg_support(), -1);
    h.rt().set_property("persist.qpx_epdg_support", "2");
    EXPECT_EQ(dm_is_epdg_support(), 2);
}

// ---- failure indications and notify acknowledgements ----

class PdnNotifyTest : public PdnSetupTest {
  protected:
    void SetUp() override { epdg_on(); }
    // The sender of notifies: an external client that announced nothing.
    Peer &notifier = h.client("notifier");
};

TEST_F(PdnNotifyTest, FailureIndicationBecomesAFailedAnswerToRb) {
    Peer &rb1 = h.task(TASK_RB_SIM1);
    rild_req_interface_id = kImsInterface;
    SetupFailInd ind = {33, 1};
    h.send(h.ril(), EVENT_DATAMNGR_SETUP_DATA_CALL_FAIL_IND, ind);
    h.pump();

    EXPECT_EQ(lines("dm_setup_data_call_fail_ind", "DMGR-INF",
                    "dm_setup_data_call_fail_ind status 33\n"),
              1u);
    auto to_rb = rb1.received();
    ASSERT_EQ(to_rb.size(), 1u);
    EXPECT_EQ(to_rb[0].event_id, EVENT_RB_SETUP_DATA_CALL_IND);
    auto failed = record_of<SetupDataCallResp>(to_rb[0]);
    EXPECT_EQ(failed.interface_id, kImsInterface);
    EXPECT_EQ(failed.status, 1u);
    EXPECT_EQ(failed.active, 0u);
    EXPECT_EQ(failed.sim_id, 1u);
    EXPECT_EQ(failed.sim_byte, 1u);
    EXPECT_EQ(rild_req_interface_id, -1);
    EXPECT_EQ(ims_para_slot(kImsInterface)->response.status, 1u);
    EXPECT_EQ(h.stray_events(), 0);

    // A second indication finds no current request.
    h.clear();
    h.send(h.ril(), EVENT_DATAMNGR_SETUP_DATA_CALL_FAIL_IND, ind);
    h.pump();
    EXPECT_EQ(lines("dm_setup_data_call_fail_ind", "DMGR-ERR",
                    "dm_setup_data_call_fail_ind invalid curr req interface id -1\n"),
              1u);
    EXPECT_TRUE(h.sent_with_id(EVENT_RB_SETUP_DATA_CALL_IND).empty());
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnNotifyTest, AnswerNotifyIsAcknowledgedWithTheAnswersSim) {
    Peer &rb2 = h.task(TASK_RB_SIM0 + 2);
    auto answer = setup_resp(3, 2);
    answer->num_calls = 1;
    answer->calls[0] = default_bearer(1, 3);
    notifier.send(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_NOTIFY, answer.get(),
                  sizeof(*answer));
    h.pump();

    auto acks = h.sent_to(notifier.id(), EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_ACK);
    ASSERT_EQ(acks.size(), 1u);
    auto ack = record_of<SetupAck>(acks[0]);
    EXPECT_EQ(ack.result, 0u);
    EXPECT_EQ(ack.sim_id, 2u);
    EXPECT_NE(find_pdn_info_by_cid(1), nullptr);
    auto to_rb = rb2.received();
    ASSERT_EQ(to_rb.size(), 1u);
    EXPECT_EQ(to_rb[0].event_id, EVENT_RB_SETUP_DATA_CALL_IND);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnNotifyTest, FailureNotifyIsAcknowledgedEvenWithoutACurrentRequest) {
    SetupFailInd ind = {9, 3};
    h.send(notifier, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_FAIL_NOTIFY, ind);
    h.pump();
    auto acks = h.sent_to(notifier.id(), EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_ACK);
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(record_of<SetupAck>(acks[0]).result, 0u);
    EXPECT_EQ(record_of<SetupAck>(acks[0]).sim_id, 0u);
    EXPECT_TRUE(h.sent_with_id(EVENT_RB_SETUP_DATA_CALL_IND).empty());

    // With a current request, the failure goes to RB as well.
    rild_req_interface_id = 2;
    h.send(notifier, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_FAIL_NOTIFY, ind);
    h.pump();
    EXPECT_EQ(h.sent_to(notifier.id(), EVENT_DATAMNGR_SETUP_DATA_CALL_RESP_ACK).size(), 2u);
    EXPECT_EQ(h.sent_to(TASK_RB_SIM3, EVENT_RB_SETUP_DATA_CALL_IND).size(), 1u);
    EXPECT_EQ(h.stray_events(), 0);
}

// ---- operator hooks ----

int g_checks = 0;
int g_answers = 0;
int32_t g_check_result = 0;
int32_t check_setup(SetupDataCallReq *, evfw_event_t *) {
    ++g_checks;
    return g_check_result;
}
int32_t see_answer(SetupDataCallResp *, evfw_event_t *) {
    ++g_answers;
    return 0;
}

class PdnOperatorHookTest : public PdnSetupTest {
  protected:
    void SetUp() override {
        g_checks = g_answers = 0;
        hooks_.setup_req_check = check_setup;
        hooks_.setup_resp = see_answer;
        dm_set_operator_hooks(&hooks_);
        epdg_on();
        h.announce(imsm);
        h.announce_ril();
    }
    OperatorHooks hooks_ = {};
};

TEST_F(PdnOperatorHookTest, RejectedRequestIsAnsweredThroughTheOwnQueueAsAFailure) {
    g_check_result = 1;
    h.send(imsm, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, setup_req("ims", kImsInterface, 0));
    h.pump();

    EXPECT_EQ(g_checks, 1);
    EXPECT_EQ(
            lines("dm_setup_data_call_req", "DMGR-INF", "dm_setup_data_call_req operator reject\n"),
            1u);
    EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());
    auto to_self = h.sent_to(TASK_DATAMNGR, EVENT_DATAMNGR_SETUP_DATA_CALL_RESP);
    ASSERT_EQ(to_self.size(), 1u);
    EXPECT_EQ(to_self[0].from, static_cast<uint32_t>(TASK_DATAMNGR));
    EXPECT_EQ(lines("dm_setup_data_call_resp", "DMGR-ERR",
                    "dm_setup_data_call_resp response fail status 1\n"),
              1u);
    auto to_rb = h.sent_to(TASK_RB_SIM0, EVENT_RB_SETUP_DATA_CALL_CNF);
    ASSERT_EQ(to_rb.size(), 1u);
    EXPECT_EQ(record_of<SetupDataCallResp>(to_rb[0]).status, 1u);
    EXPECT_EQ(g_answers, 0);  // failures are not shown to the answer hook
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnOperatorHookTest, AcceptedRequestGoesOnAndTheSuccessfulAnswerIsShownToTheHook) {
    g_check_result = 0;
    auto answer = setup_resp(2);
    ril_answers_with(*answer);
    h.send(imsm, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, setup_req("internet", 2));
    h.pump();
    EXPECT_EQ(g_checks, 1);
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ).size(), 1u);
    EXPECT_EQ(g_answers, 1);
    EXPECT_EQ(h.stray_events(), 0);
}

TEST_F(PdnOperatorHookTest, TableWithoutTheEntriesChangesNothing) {
    hooks_ = {};
    g_check_result = 1;
    h.send(imsm, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ, setup_req("internet", 2));
    h.pump();
    EXPECT_EQ(g_checks, 0);
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_SETUP_DATA_CALL_REQ).size(), 1u);
}

}  // namespace
