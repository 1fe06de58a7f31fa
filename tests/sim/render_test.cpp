// The run rendered for people: the printed trace with the runtime's
// diagnostics in their places, and a log line in logcat's shape.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>

#include "android/log.h"
#include "evfw_ids.h"
#include "sim/sim.h"

namespace {

using evfw_host::Diagnostic;
using evfw_host::TraceEntry;

TEST(Render, TraceShowsNamesLengthsAFewBytesAndDiagnosticsInPlace) {
    const std::vector<uint8_t> long_data(40, 0xaa), short_data = {1, 2, 0xff};
    const std::vector<TraceEntry> trace = {
            {1, TASK_RILDPROXY, TASK_ATMNGR, 4002, 0, 1, 0, {}, false},
            {2, TASK_DATAMNGR, TASK_ATMNGR, 3002, 0, 2, 40, long_data, false},
            {3, TASK_DATAMNGR, 999, 9, 0, 2, 3, short_data, true}};
    const std::vector<Diagnostic> diags = {{2, 0, "between", 0}, {3, 0, "after", 0}};
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    dm::sim::print_trace(out, trace, diags);
    fclose(out);
    const std::string printed(text, size);
    free(text);
    EXPECT_EQ(
            printed,
            "   1 TASK_RILDPROXY(202) -> TASK_ATMNGR(302) EVENT_DATAMNGR_NOTIFICATION(4002) len=0\n"
            "   2 TASK_DATAMNGR(402) -> TASK_ATMNGR(302) EVENT_ATMNGR_ATCMD_REQ(3002) len=40 "
            "data=" +
                    std::string(64, 'a') +
                    "...\n"
                    "     !! evfw_host: between\n"
                    "   3 TASK_DATAMNGR(402) -> UNKNOWN_CONTEXT(999) UNKNOWN_EVENT(9) len=3 "
                    "data=0102ff (dropped)\n"
                    "     !! evfw_host: after\n");
}

TEST(Render, LogcatLineHasStampPidTidLetterTagAndTextWithoutItsLineEnd) {
    const std::string line =
            dm::sim::logcat({ANDROID_LOG_INFO, "RVN_DATAMNGR", "cid=3 up\r\n", 4242});
    std::smatch m;
    const std::regex shape(
            R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +(\d+) +4242 I RVN_DATAMNGR: cid=3 up)");
    ASSERT_TRUE(std::regex_match(line, m, shape)) << line;
    EXPECT_EQ(std::stol(m[1]), long{getpid()});
    // Android's letters for VERBOSE to FATAL; '?' for what is no priority.
    std::string letters;
    for (const int prio : {1, 2, 3, 4, 5, 6, 7, 8}) {
        const std::string l = dm::sim::logcat({prio, "T", "x", 1});
        letters += l.ends_with(" T: x") ? l[l.size() - 6] : '-';
    }
    EXPECT_EQ(letters, "?VDIWEF?");
}

}  // namespace
