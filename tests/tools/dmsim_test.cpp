// dmsim as its users run it: exit statuses, PASS/FAIL lines with file:line,
// refusals of malformed scenarios, the AT console, and the trace and
// diagram files.  Every shipped scenario is also a CTest test of its own
// (scenario.<name>).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

class DmsimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/dmsim_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        const char *lib = std::getenv("DM_LIBRARY");
        ASSERT_NE(lib, nullptr) << "DM_LIBRARY names the built library";
        lib_ = lib;
    }
    void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }

    std::string write(const std::string &name, const std::string &text) {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path) << text;
        return path;
    }
    static std::string read(const std::string &path) {
        std::ifstream in(path);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    // Runs dmsim with `args` (shell words) and `input` on standard input.
    Result dmsim(const std::string &args, const std::string &input = "") {
        const std::string in = write("stdin", input);
        const std::string cmd = std::string(DMSIM_PATH) + " --lib " + lib_ + " " + args + " <" +
                                in + " >" + dir_ + "/out 2>" + dir_ + "/err";
        Result r;
        const int rc = std::system(cmd.c_str());
        r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
        r.out = read(dir_ + "/out");
        r.err = read(dir_ + "/err");
        return r;
    }

    std::string dir_;
    std::string lib_;
};

constexpr const char *kPdnState =
        "title state\n"
        "announce lanmngr\n"
        "send lanmngr 4060 pdn_id=4\n"
        "expect lanmngr 4061 pdn_id=4 state=65540\n";

TEST_F(DmsimTest, AScenarioWhoseExpectationsHoldPasses) {
    Result r = dmsim("run " + write("ok.scn", kPdnState));
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("PASS " + dir_ + "/ok.scn:4  expect lanmngr 4061"), std::string::npos)
            << r.out;
    EXPECT_NE(r.out.find("EVENT_DATAMNGR_GET_PDN_STATE_RESP(4061) 12 B"), std::string::npos);
}

TEST_F(DmsimTest, AWrongExpectationFailsWithItsFileAndLine) {
    const std::string path =
            write("wrong.scn", std::string(kPdnState) + "expect lanmngr 4061 state=1\n" +
                                       "expect-log no such line\n" + "expect-none lanmngr\n");
    Result r = dmsim("run " + path);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    // The second 4061 is not there: the first was consumed by line 4.
    EXPECT_NE(r.out.find("FAIL " + path + ":5  expect lanmngr 4061 state=1"), std::string::npos)
            << r.out;
    EXPECT_NE(r.out.find("FAIL " + path + ":6"), std::string::npos);
    EXPECT_NE(r.out.find("PASS " + path + ":7"), std::string::npos);
    EXPECT_NE(r.out.find("FAIL (2 of 4 expectations failed)"), std::string::npos);
}

TEST_F(DmsimTest, AFieldMismatchNamesTheFieldAndBothValues) {
    Result r = dmsim("run " +
                     write("field.scn", std::string(kPdnState) + "send lanmngr 4060 pdn_id=5\n"
                                                                 "expect lanmngr 4061 state=3\n"));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("state is 65540, expected 3"), std::string::npos) << r.out;
}

TEST_F(DmsimTest, AMalformedScenarioIsRefusedBeforeAnythingRuns) {
    const std::string path = write("bad.scn",
                                   "announce lanmngr\nsend lanmngr 4003 apn=\n"
                                   "expect lanmngr 4003 cid=1\n");
    Result r = dmsim("run " + path);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.rfind("dmsim: " + path + ":3: SetupDataCallReq has no field 'cid'", 0), 0u)
            << r.err;
    EXPECT_EQ(r.out, "");
}

TEST_F(DmsimTest, UsageAndEnvironmentErrorsHaveTheirOwnStatus) {
    EXPECT_EQ(dmsim("run").status, 2);
    EXPECT_EQ(dmsim("frobnicate").status, 2);
    EXPECT_EQ(dmsim("run --bogus x.scn").status, 2);
    Result missing = dmsim("run " + dir_ + "/none.scn");
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.err.find("none.scn: cannot be read"), std::string::npos);
    // A scenario with interfaces needs --netns.
    Result netns = dmsim("run " + write("if.scn", "iface pdnet4 2001:db8::1\nexpect-none rb0\n"));
    EXPECT_EQ(netns.status, 2);
    EXPECT_NE(netns.err.find("if.scn:1: the scenario declares the interface pdnet4"),
              std::string::npos);
    // The library cannot be loaded.
    const std::string not_a_lib = write("libfake.so", "not an ELF file");
    lib_ = not_a_lib;
    Result env = dmsim("run " + write("ok.scn", kPdnState));
    EXPECT_EQ(env.status, 3);
    EXPECT_NE(env.err.find("dlopen " + not_a_lib), std::string::npos) << env.err;
}

TEST_F(DmsimTest, SeveralScenariosRunApartAndTheWorstStatusWins) {
    const std::string ok = write("ok.scn", kPdnState);
    const std::string bad = write("bad.scn", std::string(kPdnState) +
                                                     "expect-none lanmngr 4002\n"
                                                     "expect lanmngr 4059\n");
    Result r = dmsim("--trace " + dir_ + "/t.txt --diagram " + dir_ + "/d.mmd run " + ok + " " +
                     bad + " " + ok);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("== " + ok + ": PASS"), std::string::npos);
    EXPECT_NE(r.out.find("== " + bad + ": FAIL"), std::string::npos);
    // Each run starts from a fresh library: the second client is again the
    // first external id.
    EXPECT_EQ(read(dir_ + "/t-bad.txt").find("lanmngr(65536) -> TASK_DATAMNGR(402)"), 5u)
            << read(dir_ + "/t-bad.txt");
    const std::string diagram = read(dir_ + "/d-ok.mmd");
    EXPECT_NE(diagram.find("sequenceDiagram\n"), std::string::npos);
    EXPECT_NE(diagram.find("participant P65536 as lanmngr 65536"), std::string::npos);
    EXPECT_NE(diagram.find("P402->>P65536: EVENT_DATAMNGR_GET_PDN_STATE_RESP 4061"),
              std::string::npos)
            << diagram;
}

TEST_F(DmsimTest, RepeatRunsTheScenarioAgainInTheSameProcessShowingTheFirstRunOnly) {
    const std::string path = write("ok.scn", kPdnState);
    Result r = dmsim("--trace " + dir_ + "/t.txt run --repeat 3 " + path);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    auto count = [&](const std::string &what) {
        size_t n = 0;
        for (size_t at = r.out.find(what); at != std::string::npos; at = r.out.find(what, at + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count("PASS " + path + ":4"), 1u) << r.out;
    EXPECT_EQ(count(" runs: resident "), 1u) << r.out;
    EXPECT_NE(r.out.find("== " + path + ": PASS (1 expectations)\n   3 runs: resident "),
              std::string::npos)
            << r.out;
    EXPECT_NE(r.out.find(" KiB, peak "), std::string::npos);
    EXPECT_NE(r.out.find("== " + path + ": PASS (3 runs)\n"), std::string::npos) << r.out;
    // The trace file holds the first run.
    EXPECT_EQ(read(dir_ + "/t.txt").find("lanmngr(65536) -> TASK_DATAMNGR(402)"), 5u);
}

TEST_F(DmsimTest, RepeatStopsAtTheFailingRunAndNamesIt) {
    const std::string path = write("bad.scn", std::string(kPdnState) + "expect lanmngr 4059\n");
    Result r = dmsim("run --repeat 5 " + path);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("FAIL " + path + ":5"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("== " + path + ": repetition 1 of 5 failed\n"), std::string::npos)
            << r.out;
    EXPECT_EQ(r.out.find("== " + path + ":", r.out.find("repetition 1 of 5") + 1),
              std::string::npos)
            << "no further run: " << r.out;
    EXPECT_EQ(r.out.find(" runs: resident "), std::string::npos);
}

TEST_F(DmsimTest, RepeatIsRefusedWhereItCannotApply) {
    const std::string ok = write("ok.scn", kPdnState);
    EXPECT_EQ(dmsim("run --repeat 0 " + ok).status, 2);
    EXPECT_EQ(dmsim("run --repeat 2x " + ok).status, 2);
    EXPECT_EQ(dmsim("run --repeat 2 " + ok + " " + ok).status, 2);
    EXPECT_EQ(dmsim("--repeat 2 at").status, 2);
}

TEST_F(DmsimTest, LogOptionPrintsTheLibrarysLinesLogcatStyle) {
    Result r = dmsim("--log run " + write("ok.scn", kPdnState));
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find(" I RVN_DATAMNGR:  (  datamngr_get_pdn_state,"), std::string::npos)
            << r.out;
}

constexpr const char *kAtSession =
        "AT+CGDCONT=1,\"IP\",\"internet\"\n"
        "AT+CGACT=1,1\n"
        "AT+CFUN=1\n"
        "AT+CFUN?\n"
        "!urc +CGEV: ME PDN ACT 3\n"
        "AT+COPS?\n"
        "!quit\n"
        "AT+CGACT=0,0\n";

TEST_F(DmsimTest, AtConsoleShowsResultsAsATerminalDoes) {
    Result r = dmsim("at", kAtSession);
    EXPECT_EQ(r.status, 0) << r.err;
    // AT+CGACT's extra release of the entity lock raises a runtime diagnostic:
    // not on the console, which shows AT results only.
    EXPECT_EQ(r.err, "");
    // No prompt without a terminal; the setup answer came through the host's
    // delivery to the AT client; AT+CFUN gives a single OK; nothing after !quit.
    EXPECT_EQ(r.out,
              "\nOK\n"
              "\n+CGEV: ME PDN ACT 1\n\nOK\n"
              "\nOK\n"
              "[forwarded to the modem through the AT interface: AT+CFUN?\\r]\n"
              "+CGEV: ME PDN ACT 3\n"
              "\nERROR\n");
}

TEST_F(DmsimTest, RuntimeDiagnosticsShowWithLogAndInTheTrace) {
    const std::string trace = dir_ + "/trace.txt";
    Result r = dmsim("--log --trace " + trace + " at", kAtSession);
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string diag = "!! evfw_host: mutex ";
    EXPECT_NE(r.err.find(diag), std::string::npos) << r.err;
    EXPECT_NE(read(trace).find(diag), std::string::npos);
}

}  // namespace
