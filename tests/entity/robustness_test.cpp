// Bad input through the whole entity: every id of the event table (and ids
// outside it) at lengths around the expected one, with payloads of zeros, of
// text without a NUL and of all-ones words; cids and interface ids at the
// edges of the PDN tables; a URC text that fills its field.  Whatever comes
// in, the dispatcher refuses or handles it, and every event is freed, held
// by the registry or the pending queue, or one of the prescribed leaks.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "dati/dati.h"
#include "entity/datamngr.h"
#include "entity/dm_send.h"
#include "pdn/pdn_records.h"
#include "testkit/testkit.h"

namespace {

using dm::testkit::Harness;
using dm::testkit::Peer;
using dm::testkit::Runtime;

// Every id the dispatcher's table knows, as the library reports it, and a
// few it does not.
std::vector<uint32_t> matrix_ids() {
    std::vector<uint32_t> ids;
    for (uint32_t id = 3000; id <= 9400; ++id) {
        bool known = false;
        dm_expected_length(id, &known);
        if (known) ids.push_back(id);
    }
    for (uint32_t id : {0u, 4027u, 4070u, 5000u, UINT32_MAX}) ids.push_back(id);
    return ids;
}

void expect_balanced(Harness &h) {
    EXPECT_EQ(h.unaccounted_events(), 0);
    EXPECT_EQ(h.rt().bad_frees(), 0);
    ASSERT_NE(h.entity(), nullptr);
    EXPECT_EQ(h.entity()->cur_event, nullptr);
}

class EventMatrixTest : public ::testing::TestWithParam<uint32_t> {};

TEST_P(EventMatrixTest, EveryLengthAndFillIsRefusedOrHandledAndAccounted) {
    const uint32_t id = GetParam();
    const uint32_t expected = dm_expected_length(id, nullptr);
    std::set<uint32_t> lengths = {0, 1, 7, 8, 9, expected, expected + 1};
    if (expected > 0) lengths.insert(expected - 1);

    // Zeros; text with no NUL anywhere; words of -1 (cids, interface ids,
    // counts all out of range).
    for (uint8_t fill : {uint8_t{0x00}, uint8_t{'A'}, uint8_t{0xff}}) {
        for (uint32_t len : lengths) {
            SCOPED_TRACE(::testing::Message()
                         << "id " << id << " len " << len << " fill 0x" << std::hex << int{fill});
            Harness h;
            Peer &imsm = h.client("imsm_0");
            h.announce(imsm);
            h.announce_ril();
            h.clear();

            std::vector<uint8_t> payload(len, fill);
            h.send_bytes(imsm, id, payload);
            h.pump();

            const bool refused = len != expected && len != 8;
            const bool failure_answer = len != expected && len == 8;
            char length_error[96];
            snprintf(length_error, sizeof(length_error),
                     "[DMGR-ERR] event id %u invalid message length %u != %u", id, len, expected);
            EXPECT_EQ(h.logged(length_error), refused);
            if (refused) {
                EXPECT_TRUE(h.sent_to(TASK_RILDPROXY).empty());
                EXPECT_TRUE(h.sent_to(imsm.id()).empty());
            }
            if (failure_answer) {
                // The peer's 8-byte failure goes back to it under the id it failed.
                auto answers = h.sent_to(imsm.id());
                ASSERT_EQ(answers.size(), 1u);
                EXPECT_EQ(answers[0].event_id, id);
                EXPECT_EQ(answers[0].data, payload);
            }
            expect_balanced(h);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllIds, EventMatrixTest, ::testing::ValuesIn(matrix_ids()),
                         [](const ::testing::TestParamInfo<uint32_t> &info) {
                             return "Id" + std::to_string(info.param);
                         });

// ---- the edges of the PDN tables --------------------------------------------

struct CidCase {
    int32_t value;
    bool has_row;  // cid 0..15 (cellular) or 100..115 (ePDG)
};

void PrintTo(const CidCase &c, std::ostream *os) {
    *os << "cid " << c.value;
}

class PdnEdgeTest : public ::testing::TestWithParam<CidCase> {
  protected:
    void TearDown() override { expect_balanced(h); }

    template <class T>
    void from_ril(uint32_t id, const T &record) {
        h.send(h.ril(), id, record);
        h.pump();
    }
    template <class T>
    void from_imsm(uint32_t id, const T &record) {
        h.send(imsm, id, record);
        h.pump();
    }

    Harness h;
    Peer &imsm = h.client("imsm_0");
};

TEST_P(PdnEdgeTest, ABearerIsKeptOnlyUnderACidThatNamesARow) {
    const CidCase &c = GetParam();
    h.announce(imsm);
    h.announce_ril();
    const uint32_t interface_id = 3;

    // The network reports a bearer under the cid: a row exists afterwards
    // only where the cid is a row of one of the tables.
    DedicateBearerInd ind = {};
    ind.entry.interface_id = interface_id;
    ind.entry.primary_cid = static_cast<uint32_t>(c.value);
    ind.entry.cid = c.value;
    from_ril(EVENT_DATAMNGR_DEDICATE_BEARER_ACTIVATED_URC, ind);
    EXPECT_EQ(h.logged("update_pdn_info find pdn by index " + std::to_string(c.value) + " fail"),
              !c.has_row);

    WordPair query = {static_cast<uint32_t>(c.value), 0};
    from_imsm(EVENT_DATAMNGR_BEAR_REQ, query);
    auto bearer = h.sent_to(imsm.id(), EVENT_DATAMNGR_BEAR_RESP);
    ASSERT_EQ(bearer.size(), 1u);
    EXPECT_EQ(bearer[0].len, c.has_row ? sizeof(BearResp) : sizeof(WordPair));

    WordPair by_interface = {interface_id, 0};
    from_imsm(EVENT_DATAMNGR_GET_CID_REQ, by_interface);
    auto cid = h.sent_to(imsm.id(), EVENT_DATAMNGR_GET_CID_RESP);
    ASSERT_EQ(cid.size(), 1u);
    CidResp answer = dm::testkit::record_of<CidResp>(cid[0]);
    EXPECT_EQ(answer.result, c.has_row ? 0 : -1);
    EXPECT_EQ(answer.cid, c.has_row ? static_cast<uint32_t>(c.value) : 0u);

    // Its teardown reaches the RIL, by interface, only when the row exists.
    DeactivateReq deact = {static_cast<uint32_t>(c.value), 0, {}};
    from_imsm(EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ, deact);
    auto relayed = h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ);
    ASSERT_EQ(relayed.size(), c.has_row ? 1u : 0u);
    if (c.has_row) {
        EXPECT_EQ(dm::testkit::record_of<DeactivateReq>(relayed[0]).id, interface_id);
    }
}

TEST_P(PdnEdgeTest, RbDeactivationIsRelayedForEveryInterfaceButTheNoneValue) {
    const CidCase &c = GetParam();
    h.announce(imsm);
    h.announce_ril();
    // No PDN on any interface: the cid query is answered, not found.
    WordPair by_interface = {static_cast<uint32_t>(c.value), 0};
    from_imsm(EVENT_DATAMNGR_GET_CID_REQ, by_interface);
    auto cid = h.sent_to(imsm.id(), EVENT_DATAMNGR_GET_CID_RESP);
    ASSERT_EQ(cid.size(), 1u);
    EXPECT_EQ(dm::testkit::record_of<CidResp>(cid[0]).result, -1);

    DeactivateReq deact = {static_cast<uint32_t>(c.value), 7, {}};
    h.send(h.task(TASK_RB_SIM0), EVENT_RB_DEACTIVATE_DATA_CALL_REQ, deact);
    h.pump();
    auto relayed = h.sent_to(TASK_RILDPROXY, EVENT_DATAMNGR_DEACTIVATE_DATA_CALL_REQ);
    if (c.value == -1) {
        EXPECT_TRUE(relayed.empty());
        EXPECT_TRUE(h.logged("can't find interface by cid 4294967295"));
    } else {
        ASSERT_EQ(relayed.size(), 1u);
        DeactivateReq sent = dm::testkit::record_of<DeactivateReq>(relayed[0]);
        EXPECT_EQ(sent.id, static_cast<uint32_t>(c.value));
        EXPECT_EQ(sent.cause, 100);
    }
}

INSTANTIATE_TEST_SUITE_P(Edges, PdnEdgeTest,
                         ::testing::Values(CidCase{-1, false}, CidCase{0, true}, CidCase{15, true},
                                           CidCase{16, false}, CidCase{99, false},
                                           CidCase{100, true}, CidCase{115, true},
                                           CidCase{116, false}, CidCase{INT_MAX, false}));

// ---- a URC that fills its field -----------------------------------------------

TEST(UrcFieldTest, AUrcFillingItsWholeFieldIsPassedOnCutToTheClientsField) {
    Harness h;
    // The AT interface task has had an event: passed-on URCs leave from it.
    h.task(TASK_ATI_ATC).send(TASK_DATAMNGR_DATI_HDL, 0, nullptr, 0);
    h.pump();

    AtUrc urc = {};
    const std::string head = "+CGEV: ME PDN ACT ";
    memset(urc.text, '1', sizeof(urc.text));
    memcpy(urc.text, head.data(), head.size());
    h.send(h.task(TASK_ATMNGR), EVENT_ATMNGR_URC, urc);
    h.pump();

    auto passed = h.sent_to(TASK_ATI_URC, EVENT_ATI_URC);
    ASSERT_EQ(passed.size(), 1u);
    AtUrc out = dm::testkit::record_of<AtUrc>(passed[0]);
    std::string text(out.text, strnlen(out.text, sizeof(out.text)));
    EXPECT_EQ(text, head + std::string(sizeof(urc.text) - 1 - head.size(), '1'));
    expect_balanced(h);
}

// ---- the prescribed leaks, as the accounting counts them ------------------------

TEST(PrescribedLeakTest, EachPrescribedLeakIsCountedOnceAndNothingElse) {
    Harness h;
    h.announce_ril();
    Peer &ati = h.task(TASK_ATI_ATC);
    auto at = [&](const std::string &line) {
        ati.send(TASK_DATAMNGR_DATI_HDL, EVENT_DATAMNGR_ATCMD_REQ, line.c_str(), line.size() + 1);
        h.pump();
    };
    at("AT+VZWACT=1,\"vzwinternet\"\r");  // keeps its reply
    EXPECT_EQ(h.prescribed_leaks(), 1);
    at("AT+VZWACT=\r");     // the tokeniser finds nothing: "ERROR", reply released
    at("at+vzwact=0,x\r");  // keeps its reply; the first one is overwritten in the slot
    at("AT+VZWACT?\r");
    at("AT+CGACT=2,1\r");
    EXPECT_EQ(h.prescribed_leaks(), 2);

    // Logs dropped by clear() keep their count.
    h.clear();
    EXPECT_EQ(h.prescribed_leaks(), 2);
    h.announce(h.client("lanmngr"), "nobody");
    EXPECT_EQ(h.prescribed_leaks(), 3);
    EXPECT_EQ(h.unaccounted_events(), 0);

    // A send while no entity state is known: its event is not released
    // either.  (The exit finds its state through the entity record.)
    datamngr_state_reset();
    uint32_t word = 0;
    dm_send_to_task(TASK_RILDPROXY, &word, sizeof(word), nullptr, EVENT_DATAMNGR_ALLOW_DATA_REQ);
    dm_resp_to_external_channel(&word, sizeof(word), nullptr, EVENT_DATAMNGR_ALLOW_DATA_RESP);
    EXPECT_EQ(h.prescribed_leaks(), 5);
    EXPECT_EQ(h.unaccounted_events(), 0);
    EXPECT_EQ(h.rt().bad_frees(), 0);
}

// ---- the shared object under leak checkers ------------------------------------

// Leak checkers look at the process when it exits: the data manager's object,
// unloaded by then, must still be mapped for them to name its frames and to
// see the events its registry holds.
TEST(LeakCheckLoadTest, KeptLoadedTheObjectStaysMappedAfterItsUnload) {
    const char *lib = getenv("DM_LIBRARY");
    ASSERT_NE(lib, nullptr) << "DM_LIBRARY names the data manager's shared object";
    Runtime &rt = Runtime::instance();
    auto load_and_unload = [&] {
        rt.reset();
        ASSERT_NE(rt.load_library(lib, "datamngr", "datamngr_entity_init", "datamngr_entity_exit",
                                  {{TASK_DATAMNGR_DATI_HDL, "datamngr_dati_task_hdl"}}),
                  nullptr)
                << rt.last_error();
        rt.run_threads();
        rt.unload();
        rt.reset();
    };
    auto mapped = [&] {
        void *dl = dlopen(lib, RTLD_NOW | RTLD_NOLOAD);
        if (dl != nullptr) dlclose(dl);
        return dl != nullptr;
    };
    const char *was = getenv("EVFW_HOST_KEEP_LOADED");
    const std::string saved = was != nullptr ? was : "";

    // Without the setting first: an object once kept stays for good.
    unsetenv("EVFW_HOST_KEEP_LOADED");
    if (mapped()) GTEST_SKIP() << "an earlier load in this process kept the object";
    load_and_unload();
    EXPECT_FALSE(mapped()) << "the unload closes the object";

    setenv("EVFW_HOST_KEEP_LOADED", "1", 1);
    load_and_unload();
    EXPECT_TRUE(mapped()) << "with EVFW_HOST_KEEP_LOADED=1 it stays mapped";

    if (was != nullptr) {
        setenv("EVFW_HOST_KEEP_LOADED", saved.c_str(), 1);
    } else {
        unsetenv("EVFW_HOST_KEEP_LOADED");
    }
}

}  // namespace
