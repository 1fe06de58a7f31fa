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

TEST_F(DmsimTest, ExpectationsPassOrFailWithTheirFileAndLine) {
    const std::string ok = write("ok.scn", kPdnState);
    Result r = dmsim("--log run " + ok);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("PASS " + ok + ":4  expect lanmngr 4061"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("EVENT_DATAMNGR_GET_PDN_STATE_RESP(4061) 12 B"), std::string::npos);
    EXPECT_NE(r.out.find(" I RVN_DATAMNGR:  (  datamngr_get_pdn_state,"), std::string::npos);
    const std::string path = write("wrong.scn", std::string(kPdnState) +
                                                        "expect lanmngr 4061 state=1\n"
                                                        "expect-log no such line\n"
                                                        "expect-none lanmngr\n"
                                                        "send lanmngr 4060 pdn_id=5\n"
                                                        "expect lanmngr 4061 state=3\n");
    r = dmsim("run " + path);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    // The second 4061 is not there: the first was taken by line 4.
    EXPECT_NE(r.out.find("FAIL " + path + ":5  expect lanmngr 4061 state=1"), std::string::npos);
    EXPECT_NE(r.out.find("FAIL " + path + ":6"), std::string::npos);
    EXPECT_NE(r.out.find("PASS " + path + ":7"), std::string::npos);
    EXPECT_NE(r.out.find("state is 65540, expected 3"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("FAIL (3 of 5 expectations failed)"), std::string::npos);
}

TEST_F(DmsimTest, UsageScenarioAndEnvironmentErrorsHaveTheirOwnStatus) {
    const std::string bad = write("bad.scn", "announce lanmngr\nexpect lanmngr 4003 cid=1\n");
    Result r = dmsim("run " + bad);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err.rfind("dmsim: " + bad + ":2: SetupDataCallReq has no field 'cid'", 0), 0u)
            << r.err;
    EXPECT_EQ(r.out, "") << "nothing runs";
    for (const char *args : {"run", "frobnicate", "run --bogus x.scn", "records Nope"}) {
        EXPECT_EQ(dmsim(args).status, 2) << args;
    }
    r = dmsim("run " + write("if.scn", "iface pdnet4 2001:db8::1\nexpect-none rb0\n"));
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("if.scn:1: the scenario declares the interface pdnet4"),
              std::string::npos);
    lib_ = write("libfake.so", "not an ELF file");
    r = dmsim("run " + write("ok.scn", kPdnState));
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("dlopen " + lib_), std::string::npos) << r.err;
}

TEST_F(DmsimTest, FaultPlanShowsInItsPlaceAndLaterStepsAreStillServed) {
    const std::string path = write("f.scn", std::string(kPdnState) +
                                                    "send lanmngr 4060 pdn_id=5\n"
                                                    "expect lanmngr 4061 pdn_id=5 state=65540\n");
    Result r = dmsim("--fail evfw_context_common_send:1 --trace " + dir_ + "/t.txt run " + path);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("(4060) 136 B  pdn_id=4\n"
                         "   !! evfw_host: fault plan: evfw_context_common_send call 1 fails\n"
                         "   FAIL " +
                         path + ":4"),
              std::string::npos)
            << r.out;
    EXPECT_NE(r.out.find("PASS " + path + ":6"), std::string::npos) << r.out;
    EXPECT_NE(read(dir_ + "/t.txt").find("!! evfw_host: fault plan: evfw_context_common_send"),
              std::string::npos);
    for (const char *plan : {"frobnicate:1", "send", "send:0", "recv:p2", "bind:1=-1"}) {
        r = dmsim(std::string("--fail ") + plan + " run " + path);
        EXPECT_EQ(r.status, 2) << plan;
        EXPECT_NE(r.err.find(std::string("fault plan '") + plan + "'"), std::string::npos) << r.err;
    }
}

TEST_F(DmsimTest, SeveralScenariosRunApartWithTheirFilesAndTheWorstStatusWins) {
    const std::string ok = write("ok.scn", kPdnState);
    const std::string bad = write("bad.scn", std::string(kPdnState) + "expect lanmngr 4059\n");
    Result r = dmsim("--trace " + dir_ + "/t.txt --diagram " + dir_ + "/d.mmd run " + ok + " " +
                     bad + " " + ok);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("== " + ok + ": PASS"), std::string::npos);
    EXPECT_NE(r.out.find("== " + bad + ": FAIL"), std::string::npos);
    // A fresh library each: the client is again the first external id.
    EXPECT_EQ(read(dir_ + "/t-bad.txt").find("lanmngr(65536) -> TASK_DATAMNGR(402)"), 5u);
    const std::string diagram = read(dir_ + "/d-ok.mmd");
    EXPECT_NE(diagram.find("sequenceDiagram\n"), std::string::npos);
    EXPECT_NE(diagram.find("P402->>P65536: EVENT_DATAMNGR_GET_PDN_STATE_RESP 4061"),
              std::string::npos);
}

TEST_F(DmsimTest, RepeatShowsTheFirstRunAndStopsAtAFailingOne) {
    const std::string ok = write("ok.scn", kPdnState);
    Result r = dmsim("--trace " + dir_ + "/t.txt run --repeat 3 " + ok);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out.find("PASS " + ok + ":4"), r.out.rfind("PASS " + ok + ":4")) << r.out;
    EXPECT_NE(r.out.find("== " + ok + ": PASS (1 expectations)\n   3 runs: resident "),
              std::string::npos);
    EXPECT_NE(r.out.find("== " + ok + ": PASS (3 runs)\n"), std::string::npos) << r.out;
    EXPECT_EQ(read(dir_ + "/t.txt").find("lanmngr(65536) -> TASK_DATAMNGR(402)"), 5u);
    const std::string bad = write("bad.scn", std::string(kPdnState) + "expect lanmngr 4059\n");
    r = dmsim("run --repeat 5 " + bad);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("== " + bad + ": repetition 1 of 5 failed\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find(" runs: resident "), std::string::npos);
    for (std::string args : {"run --repeat 0 " + ok, "run --repeat 2x " + ok,
                             "run --repeat 2 " + ok + " " + ok, std::string("--repeat 2 at")}) {
        EXPECT_EQ(dmsim(args).status, 2) << args;
    }
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
