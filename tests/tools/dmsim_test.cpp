// dmsim as its users run it: exit statuses, PASS/FAIL lines with file:line,
// refusals of malformed scenarios, fault plans, several scenarios and
// --repeat, the AT console and its AT port driven by chat, and the trace and
// diagram files.  Every shipped scenario is also a CTest test of its own
// (scenario.<name>).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

namespace {

constexpr const char *kPdnState =
        "title state\n"
        "announce lanmngr\n"
        "send lanmngr 4060 pdn_id=4\n"
        "expect lanmngr 4061 pdn_id=4 state=65540\n";

struct Result {
    int status = -1;
    std::string out, err;
};

class DmsimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/dmsim_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        ASSERT_NE(std::getenv("DM_LIBRARY"), nullptr) << "DM_LIBRARY names the built library";
        lib_ = std::getenv("DM_LIBRARY");
        ok_ = write("ok.scn", kPdnState);
        bad_ = write("bad.scn", std::string(kPdnState) + "expect lanmngr 4059\n");  // none comes
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string write(const std::string &name, const std::string &text) {
        std::ofstream(dir_ + "/" + name) << text;
        return dir_ + "/" + name;
    }
    static std::string read(const std::string &path) {
        return {std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {}};
    }
    static bool has(const std::string &s, const std::string &p) { return s.find(p) != s.npos; }
    // Runs dmsim with `args` (shell words, redirections included, as its
    // users type them) and `input` on standard input, expecting `status` and
    // each of `out` in its output.
    Result run(const std::string &args, int status, std::initializer_list<std::string> out = {},
               const std::string &input = "") {
        const std::string cmd = DMSIM_PATH " --lib " + lib_ + " " + args + " <" +
                                write("stdin", input) + " >" + dir_ + "/out 2>" + dir_ + "/err";
        const int rc = std::system(cmd.c_str());  // NOLINT(cert-env33-c)
        Result r = {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, read(dir_ + "/out"), read(dir_ + "/err")};
        EXPECT_EQ(r.status, status) << args << "\n" << r.out << r.err;
        for (const std::string &o : out) EXPECT_TRUE(has(r.out, o)) << o << "\n" << r.out;
        return r;
    }

    std::string dir_, lib_, ok_, bad_;
};

TEST_F(DmsimTest, ExpectationsPassOrFailWithTheirFileAndLine) {
    run("--log run " + ok_, 0,
        {"PASS " + ok_ + ":4  expect lanmngr 4061", "EVENT_DATAMNGR_GET_PDN_STATE_RESP(4061) 12 B",
         " I RVN_DATAMNGR:  (  datamngr_get_pdn_state,"});
    const std::string path = write("wrong.scn", std::string(kPdnState) +
                                                        "expect lanmngr 4061 state=1\n"
                                                        "expect-log no such line\n"
                                                        "expect-none lanmngr\n"
                                                        "send lanmngr 4060 pdn_id=5\n"
                                                        "expect lanmngr 4061 state=3\n");
    // The second 4061 is not there: the first was taken by line 4.
    run("run " + path, 1,
        {"FAIL " + path + ":5  expect lanmngr 4061 state=1", "FAIL " + path + ":6",
         "PASS " + path + ":7", "state is 65540, expected 3", "FAIL (3 of 5 expectations failed)"});
}

TEST_F(DmsimTest, UsageScenarioAndEnvironmentErrorsHaveTheirOwnStatusAndSayWhy) {
    const std::string cid = write("cid.scn", "announce lanmngr\nexpect lanmngr 4003 cid=1\n");
    // args, status (2: usage or scenario, nothing runs; 3: environment), said on stderr
    std::vector<std::tuple<std::string, int, std::string>> cases = {
            {"run " + cid, 2, "dmsim: " + cid + ":2: SetupDataCallReq has no field 'cid'"},
            {"run " + write("i.scn", "iface a ::1\nurc x\n"), 2, "declares the interface a"},
            {"run", 2, "run needs at least one scenario file"},
            {"frobnicate", 2, "unknown command frobnicate"},
            {"run --bogus x.scn", 2, "unknown option --bogus"},
            {"records Nope", 2, "no record named Nope"},
            {"run --port p", 2, "--port goes with at"},
            {"run --repeat 0 " + ok_, 2, "--repeat needs a count"},
            {"run --repeat 2x " + ok_, 2, "--repeat needs a count"},
            {"run --repeat 2 " + ok_ + " " + ok_, 2, "--repeat runs one scenario file"},
            {"--repeat 2 at", 2, "--repeat goes with run"},
            {"at --port " + write("taken", ""), 3, "taken exists and is not a link"},
            {"--lib " + write("x.so", "") + " run " + ok_, 3, "dlopen " + dir_ + "/x.so"}};
    for (const char *plan : {"frobnicate:1", "send", "send:0", "recv:p2", "bind:1=-1"})
        cases.emplace_back(std::string("--fail ") + plan + " run " + ok_, 2,
                           std::string("fault plan '") + plan + "'");
    for (const auto &[args, status, why] : cases) {
        const Result r = run(args, status);
        EXPECT_TRUE(has(r.err, why) && (status != 2 || r.out.empty())) << r.err << r.out;
    }
}

TEST_F(DmsimTest, FaultPlanShowsInItsPlaceAndLaterStepsAreStillServed) {
    const std::string path = write("f.scn", std::string(kPdnState) +
                                                    "send lanmngr 4060 pdn_id=5\n"
                                                    "expect lanmngr 4061 pdn_id=5 state=65540\n");
    const std::string fault = "!! evfw_host: fault plan: evfw_context_common_send call 1 fails";
    run("--fail evfw_context_common_send:1 --trace " + dir_ + "/t.txt run " + path, 1,
        {"(4060) 136 B  pdn_id=4\n   " + fault + "\n   FAIL " + path + ":4",
         "PASS " + path + ":6"});
    // The trace file: names, lengths, the first 32 bytes and the fault in its place.
    EXPECT_TRUE(has(read(dir_ + "/t.txt"),
                    fault + "\n   3 lanmngr(65536) -> TASK_DATAMNGR(402) EVENT_DATAMNGR_GET_PDN_" +
                            "STATE_REQ(4060) len=136 data=" + std::string(64, '0') + "...\n   4 " +
                            "TASK_DATAMNGR(402) -> lanmngr(65536) EVENT_DATAMNGR_GET_PDN_STATE_" +
                            "RESP(4061) len=12 data=000000000500000004000100\n"));
}

TEST_F(DmsimTest, SeveralScenariosAndRepetitionsRunApartAndTheWorstStatusWins) {
    run("--trace " + dir_ + "/t --diagram " + dir_ + "/d.mmd run " + ok_ + " " + bad_ + " " + ok_,
        1, {"== " + ok_ + ": PASS", "== " + bad_ + ": FAIL"});
    // A fresh library each: the client is again the first external id.
    EXPECT_EQ(read(dir_ + "/t-bad").find("lanmngr(65536) -> TASK_DATAMNGR(402)"), 5u);
    const std::string diagram = read(dir_ + "/d-ok.mmd");
    EXPECT_TRUE(has(diagram, "sequenceDiagram\n")) << diagram;
    EXPECT_TRUE(has(diagram, "P402->>P65536: EVENT_DATAMNGR_GET_PDN_STATE_RESP 4061")) << diagram;
    // --repeat shows the first run, and stops at a failing one.
    Result r = run("--trace " + dir_ + "/r.txt run --repeat 3 " + ok_, 0,
                   {"== " + ok_ + ": PASS (1 expectations)\n   3 runs: resident ",
                    "== " + ok_ + ": PASS (3 runs)\n"});
    EXPECT_EQ(r.out.find("PASS " + ok_ + ":4"), r.out.rfind("PASS " + ok_ + ":4")) << r.out;
    EXPECT_EQ(read(dir_ + "/r.txt").find("lanmngr(65536) -> TASK_DATAMNGR(402)"), 5u);
    r = run("run --repeat 5 " + bad_, 1, {"== " + bad_ + ": repetition 1 of 5 failed\n"});
    EXPECT_EQ(r.out.find(" runs: resident "), std::string::npos);
}

constexpr const char *kAtSession =
        "AT+CGDCONT=1,\"IP\",\"internet\"\nAT+CGACT=1,1\n"
        "AT+CFUN=1\nAT+CFUN?\n"
        "!urc +CGEV: ME PDN ACT 3\nAT+COPS?\n"
        "!quit\nAT+CGACT=0,0\n";

TEST_F(DmsimTest, AtConsoleShowsResultsAsATerminalDoesAndDiagnosticsWithLog) {
    // AT+CGACT's extra release of the entity lock raises a runtime diagnostic:
    // not on the console, which shows AT results only.  No prompt without a
    // terminal; the setup answer came through the host's delivery to the AT
    // client; AT+CFUN gives a single OK; nothing after !quit.
    Result r = run("at", 0, {}, kAtSession);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out,
              "\nOK\n\n+CGEV: ME PDN ACT 1\n\nOK\n\nOK\n"
              "[forwarded to the modem through the AT interface: AT+CFUN?\\r]\n"
              "+CGEV: ME PDN ACT 3\n\nERROR\n");
    // With --log they show, and in the trace.
    r = run("--log --trace " + dir_ + "/trace.txt at", 0, {}, kAtSession);
    EXPECT_TRUE(has(r.err, "!! evfw_host: mutex ")) << r.err;
    // Log lines as logcat shows them: stamp, pid, tid, priority, tag, text.
    const std::regex logcat(R"(      \d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +\d+ D )"
                            R"(RVN_DATAMNGR: .*\] datamngr_entity_init\n)");
    EXPECT_TRUE(std::regex_search(r.err, logcat)) << r.err;
    EXPECT_TRUE(has(read(dir_ + "/trace.txt"), "!! evfw_host: mutex "));
}

// The AT port as a client nobody here wrote sees it: chat (package ppp), its
// lines ended by CR, its exit status telling what it found.
TEST_F(DmsimTest, AtPortServesAModemClientBetweenItsUrcs) {
    // NOLINTNEXTLINE(cert-env33-c): the shell's own lookup of a program
    if (std::system("command -v chat >/dev/null") != 0)
        GTEST_SKIP() << "chat (Debian package ppp, installed by scripts/deps) is not installed";
    std::signal(SIGPIPE, SIG_IGN);
    // dmsim reads its console from a FIFO and tells first where it serves.
    const std::string port = dir_ + "/modem", fifo = dir_ + "/console";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string cmd = DMSIM_PATH " --lib " + lib_ + " at --port " + port + " <" + fifo;
    FILE *said = popen(cmd.c_str(), "re");  // NOLINT(cert-env33-c)
    ASSERT_NE(said, nullptr);
    const int console = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    char line[512];
    ASSERT_NE(std::fgets(line, sizeof(line), said), nullptr);
    ASSERT_TRUE(has(line, "serving on " + port + " (/dev/pts/")) << line;

    // CRLF, LF and CR line ends; the answers and a URC framed as a modem
    // frames them, whatever line ends the data manager's texts carry.
    const int fd = open(port.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    const std::string two =
            "AT+CGDCONT=1,\"IP\",\"internet\"\r\nAT@URC=\"+CGEV: ME PDN ACT 1\"\nAT+COPS?\r";
    ASSERT_EQ(::write(fd, two.data(), two.size()), static_cast<ssize_t>(two.size()));
    std::string got;
    pollfd p = {fd, POLLIN, 0};
    for (ssize_t n = 0; !got.ends_with("ERROR\r\n") && poll(&p, 1, 10000) == 1 &&
                        (n = ::read(fd, line, sizeof(line))) > 0;)
        got.append(line, static_cast<size_t>(n));
    close(fd);
    EXPECT_EQ(got, "\r\nOK\r\n\r\nOK\r\n\r\n+CGEV: ME PDN ACT 1\r\n\r\nERROR\r\n");

    const auto chat = [&](const std::string &script) {
        // chat reads and writes the port on its standard input and output.
        const std::string cmd =
                "chat -V -t 10 " + script + " <" + port + " >" + port + " 2>>" + dir_ + "/chat";
        const int rc = std::system(cmd.c_str());  // NOLINT(cert-env33-c)
        return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    };
    EXPECT_EQ(chat(R"('' 'AT+CGDCONT=1,"IP","internet"' OK AT+CGACT=1,1 '+CGEV: ME PDN ACT 1' )"
                   R"('\c' OK AT+CGACT? '+CGACT: 10, 0' '\c' OK)"),
              0);
    // ERROR ends the script as its first ABORT string: status 4.
    EXPECT_EQ(chat("ABORT ERROR '' AT+COPS? OK"), 4);
    // A modem URC typed on dmsim's console, seen between two answers.
    EXPECT_EQ(::write(console, "!urc +CGEV: ME PDN ACT 3\n", 25), 25);
    EXPECT_EQ(chat("'+CGEV: ME PDN ACT 3' AT+CGACT? OK"), 0);
    // The +CGACT? list arrives line by line, without blank lines inside.
    EXPECT_TRUE(has(read(dir_ + "/chat"), "\n+CGACT: 9, 0\n+CGACT: 10, 0\n\nOK"))
            << read(dir_ + "/chat");

    EXPECT_EQ(::write(console, "!quit\n", 6), 6);
    close(console);
    while (std::fgets(line, sizeof(line), said) != nullptr) continue;  // to its end
    EXPECT_EQ(pclose(said), 0);
    EXPECT_NE(access(port.c_str(), F_OK), 0) << "the link goes with the port";
}

}  // namespace
