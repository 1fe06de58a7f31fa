// The data manager's log line format, levels, priorities and tags.
#include <gtest/gtest.h>
#include <unistd.h>

#include "entity/dm_log.h"
#include "testkit/testkit.h"

namespace {

static constexpr dm::log::Module kLogModule = dm::log::Module::Pdn;

using dm::testkit::dati_log_text;
using dm::testkit::log_text;
using evfw_host::Runtime;

// Each writer logs one line at a fixed level and returns the line it logged
// from.
int log_err() {
    DM_LOGE("%s cid %d\n", __func__, 7);
    return __LINE__ - 1;
}
int log_war() {
    DM_LOGW("plain %u", 3u);
    return __LINE__ - 1;
}
int log_inf() {
    DM_LOGI("info");
    return __LINE__ - 1;
}
int log_dbg() {
    DM_LOGD("debug %s", "x");
    return __LINE__ - 1;
}
int log_at() {
    DATI_LOGD("dati_cfun_assign_hdl(): %s = %s", "Fun", "1");
    return __LINE__ - 1;
}
int a_function_name_longer_than_twenty_four() {
    DM_LOGI("cut");
    return __LINE__ - 1;
}

class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dm::testkit::reset_library_state();
        rt.reset();
    }
    void TearDown() override {
        dm::testkit::reset_library_state();
        rt.reset();
    }
    Runtime &rt = Runtime::instance();
};

struct LevelCase {
    int (*writer)();
    const char *function;
    const char *word;
    int prio;
    const char *text;
};

class LogLevelTest : public LogTest, public ::testing::WithParamInterface<LevelCase> {};

TEST_P(LogLevelTest, LineIsHeaderLevelWordAndText) {
    const LevelCase &c = GetParam();
    int line = c.writer();
    auto logs = rt.logs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].text, log_text(c.function, line, c.word, c.text));
    EXPECT_EQ(logs[0].prio, c.prio);
}

INSTANTIATE_TEST_SUITE_P(
        Levels, LogLevelTest,
        ::testing::Values(LevelCase{log_err, "log_err", "DMGR-ERR", 6, "log_err cid 7\n"},
                          LevelCase{log_war, "log_war", "DMGR-WAR", 5, "plain 3"},
                          LevelCase{log_inf, "log_inf", "DMGR-INF", 4, "info"},
                          LevelCase{log_dbg, "log_dbg", "DMGR-DBG", 3, "debug x"}));

TEST_F(LogTest, HeaderPadsShortNamesAndCutsLongOnesTo24Columns) {
    int line = log_inf();
    int cut_line = a_function_name_longer_than_twenty_four();
    auto logs = rt.logs();
    ASSERT_EQ(logs.size(), 2u);
    char expected[64];
    snprintf(expected, sizeof(expected), " (                 log_inf, %4d) [DMGR-INF] info", line);
    EXPECT_EQ(logs[0].text, expected);
    snprintf(expected, sizeof(expected), " (a_function_name_longer_t, %4d) [DMGR-INF] cut",
             cut_line);
    EXPECT_EQ(logs[1].text, expected);
}

TEST_F(LogTest, DebugLevelBitsGateEachLevel) {
    dm_debug_lv = dm::log::kErr | dm::log::kInf;
    log_err();
    log_war();
    log_inf();
    log_dbg();
    auto logs = rt.logs();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_NE(logs[0].text.find("[DMGR-ERR]"), std::string::npos);
    EXPECT_NE(logs[1].text.find("[DMGR-INF]"), std::string::npos);

    dm_debug_lv = 0;
    rt.clear_logs();
    log_err();
    EXPECT_TRUE(rt.logs().empty());
}

TEST_F(LogTest, AtInterfaceFormHasNoLevelWordAndIsNotGated) {
    dm_debug_lv = 0;
    int line = log_at();
    auto logs = rt.logs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].text, dati_log_text("log_at", line, "dati_cfun_assign_hdl(): Fun = 1"));
    EXPECT_EQ(logs[0].prio, 3);
}

// The tag index: unset until the entity starts (entry 0 in the daemon's
// process, 1 elsewhere), then 2 in the daemon's process and 10 elsewhere.
TEST_F(LogTest, TagFollowsTheProcessAndTheBinding) {
    pid_t daemon = rvn_pid;
    struct Case {
        pid_t pid;
        bool bound;
        int index;
    } cases[] = {{getpid(), false, 0},
                 {getpid() + 1, false, 1},
                 {getpid(), true, 2},
                 {getpid() + 1, true, 10}};
    for (const Case &c : cases) {
        rvn_pid = c.pid;
        dm::log::unbind_tags();
        if (c.bound) dm::log::bind_tags();
        rt.clear_logs();
        log_inf();
        ASSERT_EQ(rt.logs().size(), 1u);
        EXPECT_EQ(rt.logs()[0].tag, android_log_tag[c.index]) << "index " << c.index;
    }
    rvn_pid = daemon;
}

}  // namespace
