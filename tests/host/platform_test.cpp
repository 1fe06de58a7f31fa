// The platform around the framework: Android logging, properties, URC
// subscriptions.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>

#include "android/log.h"
#include "cutils/properties.h"
#include "host_test_util.h"
#include "rvn_log.h"

namespace host_test {
namespace {

using evfw_host::LogLine;

using HostLog = RuntimeFixture;

TEST_F(HostLog, TablesMapLevelBitsAndModules) {
    const int prio[RVN_LOG_PRIO_COUNT] = {0, 6, 5, 0, 4, 0, 0, 0, 3};
    for (int i = 0; i < RVN_LOG_PRIO_COUNT; ++i) EXPECT_EQ(android_log_prio[i], prio[i]) << i;
    EXPECT_STREQ(android_log_tag[0], "RVN");
    EXPECT_STREQ(android_log_tag[1], "RVN_EXT");
    EXPECT_STREQ(android_log_tag[2], "RVN_DATAMNGR");
    EXPECT_STREQ(android_log_tag[10], "DATAMNGR_EXT");
    EXPECT_STREQ(android_log_tag[3], "RVN_MOD3");
    EXPECT_STREQ(android_log_tag[15], "RVN_MOD15");
    EXPECT_EQ(rvn_pid, getpid());
}

TEST_F(HostLog, PrintFormatsCapturesEchoesAndReturnsTheLength) {
    char *buf = nullptr;
    size_t size = 0;
    FILE *echo = open_memstream(&buf, &size);
    rt.set_log_echo(echo);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "RVN_DATAMNGR", "cid=%d %s\n", 3, "up"), 9);
    rt.set_log_echo(nullptr);
    const std::string long_text(5000, 'x');
    EXPECT_EQ(__android_log_print(ANDROID_LOG_ERROR, "T", "%s!", long_text.c_str()), 5001);
    rt.set_log_capture(false);
    EXPECT_EQ(__android_log_print(ANDROID_LOG_INFO, "T", "dropped"), 7);
    fclose(echo);
    const std::string echoed(buf, size);
    free(buf);

    const auto logs = rt.logs();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs[0].prio, ANDROID_LOG_INFO);
    EXPECT_EQ(logs[0].tag, "RVN_DATAMNGR");
    EXPECT_EQ(logs[0].text, "cid=3 up\n");
    EXPECT_EQ(logs[1].text, long_text + "!") << "lines beyond the stack buffer are whole";
    EXPECT_EQ(echoed.substr(echoed.find(" I ")), " I RVN_DATAMNGR: cid=3 up\n") << echoed;
    rt.clear_logs();
    EXPECT_TRUE(rt.logs().empty());
}

TEST_F(HostLog, LogcatLineHasTheThreadtimeShape) {
    const std::string line = Runtime::logcat(LogLine{ANDROID_LOG_WARN, "RVN", "hello\n\n"});
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
            line, m, std::regex(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +(\d+) +\d+ W RVN: hello)")))
            << line;
    EXPECT_EQ(std::stol(m[1]), getpid());
    const std::pair<int, char> letters[] = {{2, 'V'}, {3, 'D'}, {4, 'I'}, {6, 'E'}, {7, 'F'}};
    for (auto [prio, letter] : letters) {
        const std::string want = std::string(" ") + letter + " T: x";
        EXPECT_NE(Runtime::logcat(LogLine{prio, "T", "x"}).find(want), std::string::npos) << prio;
    }
}

class HostProperties : public RuntimeFixture {
  protected:
    std::string get(const char *key, const char *def, int *len = nullptr) {
        char value[PROPERTY_VALUE_MAX];
        memset(value, '?', sizeof value);
        const int n = property_get(key, value, def);
        if (len != nullptr) *len = n;
        EXPECT_EQ(n, static_cast<int>(strlen(value)));
        return value;
    }
    bool load(const std::string &text) {
        const std::string path = testing::TempDir() + "host_props_" + std::to_string(getpid());
        std::ofstream(path) << text;
        const bool ok = rt.load_properties(path);
        unlink(path.c_str());
        return ok;
    }
};

TEST_F(HostProperties, GetFollowsAndroid) {
    const std::string v100(100, 'v'), d100(100, 'd');
    rt.set_property("persist.x", "1");
    rt.set_property("ro.long", v100);
    rt.set_property("ro.empty", "");
    int n = 0;
    EXPECT_EQ(get("persist.x", "0", &n), "1");
    EXPECT_EQ(n, 1);
    EXPECT_EQ(get("ro.long", nullptr, &n), v100.substr(0, 91));
    EXPECT_EQ(n, PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(get("unset", "dflt"), "dflt");
    EXPECT_EQ(get("unset", nullptr, &n), "");
    EXPECT_EQ(n, 0);
    EXPECT_EQ(get("unset", d100.c_str()), d100.substr(0, 91)) << "defaults truncate too";
    EXPECT_EQ(get("ro.empty", "dflt"), "dflt") << "empty reads as unset";
    rt.clear_property("persist.x");
    EXPECT_EQ(get("persist.x", "0"), "0");
}

TEST_F(HostProperties, FileLinesAreTrimmedAndCommentsSkipped) {
    ASSERT_TRUE(load("# comment\n\n  ro.a = one  \nro.b=two # note\nro.c=x#y\nro.e=a=b\r\n"))
            << rt.last_error();
    EXPECT_EQ(get("ro.a", ""), "one");
    EXPECT_EQ(get("ro.b", ""), "two");
    EXPECT_EQ(get("ro.c", ""), "x#y");
    EXPECT_EQ(get("ro.e", ""), "a=b");
    EXPECT_FALSE(load("ro.ok=1\nno equals sign\n"));
    EXPECT_NE(rt.last_error().find(":2:"), std::string::npos) << rt.last_error();
    EXPECT_EQ(get("ro.ok", "unset"), "unset") << "a bad file changes nothing";
    EXPECT_FALSE(rt.load_properties("/nonexistent/host.prop"));
    EXPECT_NE(rt.last_error().find("/nonexistent/host.prop"), std::string::npos);
}

struct UrcCase {
    const char *line;
    std::vector<uint32_t> events;  // subscribers' event ids, in subscription order
};

class HostUrc : public RuntimeFixture, public testing::WithParamInterface<UrcCase> {
  protected:
    void SetUp() override {
        RuntimeFixture::SetUp();
        ASSERT_EQ(evfw_task_init(&task, 41, TASK_DATAMNGR), 0);
        evfw_atmngr_subscribe_urc(&task, "+CGEV", 1, EVFW_URC_MODE_SKIP_CRLF);
        evfw_atmngr_subscribe_urc(&task, "+CGEV: NW", 2, EVFW_URC_MODE_LINE_START);
        evfw_atmngr_subscribe_urc(&task, "+EPDN", 3, EVFW_URC_MODE_LINE_START);
    }
    evfw_task_t task{};
};

TEST_P(HostUrc, SubscribersMatchByMode) {
    std::vector<uint32_t> got;
    for (const auto &s : rt.urc_subscribers(GetParam().line)) got.push_back(s.event_id);
    EXPECT_EQ(got, GetParam().events);
}

INSTANTIATE_TEST_SUITE_P(HostUrcLines, HostUrc,
                         testing::Values(UrcCase{"+CGEV: NW PDN ACT 1", {1, 2}},
                                         UrcCase{"\r\n+CGEV: NW PDN ACT 1", {1}},
                                         UrcCase{"\n\r+CGEV: ME DETACH", {1}},
                                         UrcCase{"+EPDN: 1", {3}}, UrcCase{"\r\n+EPDN: 1", {}},
                                         UrcCase{"+CGE", {}}, UrcCase{"", {}}));

}  // namespace
}  // namespace host_test
