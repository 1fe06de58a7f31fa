// The entity where the framework and other modules call it directly: start
// and stop, the log line, refusals and the results other modules read, the
// registry's lookups, the exported request senders and imported calls
// failing.  Event flows are in the scenario tables beside.
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "common/dm_test.h"
#include "entity/client_senders.h"
#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "entity/operator_hooks.h"
#include "entity/pdn_state.h"
#include "entity/task_info.h"
#include "pdn/pdn_info.h"
#include "pdn/relay.h"

namespace {

using namespace dm_test;
using dm::log::Module;
using dm::testkit::Harness;
using evfw_host::Runtime;

// What lines get before the entity starts and before anything sets the
// level: taken while the program starts.
const uint32_t kLevelAtStart = dm_debug_lv;
const char *const kTagsAtStart[] = {dm::log::tag(Module::Entity), dm::log::tag(Module::Pdn),
                                    dm::log::tag(Module::Ims), dm::log::tag(Module::Dati)};
uint32_t g_word = 7;

// ---- start and stop, without the test kit's load --------------------------------

class Lifecycle : public ::testing::Test {
  protected:
    void SetUp() override {
        dm::testkit::reset_library_state();
        rt.reset();
    }
    void TearDown() override {
        rt.unload();
        EXPECT_EQ(rt.bad_unlocks(), 0);
        dm::testkit::reset_library_state();
        rt.reset();
    }
    evfw_entity_t *load() {
        return rt.load("datamngr", {datamngr_entity_init, datamngr_entity_exit, {}});
    }
    Runtime &rt = Runtime::instance();
};

TEST_F(Lifecycle, InitMakesItsCallsInOrderItsThreadClearsThePdnTablesAndExitUndoesThem) {
    std::vector<std::string> want = {"evfw_mutex_init", "evfw_task_init(41,402)",
                                     "evfw_task_init(41,403)", "evfw_task_init(41,404)"};
    for (int id : {4002, 4003, 4019, 4005, 4007, 4009, 4011, 4013, 4015, 4017, 4027, 4028,
                   4029, 4035, 4049, 4045, 4047, 4041, 4043, 4062, 4063, 4058, 4060})
        want.push_back("evfw_connmngr_common_subscribe(402," + std::to_string(id) + ",1)");
    want.insert(want.end(), {"evfw_atmngr_subscribe_urc(402,+CGEV,3006,4)", "set_hdl(402)",
                             "evfw_thrd_init", "evfw_thrd_start"});
    evfw_entity_t *entity = load();
    ASSERT_NE(entity, nullptr);
    EXPECT_EQ(rt.calls(), want);
    auto *state = static_cast<DatamngrEntity *>(entity->priv);
    ASSERT_EQ(state, dm_entity());
    // The daemon's tag from the start.
    EXPECT_EQ(std::tuple(entity->id, rt.logs().at(0).tag, state->entity),
              std::tuple(41u, android_log_tag[2], entity));
    for (const AtPdpContext &ctx : state->at_pdp_ctx)
        EXPECT_EQ(std::tuple(ctx.state, ctx.cid), std::tuple(-1, -1));
    // The AT command interface's thread finds the entity mutex free.
    rt.set_wait_limit(std::chrono::milliseconds(200));
    std::thread([state] { dm_entity_lock(state), dm_entity_unlock(state); }).join();
    EXPECT_EQ(rt.timeouts(), 0);
    // The init thread clears the PDN tables.
    DataCallEntry entry = {0, 0, 0, 3, {}};
    update_pdn_info(&entry, nullptr);
    EXPECT_TRUE(rt.wait_threads(std::chrono::seconds(2)));
    EXPECT_EQ(find_pdn_info_by_cid(3), nullptr);
    // The thread waits for every entity of the daemon: here for one still in its init.
    static int waited = -1;
    auto other_init = [](evfw_entity_t *e) { return waited = datamngr_init_thrd(dm_entity()), e; };
    rt.load("other", {other_init, nullptr, {}});
    EXPECT_EQ(std::tuple(datamngr_init(nullptr), waited), std::tuple(0, 0));
    EXPECT_TRUE(rt.diagnostics().back().text.starts_with("evfw_wait_all_entity_init called"));
    rt.unload();
    const auto calls = rt.calls();
    EXPECT_EQ(std::vector<std::string>(calls.end() - 4, calls.end()),
              (std::vector<std::string>{"evfw_task_exit(404)", "evfw_task_exit(402)",
                                        "evfw_task_exit(403)", "evfw_mutex_exit"}));
}

TEST_F(Lifecycle, WithoutEntityRecordTheTasksGetEntityIdZeroAndExitClearsOnlyTheId) {
    EXPECT_EQ(datamngr_entity_init(nullptr), nullptr);
    EXPECT_EQ(rt.calls().at(2), "evfw_task_init(0,403)");
    for (void *priv : {static_cast<void *>(dm_entity()), static_cast<void *>(nullptr)}) {
        evfw_entity_t record = {41, priv, nullptr};
        EXPECT_EQ(std::tuple(datamngr_entity_exit(&record), record.id), std::tuple(&record, 0u));
    }
    EXPECT_EQ(std::tuple(datamngr_entity_exit(nullptr), rt.calls().back()),
              std::tuple(nullptr, "evfw_mutex_exit"));
}

TEST_F(Lifecycle, UrcPrefixesOfTheOperatorAndTheDefaultTable) {
    static const char *const kPrefixes[] = {"+EOPA", "", "+EOPB"};
    OperatorHooks hooks = {};
    hooks.urc_count = [] { return 3; };
    hooks.urc_prefix = [](int32_t i, char *out, int32_t *flag) {
        return kPrefixes[i][0] == '\0' ? -1 : (strcpy(out, kPrefixes[i]), *flag = i, 0);
    };
    dm_set_operator_hooks(&hooks);
    load();
    hooks = {};
    EXPECT_EQ(dm_register_urc(&dm_entity()->main_task, 3008), 0);
    std::string urcs;
    for (const auto &u : rt.urc_subscriptions())
        urcs += u.prefix + std::to_string(u.mode) + "/" + std::to_string(u.event_id) + " ";
    EXPECT_EQ(urcs, "+EOPA1/3006 +EOPB4/3006 +CGEV4/3006 +CGEV4/3008 ");
    char prefix[16] = "untouched";
    int32_t flag = 7;
    EXPECT_EQ(
            values({dm_get_default_urc_prefix(1, prefix, &flag),
                    dm_get_default_urc_prefix(-1, prefix, &flag), strcmp(prefix, "untouched"), flag,
                    dm_get_default_urc_prefix(0, prefix, &flag), strcmp(prefix, "+CGEV"), flag}),
            "-1 -1 0 7 0 0 1");
}

// ---- the log line ---------------------------------------------------------------

constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

void a_function_name_longer_than_twenty_four() {
    DM_LOGI("cut");
}

// Each level with its priority, on by its bit of dm_debug_lv (all from the
// start); the AT command interface's lines carry no level word and are never
// gated.  The tag follows the process and the binding.
TEST_F(Lifecycle, LogLinesCarryTheirLevelPriorityAndTagAndAreGatedByTheDebugLevel) {
    EXPECT_EQ(kLevelAtStart, 15u);
    for (auto [lv, want] :
         {std::pair{5u, "6[DMGR-ERR] e 1;4[DMGR-INF] i;3Fun = 1;"},
          {10u, "5[DMGR-WAR] w;3[DMGR-DBG] d;3Fun = 1;"},
          {15u, "6[DMGR-ERR] e 1;5[DMGR-WAR] w;4[DMGR-INF] i;3[DMGR-DBG] d;3Fun = 1;"}}) {
        dm_debug_lv = lv;
        rt.clear_logs();
        DM_LOGE("e %d", 1);
        DM_LOGW("w");
        DM_LOGI("i");
        DM_LOGD("d");
        DATI_LOGD("Fun = %s", "1");
        std::string got;
        for (const auto &l : rt.logs())
            got += std::to_string(l.prio) + l.text.substr(34) + ";";  // after the header
        EXPECT_EQ(got, want) << lv;
    }
    // The tag index: unset until the entity starts (entry 0 in the daemon's
    // process, 1 elsewhere), then 2 in the daemon's process and 10 elsewhere.
    for (const char *tag : kTagsAtStart)
        EXPECT_TRUE(tag == android_log_tag[0] || tag == android_log_tag[1]);
    const pid_t daemon = rvn_pid;
    for (auto [pid, bound, index] : {std::tuple{getpid(), false, 0},
                                     {getpid() + 1, false, 1},
                                     {getpid(), true, 2},
                                     {getpid() + 1, true, 10}}) {
        rvn_pid = pid;
        dm::log::unbind_tags();
        if (bound) dm::log::bind_tags();
        rt.clear_logs();
        a_function_name_longer_than_twenty_four();  // the header cuts the name to 24 columns
        EXPECT_EQ(std::tuple(rt.logs().at(0).tag, rt.logs()[0].text.substr(0, 28)),
                  std::tuple(android_log_tag[index], " (a_function_name_longer_t, "));
    }
    rvn_pid = daemon;
}

// ---- refusals and results -------------------------------------------------------

class Entity : public DmTest {};

TEST_F(Entity, DispatcherAndReplyRefuseBadArgumentsAndTellWhoKeepsTheEvent) {
    DatamngrEntity *e = h.entity();
    evfw_event_t *event = evfw_event_alloc(nullptr);
    EXPECT_EQ(datamngr_main_hdl(nullptr, event, e), nullptr);
    EXPECT_EQ(datamngr_main_hdl(&e->main_task, event, nullptr), nullptr);
    EXPECT_EQ(datamngr_main_hdl(&e->main_task, nullptr, e), nullptr);
    EXPECT_EQ(logged("[DMGR-ERR] datamngr_main_hdl(): Invalid argument!!"), 3u);
    evfw_event_free(event);

    EXPECT_EQ(datamngr_ext_send(e, 4059, &g_word, 4), -1);  // no current event
    e->cur_event = evfw_event_alloc(nullptr);
    EXPECT_EQ(
            std::tuple(datamngr_ext_send(nullptr, 4059, &g_word, 4),
                       datamngr_ext_send(e, 0, &g_word, 4), datamngr_ext_send(e, 4059, nullptr, 4)),
            std::tuple(-1, -1, -1));
    EXPECT_EQ(logged("[DMGR-ERR] datamngr_ext_send(): Invalid argument!!"), 4u);
    // A legacy answer dropped on another event leaves the current one alone.
    dm_deliver_answer_to(const_cast<TaskInfo *>(task_info_row(6)), "op", &g_word, 4,
                         evfw_event_alloc(nullptr), 4012);
    ASSERT_NE(e->cur_event, nullptr);
    // An empty reply is valid; the event then belongs to the framework.
    EXPECT_EQ(datamngr_ext_send(e, 4059, nullptr, 0), 0);
    auto sent = h.sent_with_id(4059);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(std::tuple(e->cur_event, sent[0].len), std::tuple(nullptr, 0u));
}

TEST_F(Entity, SendsBeforeInitAreRefusedAndLeaveTheirEvent) {
    h.rt().unload();
    datamngr_state_reset();
    EXPECT_EQ(values({dm_send_to_task(TASK_RILDPROXY, &g_word, 4, nullptr, 4003),
                      dm_send_to_task_wait_for_event(TASK_ATMNGR, &g_word, 4, nullptr, 3002, 3004),
                      dm_req_to_self(&g_word, 4, nullptr, 4033),
                      dm_resp_to_external_channel(&g_word, 4, nullptr, 4042),
                      count("[DMGR-ERR] dm_send_to_task NULL entity pointer"),
                      count("[DMGR-ERR] dm_send_to_task_wait_for_event NULL entity pointer"),
                      count("[DMGR-ERR] dm_resp_to_external_channel before entity init"),
                      h.rt().live_events(), static_cast<long>(h.rt().trace().size())}),
              "-1 -1 -1 -1 2 1 1 4 0");
}

// The routines other modules call report what they did.
TEST_F(Entity, SendRoutinesAndServicesReportTheirResults) {
    evfw_event_t *source = evfw_event_alloc(nullptr);
    Bytes name = dm::testkit::announcement("rildproxy");
    // Held while the RIL proxy is not ready; its announcement sends the queue.
    EXPECT_EQ(values({dm_req_to_rild(&g_word, 4, source, 4019),
                      dm_queue_event_if_not_ready(&g_word, 4, source, 4019), dm_rild_ready(),
                      dm_notification(name.data(), source), dm_rild_ready(), dm_flush_event(),
                      dm_queue_event_if_not_ready(&g_word, 4, source, 4019),
                      dm_req_to_rild(&g_word, 4, source, 4019),
                      dm_req_to_self(&g_word, 4, source, 3008),
                      dm_resp_to_external_channel(&g_word, 4, source, 4044)}),
              "0 0 0 0 1 0 -1 0 0 0");
    h.rt().set_property("ro.qpx_multiple_ims_support", "0");
    EXPECT_EQ(dm_notify_to_imsm(&g_word, 4, 4021, 0), -1);  // imsm_0 never announced
    h.announce(h.client("imsm_0"));
    EXPECT_EQ(values({dm_notify_to_imsm(&g_word, 4, 4021, 0),
                      dm_send_req_notification(h.client("imsm_0").ctx(), nullptr),
                      count("[DMGR-ERR] dm_send_req_notification NULL name")}),
              "0 0 1");
    evfw_event_free(source);
    PdnStateReply reply = {};
    PdnStateSetReq set = {};
    EXPECT_EQ(std::tuple(datamngr_set_pdn_state(nullptr, &set, &reply),
                         datamngr_set_pdn_state(h.entity(), &set, nullptr),
                         datamngr_get_pdn_state(h.entity(), nullptr, &reply)),
              std::tuple(-1, -1, -1));
    h.pump();
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, 4019).size(), 2u);
}

TEST_F(Entity, RegistryRowsAndLookups) {
    std::string rows;
    for (int i = 0; i < kTaskInfoRows; ++i) {
        const TaskInfo *r = task_info_row(i);
        rows += std::string(r->name) + " " + std::to_string(r->dest) + " " +
                std::to_string(r->task_id) + " " + std::to_string(r->flag) + ",";
    }
    EXPECT_EQ(rows,
              "imsm_0 0 0 1,imsm_0 0 0 1,imsm_1 0 0 1,imsm_2 0 0 1,imsm_3 0 0 1,lanmngr 0 0 0,"
              "ati 1 0 1,ati1 1 0 1,ati2 1 0 1,ati3 1 0 1,ati4 1 0 1,rildproxy 2 202 0,");
    EXPECT_EQ(std::tuple(task_info_row(12), task_info_row(-1)), std::tuple(nullptr, nullptr));
    // The dispatcher's lengths, as the fuzzers read them.
    bool known = false;
    EXPECT_EQ(values({dm_expected_length(4003, &known), known, dm_expected_length(5000, &known),
                      known, dm_expected_length(4004, nullptr)}),
              "704 1 0 0 47876");
    h.announce(h.client("imsm_2"));
    EXPECT_EQ(query_task_info_by_name("nobody"), nullptr);
    EXPECT_EQ(logged("[DMGR-ERR] query_task_info_by_name for nobody fail"), 1u);
    EXPECT_EQ(query_task_info_by_name("imsm_1"), nullptr);  // a row, no announcement
    EXPECT_EQ(logged("query_task_info_by_name"), 1u);
    evfw_event_t *from_imsm2 = evfw_event_alloc(query_task_info_by_name("imsm_2"));
    for (auto [sim, from] : {std::pair{2u, 1}, {1u, 0}, {3u, 0}})
        EXPECT_EQ(is_event_from_imsm(&sim, from_imsm2), from) << sim;
    EXPECT_EQ(query_task_info(from_imsm2), task_info_row(3));
    evfw_event_free(from_imsm2);
}

// ---- the exported request senders ------------------------------------------------

struct SenderCase {
    const char *name;
    int32_t (*send)(evfw_context_t *);
    uint32_t event_id, to;
    std::vector<Bytes> payloads;
};
SenderCase sends(const char *name, int32_t (*send)(evfw_context_t *), uint32_t event_id,
                 uint32_t to, std::vector<Bytes> payloads) {
    return {name, send, event_id, to, std::move(payloads)};
}
Bytes text_at(Bytes b, size_t offset, std::string_view text) {
    return put_text(b, offset, text), b;
}
Bytes urc(std::string_view line) {
    return text_at(Bytes(4108), 12, line);
}
const std::string kLongName(200, 'n');

const SenderCase kSenders[] = {
        // A name is cut to keep its terminator.
        sends("Notification",
              [](evfw_context_t *c) { return dm_send_req_notification(c, kLongName.c_str()); },
              4002, 402, {text_at(Bytes(132), 0, kLongName.substr(0, 131))}),
        sends("SetupRequests", dm_send_req_setup_data_call, 4003, 402,
              {Bytes(704), words(704, {{656, 1}, {680, 1}}), words(704, {{656, 1}})}),
        sends("SetupAnswers", dm_send_resp_setup_data_call, 4004, 402,
              {words(47876, {{24, 1}, {188, 1}}), text_at(words(47876, {{176, 1}}), 28, "pdnet3"),
               words(47876, {{24, 2}, {176, 1}, {188, 1}})}),
        sends("RadioPower", dm_send_req_radio_power, 4032, 402, {Bytes(8)}),
        sends("Handover", dm_send_ho_notify, 9318, 402, {Bytes{0, 1, 0, 0, 0, 0}}),
        sends("Urc", dm_send_urc, 3006, 402,
              {urc("+EAPNMOD: \"VZWINTERNET\""), urc("+ECCAUSE: \"emm_cause\", 28"),
               urc("+ECCAUSE: \"emm_cause\", 50"), urc("+ECCAUSE: \"emm_cause\", 51"),
               urc("+ECCAUSE: \"emm_cause\", 39"), urc("+ECCAUSE: \"emm_cause\", 54")}),
        sends("NetlinkListen", dm_send_req_netlink_listen, 4070, 404, {words(4, {{0, 5566}})}),
};

class Senders : public DmTest, public ::testing::WithParamInterface<SenderCase> {};

TEST_P(Senders, SendTheirEventsFromTheCallersContextAndNothingWithoutOne) {
    const SenderCase &c = GetParam();
    auto &lan = h.client("lanmngr");
    EXPECT_EQ(values({c.send(nullptr), h.rt().trace().empty(), c.send(lan.ctx())}), "0 1 0");
    auto sent = h.rt().trace();
    ASSERT_EQ(sent.size(), c.payloads.size());
    for (size_t i = 0; i < sent.size(); ++i)
        EXPECT_EQ(std::tuple(sent[i].from, sent[i].event_id, sent[i].to, sent[i].data),
                  std::tuple(lan.id(), c.event_id, c.to, c.payloads[i]))
                << i;
}

INSTANTIATE_TEST_SUITE_P(All, Senders, ::testing::ValuesIn(kSenders),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- imported calls failing ---------------------------------------------------
// Where the library calls them directly: a fault plan fails the next call of
// one kind, and the routine that saw it gives its result and its log lines,
// with every event accounted for (the fixture).  The fault sweep fails every
// call the shipped scenarios reach; these are the calls only other modules'
// direct calls reach, and the results a scenario cannot see.

struct FaultCase {
    const char *name;
    const char *plan;  // the call and which one fails
    int32_t (*act)(Harness &h);
    int32_t result;
    const char *line, *line2 = nullptr;  // log lines, once each
};

// Each call as another module makes it.
const FaultCase kFaults[] = {
        {"PropertyAbsent", "property_get:1",
         [](Harness &) { return dm_notify_to_imsm(&g_word, 4, 4042, 0); }, -1,
         "[DMGR-ERR] rvn_datamngr_set_hdr(): property_get(qpx_multiple_ims_support) error!!"},
        // Several IMS stacks: the main SIM's property is read second.
        {"MainSimAbsent", "property_get:2",
         [](Harness &h) {
             h.rt().set_property("ro.qpx_multiple_ims_support", "1");
             return dm_notify_to_imsm(&g_word, 4, 4042, 0);
         },
         -1, "[DMGR-ERR] rvn_datamngr_set_hdr(): property_get(simswitch) error!!"},
        {"NoEventToSend", "evfw_event_alloc:1",
         [](Harness &) { return dm_send_to_task(TASK_RILDPROXY, &g_word, 4, nullptr, 4003); }, -1,
         "[DMGR-ERR] dm_send_to_task no event for event id 4003 to task 202"},
        // The request went out before the wait gave up: the event is the framework's.
        {"WaitGivesUp", "evfw_task_send_recv_event:1",
         [](Harness &) {
             return dm_send_to_task_wait_for_event(TASK_ATMNGR, &g_word, 4, nullptr, 3002, 3004);
         },
         -ETIMEDOUT,
         "[DMGR-ERR] dm_send_to_task_wait_for_event send event task id 302 event id 3002 to rild "
         "fail -110"},
        {"NoEventToReply", "evfw_event_alloc:1",
         [](Harness &) { return dm_resp_to_external_channel(&g_word, 4, nullptr, 4042); }, -1,
         "[DMGR-ERR] dm_resp_to_external_channel no event for event id 4042"},
        // Before the RIL proxy is up the request would wait: it is dropped, not sent instead.
        {"NoEventToHoldAPendingRequest", "evfw_event_alloc:1",
         [](Harness &h) {
             const int32_t r = dm_req_to_rild(&g_word, 4, nullptr, 4003);
             return h.pump(), h.rt().trace().empty() ? r : -99;
         },
         0, "[DMGR-ERR] pending event 4003 dropped: no event to hold it"},
        // An announcement as the dispatcher hands it over; the second
        // allocation is the copy the registry would keep.
        {"NoEventToKeepAnAnnouncement", "evfw_event_alloc:2",
         [](Harness &) {
             Bytes name = dm::testkit::announcement("lanmngr");
             evfw_event_t *event = evfw_event_alloc(nullptr);
             const int32_t r = dm_notification(name.data(), event);
             return evfw_event_free(event), r;
         },
         -1, "[DMGR-ERR] dm_notification no event to keep the announcement of lanmngr"},
        // A sender's refused event is released.
        {"SenderRefused", "evfw_context_common_send:1",
         [](Harness &h) { return dm_send_req_radio_power(h.client("lanmngr").ctx()); }, 0,
         "[DMGR-ERR] dm_send_req_radio_power send event id 4032 to task 402 fail -1"},
        // A state set answered on the request's own event (4059), which the
        // framework refuses: the dispatcher keeps the event and frees it.
        {"ReplyOnTheRequestRefused", "evfw_context_common_send:1",
         [](Harness &h) {
             h.send_bytes(h.client("lanmngr"), 4058, words(12, {{4, 4}, {8, 0}}));
             return h.pump(), static_cast<int32_t>(h.sent_to(h.client("lanmngr").id()).size());
         },
         0, "[DMGR-ERR] datamngr_ext_send(): evfw_task_ext_send() error!!",
         "[DMGR-ERR] datamngr_main_hdl(): datamngr_ext_send() error!!"},
};

class Faults : public DmTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(Faults, TheRoutineThatSawTheFailureSaysSo) {
    const FaultCase &c = GetParam();
    std::string error;
    ASSERT_TRUE(h.rt().add_fault(c.plan, error)) << error;  // the plan starts the count
    h.clear();
    EXPECT_EQ(c.act(h), c.result);
    h.pump();
    long failed = 0;  // the fault fired once; each line logged once
    for (const auto &d : h.rt().diagnostics()) failed += d.text.starts_with("fault plan:");
    EXPECT_EQ(values({failed, count(c.line), c.line2 != nullptr ? count(c.line2) : 1}), "1 1 1");
}

INSTANTIATE_TEST_SUITE_P(Calls, Faults, ::testing::ValuesIn(kFaults),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
