// The platform around the framework: Android logging, properties, URC
// subscriptions, and the runtime's own diagnostics.
#include <unistd.h>

#include <regex>

#include "android/log.h"
#include "cutils/properties.h"
#include "host_test_util.h"
#include "rvn_log.h"

namespace host_test {
namespace {

using evfw_host::LogLine;
using Platform = EntityFixture;

TEST_F(Platform, LogTablesPrintCaptureEchoAndLogcatShape) {
    const int prio[RVN_LOG_PRIO_COUNT] = {0, 6, 5, 0, 4, 0, 0, 0, 3};
    for (int i = 0; i < RVN_LOG_PRIO_COUNT; ++i) EXPECT_EQ(android_log_prio[i], prio[i]) << i;
    std::string tags;
    for (int i : {0, 1, 2, 10, 15}) tags += std::string(android_log_tag[i]) + " ";
    EXPECT_EQ(tags, "RVN RVN_EXT RVN_DATAMNGR DATAMNGR_EXT RVN_MOD15 ");
    EXPECT_EQ(rvn_pid, getpid());
    rt.clear_logs();
    const std::string echoed = printed([&](FILE *echo) {
        rt.set_log_echo(echo);
        EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "RVN_DATAMNGR", "cid=%d %s\n", 3, "up"), 9);
        rt.set_log_echo(nullptr);
    });
    const std::string long_text(5000, 'x');
    EXPECT_EQ(__android_log_print(ANDROID_LOG_ERROR, "T", "%s!", long_text.c_str()), 5001);
    rt.set_log_capture(false);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "T", "dropped"), 7);
    const auto logs = rt.logs();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(std::tuple(logs[0].prio, logs[0].tag, logs[0].text),
              std::tuple(int{ANDROID_LOG_INFO}, std::string("RVN_DATAMNGR"),
                         std::string("cid=3 up\n")));
    EXPECT_EQ(logs[1].text, long_text + "!") << "lines beyond the stack buffer are whole";
    EXPECT_EQ(echoed.substr(echoed.find(" I ")), " I RVN_DATAMNGR: cid=3 up\n") << echoed;
    const std::string line = Runtime::logcat(LogLine{ANDROID_LOG_WARN, "RVN", "hello\n\n"});
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
            line, m, std::regex(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +(\d+) +\d+ W RVN: hello)")))
            << line;
    EXPECT_EQ(std::stol(m[1]), getpid());
    for (auto [prio, letter] : {std::pair{2, "V"}, {3, "D"}, {4, "I"}, {6, "E"}, {7, "F"}})
        EXPECT_TRUE(Runtime::logcat(LogLine{prio, "T", "x"})
                            .ends_with(std::string(" ") + letter + " T: x"));
}

TEST_F(Platform, PropertiesFollowAndroid) {
    auto get = [](const char *key, const char *def) {
        char value[PROPERTY_VALUE_MAX];
        memset(value, '?', sizeof value);
        const int n = property_get(key, value, def);
        EXPECT_EQ(n, static_cast<int>(strlen(value)));
        return std::string(value);
    };
    rt.set_property("persist.x", "1");
    rt.set_property("ro.long", std::string(100, 'v'));
    rt.set_property("ro.empty", "");
    // Values and defaults are cut to 91 characters; empty reads as unset.
    EXPECT_EQ(get("persist.x", "0") + "|" + get("ro.long", nullptr) + "|" + get("unset", "dflt") +
                      "|" + get("unset", nullptr) + "|" +
                      get("unset", std::string(100, 'd').c_str()) + "|" + get("ro.empty", "dflt"),
              "1|" + std::string(91, 'v') + "|dflt||" + std::string(91, 'd') + "|dflt");
}

TEST_F(Platform, UrcSubscribersMatchByMode) {
    evfw_atmngr_subscribe_urc(&fake.main, "+CGEV: NW", 2, EVFW_URC_MODE_LINE_START);
    evfw_atmngr_subscribe_urc(&fake.main, "+EPDN", 3, EVFW_URC_MODE_LINE_START);
    std::string got;  // the events of each line's subscribers
    for (const char *line : {"+CGEV: NW PDN ACT 1", "\r\n+CGEV: NW PDN ACT 1",
                             "\n\r+CGEV: ME DETACH", "+EPDN: 1", "\r\n+EPDN: 1", "+CGE"}) {
        for (const auto &s : rt.urc_subscribers(line)) got += std::to_string(s.event_id) + " ";
        got += "| ";
    }
    EXPECT_EQ(got, "3006 2 | 3006 | 3006 | 3 | | | ");
}

TEST_F(Platform, DiagnosticsAreCountedRecordedAndEchoedWhereSet) {
    const std::string echoed = printed([&](FILE *out) {
        rt.set_diag_echo(out);
        fake.lock.unlock(&fake.lock);
        rt.set_diag_echo(nullptr);
        evfw_task_exit(&fake.dati);
        evfw_task_exit(&fake.dati);
    });
    EXPECT_EQ(echoed, "evfw_host: " + rt.diagnostics().at(0).text + "\n");
    EXPECT_EQ(rt.diagnostics().size(), 2u);
    EXPECT_EQ(rt.diagnostics().at(1).text.rfind("evfw_task_exit from task 403", 0), 0u);
    rt.reset();
    EXPECT_TRUE(rt.diagnostics().empty());
}

}  // namespace
}  // namespace host_test
