// dmsim as its users run it: exit statuses, PASS/FAIL lines with file:line,
// refusals of malformed scenarios, the AT console and its AT port driven by
// chat, and the trace and diagram files.  Every shipped scenario is also a CTest test of its own
// (scenario.<name>).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

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
        const char *lib = std::getenv("DM_LIBRARY");
        ASSERT_NE(lib, nullptr) << "DM_LIBRARY names the built library";
        lib_ = lib;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string write(const std::string &name, const std::string &text) {
        std::string path = dir_ + "/" + name;
        std::ofstream(path) << text;
        return path;
    }
    static std::string read(const std::string &path) {
        std::ifstream in(path);
        std::string text{std::istreambuf_iterator<char>(in), {}};
        return text;
    }
    // Runs dmsim with `args` (shell words) and `input` on standard input.
    Result dmsim(const std::string &args, const std::string &input = "") {
        const std::string in = write("stdin", input);
        const std::string cmd = std::string(DMSIM_PATH) + " --lib " + lib_ + " " + args + " <" +
                                in + " >" + dir_ + "/out 2>" + dir_ + "/err";
        // A command line as its users type it, redirections included.
        const int rc = std::system(cmd.c_str());  // NOLINT(cert-env33-c)
        return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, read(dir_ + "/out"), read(dir_ + "/err")};
    }
    static bool has(const std::string &text, const std::string &part) {
        return text.find(part) != std::string::npos;
    }
    // Runs dmsim with `args`, expecting `status` and each of `out` in its output.
    Result run(const std::string &args, int status, std::initializer_list<std::string> out = {}) {
        Result r = dmsim(args);
        EXPECT_EQ(r.status, status) << args << "\n" << r.out << r.err;
        for (const std::string &o : out) EXPECT_TRUE(has(r.out, o)) << o << "\n" << r.out;
        return r;
    }

    std::string dir_, lib_;
};

constexpr const char *kPdnState =
        "title state\n"
        "announce lanmngr\n"
        "send lanmngr 4060 pdn_id=4\n"
        "expect lanmngr 4061 pdn_id=4 state=65540\n";

TEST_F(DmsimTest, ExpectationsPassOrFailWithTheirFileAndLine) {
    const std::string ok = write("ok.scn", kPdnState);
    run("--log run " + ok, 0,
        {"PASS " + ok + ":4  expect lanmngr 4061", "EVENT_DATAMNGR_GET_PDN_STATE_RESP(4061) 12 B",
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

TEST_F(DmsimTest, UsageScenarioAndEnvironmentErrorsHaveTheirOwnStatus) {
    const std::string bad = write("bad.scn", "announce lanmngr\nexpect lanmngr 4003 cid=1\n");
    Result r = run("run " + bad, 2);
    EXPECT_EQ(r.err.rfind("dmsim: " + bad + ":2: SetupDataCallReq has no field 'cid'", 0), 0u)
            << r.err;
    EXPECT_EQ(r.out, "") << "nothing runs";
    for (const char *args :
         {"run", "frobnicate", "run --bogus x.scn", "records Nope", "run --port p"})
        run(args, 2);
    r = run("at --port " + write("taken", ""), 3);
    EXPECT_TRUE(has(r.err, "taken exists and is not a link to a pseudo-terminal")) << r.err;
    r = run("run " + write("if.scn", "iface pdnet4 2001:db8::1\nexpect-none rb0\n"), 2);
    EXPECT_TRUE(has(r.err, "if.scn:1: the scenario declares the interface pdnet4"));
    lib_ = write("libfake.so", "not an ELF file");
    r = run("run " + write("ok.scn", kPdnState), 3);
    EXPECT_TRUE(has(r.err, "dlopen " + lib_)) << r.err;
}

TEST_F(DmsimTest, FaultPlanShowsInItsPlaceAndLaterStepsAreStillServed) {
    const std::string path = write("f.scn", std::string(kPdnState) +
                                                    "send lanmngr 4060 pdn_id=5\n"
                                                    "expect lanmngr 4061 pdn_id=5 state=65540\n");
    run("--fail evfw_context_common_send:1 --trace " + dir_ + "/t.txt run " + path, 1,
        {"(4060) 136 B  pdn_id=4\n   !! evfw_host: fault plan: evfw_context_common_send call 1 "
         "fails\n   FAIL " +
                 path + ":4",
         "PASS " + path + ":6"});
    EXPECT_TRUE(has(read(dir_ + "/t.txt"), "!! evfw_host: fault plan: evfw_context_common_send"));
    for (const char *plan : {"frobnicate:1", "send", "send:0", "recv:p2", "bind:1=-1"}) {
        Result r = run(std::string("--fail ") + plan + " run " + path, 2);
        EXPECT_TRUE(has(r.err, std::string("fault plan '") + plan + "'")) << r.err;
    }
}

TEST_F(DmsimTest, SeveralScenariosRunApartWithTheirFilesAndTheWorstStatusWins) {
    const std::string ok = write("ok.scn", kPdnState);
    const std::string bad = write("bad.scn", std::string(kPdnState) + "expect lanmngr 4059\n");
    run("--trace " + dir_ + "/t.txt --diagram " + dir_ + "/d.mmd run " + ok + " " + bad + " " + ok,
        1, {"== " + ok + ": PASS", "== " + bad + ": FAIL"});
    // A fresh library each: the client is again the first external id.
    EXPECT_EQ(read(dir_ + "/t-bad.txt").find("lanmngr(65536) -> TASK_DATAMNGR(402)"), 5u);
    const std::string diagram = read(dir_ + "/d-ok.mmd");
    EXPECT_TRUE(has(diagram, "sequenceDiagram\n"));
    EXPECT_TRUE(has(diagram, "P402->>P65536: EVENT_DATAMNGR_GET_PDN_STATE_RESP 4061"));
}

TEST_F(DmsimTest, RepeatShowsTheFirstRunAndStopsAtAFailingOne) {
    const std::string ok = write("ok.scn", kPdnState);
    Result r = run("--trace " + dir_ + "/t.txt run --repeat 3 " + ok, 0,
                   {"== " + ok + ": PASS (1 expectations)\n   3 runs: resident ",
                    "== " + ok + ": PASS (3 runs)\n"});
    EXPECT_EQ(r.out.find("PASS " + ok + ":4"), r.out.rfind("PASS " + ok + ":4")) << r.out;
    EXPECT_EQ(read(dir_ + "/t.txt").find("lanmngr(65536) -> TASK_DATAMNGR(402)"), 5u);
    const std::string bad = write("bad.scn", std::string(kPdnState) + "expect lanmngr 4059\n");
    r = run("run --repeat 5 " + bad, 1, {"== " + bad + ": repetition 1 of 5 failed\n"});
    EXPECT_EQ(r.out.find(" runs: resident "), std::string::npos);
    const std::string usage[] = {"run --repeat 0 " + ok, "run --repeat 2x " + ok,
                                 "run --repeat 2 " + ok + " " + ok, "--repeat 2 at"};
    for (const std::string &args : usage) run(args, 2);
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

TEST_F(DmsimTest, AtConsoleShowsResultsAsATerminalDoesAndDiagnosticsWithLog) {
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
    // With --log they show, and in the trace.
    const std::string trace = dir_ + "/trace.txt";
    r = dmsim("--log --trace " + trace + " at", kAtSession);
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string diag = "!! evfw_host: mutex ";
    EXPECT_TRUE(has(r.err, diag)) << r.err;
    EXPECT_TRUE(has(read(trace), diag));
}

// The AT port as a client nobody here wrote sees it: chat (package ppp), its
// lines ended by CR, its exit status telling what it found.
TEST_F(DmsimTest, AtPortServesAModemClientBetweenItsUrcs) {
    // NOLINTNEXTLINE(cert-env33-c): the shell's own lookup of a program
    if (std::system("command -v chat >/dev/null") != 0) {
        GTEST_SKIP() << "chat (Debian package ppp, installed by scripts/deps) is not installed";
    }
    std::signal(SIGPIPE, SIG_IGN);
    const std::string port = dir_ + "/modem";
    int in[2], out[2];
    ASSERT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    std::string cmd = std::string("exec ") + DMSIM_PATH + " --lib " + lib_ + " at --port " + port;
    char *argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"), cmd.data(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, "/bin/sh", &fa, nullptr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&fa);
    close(in[0]);
    close(out[1]);
    FILE *said = fdopen(out[0], "r");
    char line[512];
    while (std::fgets(line, sizeof(line), said) != nullptr && !has(line, "serving on " + port)) {
    }
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
    while (!got.ends_with("ERROR\r\n") && poll(&p, 1, 10000) == 1) {
        const ssize_t n = ::read(fd, line, sizeof(line));
        if (n <= 0) break;
        got.append(line, static_cast<size_t>(n));
    }
    close(fd);
    EXPECT_EQ(got, std::string("\r\nOK\r\n") + "\r\nOK\r\n" + "\r\n+CGEV: ME PDN ACT 1\r\n" +
                           "\r\nERROR\r\n");

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
    // A modem URC typed on dmsim's input, seen between two answers.
    const std::string urc = "!urc +CGEV: ME PDN ACT 3\n";
    EXPECT_EQ(::write(in[1], urc.data(), urc.size()), static_cast<ssize_t>(urc.size()));
    EXPECT_EQ(chat("'+CGEV: ME PDN ACT 3' AT+CGACT? OK"), 0);
    // The +CGACT? list arrives line by line, without blank lines inside.
    EXPECT_TRUE(has(read(dir_ + "/chat"), "\n+CGACT: 9, 0\n+CGACT: 10, 0\n\nOK"))
            << read(dir_ + "/chat");

    EXPECT_EQ(::write(in[1], "!quit\n", 6), 6);
    close(in[1]);
    while (std::fgets(line, sizeof(line), said) != nullptr) {
    }
    std::fclose(said);
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    EXPECT_NE(access(port.c_str(), F_OK), 0) << "the link goes with the port";
}

}  // namespace
