// The entity frame where it is called directly: start and stop, the log line,
// the dispatcher's and the senders' refusals, the registry's lookups and the
// exported request senders.  Event flows are in the scenario tables beside.
#include <unistd.h>

#include <algorithm>

#include "common/dm_test.h"
#include "entity/client_senders.h"
#include "entity/datamngr.h"
#include "entity/dm_log.h"
#include "entity/dm_send.h"
#include "entity/operator_hooks.h"
#include "entity/pdn_state.h"
#include "entity/task_info.h"
#include "pdn/pdn_info.h"

namespace {

using namespace dm_test;
using evfw_host::Runtime;

// ---- start and stop, without the test kit's load --------------------------------

class Lifecycle : public ::testing::Test {
  protected:
    void SetUp() override {
        dm::testkit::reset_library_state();
        rt.reset();
        abi.init = datamngr_entity_init;
        abi.exit = datamngr_entity_exit;
    }
    void TearDown() override {
        rt.unload();
        dm::testkit::reset_library_state();
        rt.reset();
    }
    std::vector<std::string> calls_since(size_t n) const {
        auto all = rt.calls();
        return {all.begin() + static_cast<long>(n), all.end()};
    }
    Runtime &rt = Runtime::instance();
    evfw_host::EntityAbi abi;
};

TEST_F(Lifecycle, InitMakesItsCallsInOrderItsThreadClearsThePdnTablesAndExitUndoesThem) {
    std::vector<std::string> want = {"evfw_mutex_init", "evfw_task_init(41,402)",
                                     "evfw_task_init(41,403)", "evfw_task_init(41,404)"};
    for (int id : {4002, 4003, 4019, 4005, 4007, 4009, 4011, 4013, 4015, 4017, 4027, 4028,
                   4029, 4035, 4049, 4045, 4047, 4041, 4043, 4062, 4063, 4058, 4060})
        want.push_back("evfw_connmngr_common_subscribe(402," + std::to_string(id) + ",1)");
    want.insert(want.end(), {"evfw_atmngr_subscribe_urc(402,+CGEV,3006,4)", "set_hdl(402)",
                             "evfw_thrd_init", "evfw_thrd_start"});
    evfw_entity_t *entity = rt.load("datamngr", abi);
    ASSERT_NE(entity, nullptr);
    EXPECT_EQ(rt.calls(), want);
    EXPECT_EQ(entity->id, 41u);
    auto *state = static_cast<DatamngrEntity *>(entity->priv);
    ASSERT_EQ(state, dm_entity());
    EXPECT_EQ(state->entity, entity);
    for (const AtPdpContext &ctx : state->at_pdp_ctx)
        EXPECT_EQ(std::tuple(ctx.state, ctx.cid), std::tuple(-1, -1));
    // The init thread clears the PDN tables.
    DataCallEntry entry = {0, 0, 0, 3, {}};
    update_pdn_info(&entry, nullptr);
    EXPECT_TRUE(rt.wait_threads(std::chrono::seconds(2)));
    EXPECT_EQ(find_pdn_info_by_cid(3), nullptr);
    EXPECT_EQ(datamngr_init(nullptr), 0);
    const size_t n = rt.calls().size();
    rt.unload();
    EXPECT_EQ(calls_since(n),
              (std::vector<std::string>{"evfw_task_exit(404)", "evfw_task_exit(402)",
                                        "evfw_task_exit(403)", "evfw_mutex_exit"}));
}

TEST_F(Lifecycle, WithoutEntityRecordTheTasksGetEntityIdZero) {
    EXPECT_EQ(datamngr_entity_init(nullptr), nullptr);
    auto calls = rt.calls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "evfw_task_init(0,403)"), calls.end());
    evfw_entity_t record = {41, dm_entity(), nullptr};
    EXPECT_EQ(datamngr_entity_exit(&record), &record);
    EXPECT_EQ(record.id, 0u);
    // Without state only the id is cleared; without a record nothing at all.
    record.id = 41;
    record.priv = nullptr;
    const size_t n = rt.calls().size();
    EXPECT_EQ(datamngr_entity_exit(&record), &record);
    EXPECT_EQ(record.id, 0u);
    EXPECT_EQ(datamngr_entity_exit(nullptr), nullptr);
    EXPECT_TRUE(calls_since(n).empty());
}

TEST_F(Lifecycle, UrcPrefixesOfTheOperatorAndTheDefaultTable) {
    static const char *const kPrefixes[] = {"+EOPA", "", "+EOPB"};
    OperatorHooks hooks = {};
    hooks.urc_count = [] { return 3; };
    hooks.urc_prefix = [](int32_t i, char *out, int32_t *flag) {
        if (kPrefixes[i][0] == '\0') return -1;
        strcpy(out, kPrefixes[i]);
        *flag = i;
        return 0;
    };
    dm_set_operator_hooks(&hooks);
    rt.load("datamngr", abi);
    std::string urcs;
    for (const auto &u : rt.urc_subscriptions()) urcs += u.prefix + std::to_string(u.mode) + " ";
    EXPECT_EQ(urcs, "+EOPA1 +EOPB4 +CGEV4 ");
    size_t errors = 0;
    for (const auto &l : rt.logs())
        errors += l.text.ends_with("dm_register_urc get urc prefix error!!");
    EXPECT_EQ(errors, 1u);

    char prefix[16] = "untouched";
    int32_t flag = 7;
    EXPECT_EQ(dm_get_default_urc_num(), 1);
    EXPECT_EQ(dm_get_default_urc_prefix(1, prefix, &flag), -1);
    EXPECT_EQ(dm_get_default_urc_prefix(-1, prefix, &flag), -1);
    EXPECT_EQ(std::string(prefix) + std::to_string(flag), "untouched7");
    EXPECT_EQ(dm_get_default_urc_prefix(0, prefix, &flag), 0);
    EXPECT_EQ(std::string(prefix) + std::to_string(flag), "+CGEV1");
}

// ---- the log line ---------------------------------------------------------------

constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

struct LogCase {
    void (*write)();
    uint32_t level;
    int prio;
    const char *text;  // after the header
};
const LogCase kLogCases[] = {
        {[] { DM_LOGE("%s cid %d\n", "f", 7); }, 1, 6, "[DMGR-ERR] f cid 7\n"},
        {[] { DM_LOGW("plain %u", 3u); }, 2, 5, "[DMGR-WAR] plain 3"},
        {[] { DM_LOGI("info"); }, 4, 4, "[DMGR-INF] info"},
        {[] { DM_LOGD("debug %s", "x"); }, 8, 3, "[DMGR-DBG] debug x"},
        // The AT command interface's form: no level word, never gated.
        {[] { DATI_LOGD("Fun = %s", "1"); }, 0, 3, "Fun = 1"},
};

void a_function_name_longer_than_twenty_four() {
    DM_LOGI("cut");
}

// The header pads and cuts the function name to 24 columns.
TEST_F(Lifecycle, LogLinesCarryTheirLevelAndAreGatedByTheDebugLevel) {
    for (const LogCase &c : kLogCases) {
        for (uint32_t lv : {15u, 15u & ~c.level}) {
            dm_debug_lv = lv;
            rt.clear_logs();
            c.write();
            auto logs = rt.logs();
            const bool shown = c.level == 0 || (lv & c.level) != 0;
            ASSERT_EQ(logs.size(), shown ? 1u : 0u) << c.text;
            if (!shown) continue;
            EXPECT_EQ(log_body(logs[0].text), std::string(c.text).substr(c.level ? 11 : 0));
            EXPECT_TRUE(logs[0].text.ends_with(c.text));
            EXPECT_EQ(logs[0].text.substr(0, 2), " (");
            EXPECT_EQ(logs[0].prio, c.prio);
        }
    }
    rt.clear_logs();
    a_function_name_longer_than_twenty_four();
    kLogCases[2].write();
    auto logs = rt.logs();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs[0].text.substr(0, 28), " (a_function_name_longer_t, ");
    EXPECT_EQ(logs[0].text.substr(32), ") [DMGR-INF] cut");
    EXPECT_EQ(logs[1].text.substr(2, 24), std::string(14, ' ') + "operator()");
}

// The tag index: unset until the entity starts (entry 0 in the daemon's
// process, 1 elsewhere), then 2 in the daemon's process and 10 elsewhere.
TEST_F(Lifecycle, TagFollowsTheProcessAndTheBinding) {
    const pid_t daemon = rvn_pid;
    for (auto [pid, bound, index] : {std::tuple{getpid(), false, 0},
                                     {getpid() + 1, false, 1},
                                     {getpid(), true, 2},
                                     {getpid() + 1, true, 10}}) {
        rvn_pid = pid;
        dm::log::unbind_tags();
        if (bound) dm::log::bind_tags();
        rt.clear_logs();
        kLogCases[2].write();
        ASSERT_EQ(rt.logs().size(), 1u);
        EXPECT_EQ(rt.logs()[0].tag, android_log_tag[index]) << index;
    }
    rvn_pid = daemon;
}

// ---- refusals ---------------------------------------------------------------------

class Entity : public DmTest {};

TEST_F(Entity, DispatcherRefusesNullArgumentsAndTellsWhetherItKeptTheEvent) {
    DatamngrEntity *e = h.entity();
    evfw_event_t *event = evfw_event_alloc(nullptr);
    EXPECT_EQ(datamngr_main_hdl(nullptr, event, e), nullptr);
    EXPECT_EQ(datamngr_main_hdl(&e->main_task, event, nullptr), nullptr);
    EXPECT_EQ(datamngr_main_hdl(&e->main_task, nullptr, e), nullptr);
    EXPECT_EQ(logged("[DMGR-ERR] datamngr_main_hdl(): Invalid argument!!"), 3u);
    event_set_id(event, EVENT_DATAMNGR_SET_PDN_STATE_REQ);
    event_set_data(event, 0, Bytes(12).data(), 12);
    EXPECT_EQ(datamngr_main_hdl(&e->main_task, event, e), &e->main_task);  // answered on it
    event = evfw_event_alloc(nullptr);
    event_set_id(event, EVENT_ATMNGR_NOTIFY);
    event_set_data(event, 0, "abcd", 4);
    EXPECT_EQ(datamngr_main_hdl(&e->main_task, event, e), nullptr);  // freed
}

TEST_F(Entity, ReplyOnTheCurrentEventChecksItsArguments) {
    DatamngrEntity *e = h.entity();
    uint32_t word = 1;
    EXPECT_EQ(datamngr_ext_send(e, 4059, &word, 4), -1);  // no current event
    e->cur_event = evfw_event_alloc(nullptr);
    EXPECT_EQ(datamngr_ext_send(nullptr, 4059, &word, 4), -1);
    EXPECT_EQ(datamngr_ext_send(e, 0, &word, 4), -1);
    EXPECT_EQ(datamngr_ext_send(e, 4059, nullptr, 4), -1);
    EXPECT_EQ(logged("[DMGR-ERR] datamngr_ext_send(): Invalid argument!!"), 4u);
    // An empty reply is valid; the event then belongs to the framework.
    EXPECT_EQ(datamngr_ext_send(e, 4059, nullptr, 0), 0);
    EXPECT_EQ(e->cur_event, nullptr);
    auto sent = h.sent_with_id(4059);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].len, 0u);
}

TEST_F(Entity, SendsBeforeInitAreRefusedAndLeaveTheirEvent) {
    h.rt().unload();
    datamngr_state_reset();
    uint32_t word = 0;
    EXPECT_EQ(dm_send_to_task(TASK_RILDPROXY, &word, 4, nullptr, 4003), -1);
    EXPECT_EQ(dm_send_to_task_wait_for_event(TASK_ATMNGR, &word, 4, nullptr, 3002, 3004), -1);
    EXPECT_EQ(dm_req_to_self(&word, 4, nullptr, 4033), -1);
    EXPECT_EQ(dm_resp_to_external_channel(&word, 4, nullptr, 4042), -1);
    EXPECT_EQ(logged("[DMGR-ERR] dm_send_to_task NULL entity pointer"), 2u);
    EXPECT_EQ(logged("[DMGR-ERR] dm_send_to_task_wait_for_event NULL entity pointer"), 1u);
    EXPECT_EQ(logged("[DMGR-ERR] dm_resp_to_external_channel before entity init"), 1u);
    EXPECT_EQ(h.rt().live_events(), 4);
    EXPECT_TRUE(h.rt().trace().empty());
}

// The routines other modules call report what they did.
TEST_F(Entity, SendRoutinesAndServicesReportTheirResults) {
    uint32_t word = 7;
    evfw_event_t *source = evfw_event_alloc(nullptr);
    EXPECT_EQ(dm_req_to_rild(&word, 4, source, 4019), 0);  // held: the RIL proxy is not ready
    EXPECT_EQ(dm_queue_event_if_not_ready(&word, 4, source, 4019), 0);
    h.announce_ril();
    EXPECT_EQ(dm_flush_event(), 0);
    EXPECT_EQ(dm_queue_event_if_not_ready(&word, 4, source, 4019), -1);
    EXPECT_EQ(dm_req_to_rild(&word, 4, source, 4019), 0);
    EXPECT_EQ(dm_req_to_self(&word, 4, source, 3008), 0);
    EXPECT_EQ(dm_resp_to_external_channel(&word, 4, source, 4044), 0);
    h.rt().set_property("ro.qpx_multiple_ims_support", "0");
    EXPECT_EQ(dm_notify_to_imsm(&word, 4, 4021, 0), -1);  // imsm_0 never announced
    h.announce(h.client("imsm_0"));
    EXPECT_EQ(dm_notify_to_imsm(&word, 4, 4021, 0), 0);
    evfw_event_free(source);
    PdnStateReply reply = {};
    PdnStateSetReq set = {};
    EXPECT_EQ(datamngr_set_pdn_state(nullptr, &set, &reply), -1);
    EXPECT_EQ(datamngr_set_pdn_state(h.entity(), &set, nullptr), -1);
    EXPECT_EQ(datamngr_get_pdn_state(h.entity(), nullptr, &reply), -1);
    EXPECT_EQ(logged("[DMGR-ERR] datamngr_set_pdn_state(): Invalid argument!!"), 2u);
    EXPECT_EQ(logged("[DMGR-ERR] datamngr_get_pdn_state(): Invalid argument!!"), 1u);
    h.pump();
    EXPECT_EQ(h.sent_to(TASK_RILDPROXY, 4019).size(), 2u);
}

TEST_F(Entity, RegistryLookups) {
    h.announce(h.client("imsm_2"));
    EXPECT_EQ(query_task_info_by_name("nobody"), nullptr);
    EXPECT_EQ(logged("[DMGR-ERR] query_task_info_by_name for nobody fail"), 1u);
    EXPECT_EQ(query_task_info_by_name("imsm_1"), nullptr);  // a row, no announcement
    EXPECT_EQ(logged("query_task_info_by_name"), 1u);
    evfw_event_t *imsm2 = query_task_info_by_name("imsm_2");
    ASSERT_NE(imsm2, nullptr);
    evfw_event_t *from_imsm2 = evfw_event_alloc(imsm2);
    for (auto [sim, from] : {std::pair{2u, 1}, {1u, 0}, {3u, 0}})
        EXPECT_EQ(is_event_from_imsm(&sim, from_imsm2), from) << sim;
    EXPECT_EQ(logged("[DMGR-DBG] is_event_from_imsm cannot find IMSM name for sim 1"), 1u);
    EXPECT_EQ(query_task_info(from_imsm2), task_info_row(3));
    evfw_event_free(from_imsm2);
    output_task_info(task_info_row(11));
    auto dump = h.logs_containing("rildproxy, event (nil), dest 2, task id 202");
    ASSERT_EQ(dump.size(), 1u);
    EXPECT_EQ(log_body(dump[0]), "rildproxy, event (nil), dest 2, task id 202");
}

// ---- the exported request senders ------------------------------------------------

struct SenderCase {
    const char *name;
    int32_t (*send)(evfw_context_t *);
    uint32_t event_id, to;
    std::vector<Bytes> payloads;
};

Bytes text_at(size_t len, size_t offset, std::string_view text) {
    Bytes b(len, 0);
    put_text(b, offset, text);
    return b;
}

Bytes cause(int n) {
    return text_at(4108, 12, "+ECCAUSE: \"emm_cause\", " + std::to_string(n));
}
Bytes setup_answer_pdnet3() {
    Bytes b = words(47876, {{176, 1}});
    put_text(b, 28, "pdnet3");
    return b;
}
int32_t notification(evfw_context_t *c) {
    return dm_send_req_notification(c, "imsm_2");
}

SenderCase sends(const char *name, int32_t (*send)(evfw_context_t *), uint32_t event_id,
                 uint32_t to, std::vector<Bytes> payloads) {
    return {name, send, event_id, to, std::move(payloads)};
}

const SenderCase kSenders[] = {
        sends("Notification", notification, 4002, 402, {text_at(132, 0, "imsm_2")}),
        sends("SetupRequests", dm_send_req_setup_data_call, 4003, 402,
              {Bytes(704), words(704, {{656, 1}, {680, 1}}), words(704, {{656, 1}})}),
        sends("SetupAnswers", dm_send_resp_setup_data_call, 4004, 402,
              {words(47876, {{24, 1}, {188, 1}}), setup_answer_pdnet3(),
               words(47876, {{24, 2}, {176, 1}, {188, 1}})}),
        sends("RadioPower", dm_send_req_radio_power, 4032, 402, {Bytes(8)}),
        sends("Handover", dm_send_ho_notify, 9318, 402, {Bytes{0, 1, 0, 0, 0, 0}}),
        sends("Urc", dm_send_urc, 3006, 402,
              {text_at(4108, 12, "+EAPNMOD: \"VZWINTERNET\""), cause(28), cause(50), cause(51),
               cause(39), cause(54)}),
        sends("NetlinkListen", dm_send_req_netlink_listen, 4070, 404, {words(4, {{0, 5566}})}),
};

class Senders : public DmTest, public ::testing::WithParamInterface<SenderCase> {};

TEST_P(Senders, SendTheirEventsFromTheCallersContextAndNothingWithoutOne) {
    const SenderCase &c = GetParam();
    EXPECT_EQ(c.send(nullptr), 0);
    EXPECT_TRUE(h.rt().trace().empty());
    auto &lan = h.client("lanmngr");
    EXPECT_EQ(c.send(lan.ctx()), 0);
    auto sent = h.rt().trace();
    ASSERT_EQ(sent.size(), c.payloads.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].from, lan.id());
        EXPECT_EQ(sent[i].event_id, c.event_id);
        EXPECT_EQ(sent[i].to, c.to);
        EXPECT_TRUE(sent[i].data == c.payloads[i]) << "event " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(All, Senders, ::testing::ValuesIn(kSenders),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(Entity, NotificationNamesAreCutToKeepTheirTerminatorAndNullIsRefused) {
    auto &lan = h.client("lanmngr");
    const std::string name(200, 'n');
    dm_send_req_notification(lan.ctx(), name.c_str());
    EXPECT_EQ(dm_send_req_notification(lan.ctx(), nullptr), 0);
    EXPECT_EQ(logged("[DMGR-ERR] dm_send_req_notification NULL name"), 1u);
    auto sent = h.rt().trace();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].data, text_at(132, 0, name.substr(0, 131)));
}

}  // namespace
