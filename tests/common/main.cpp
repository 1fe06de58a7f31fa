// The data manager's test program.  `dm_test --scenario FILE` runs one
// scenario table (a .scn file) against the library linked into the program,
// in the deterministic runtime, and closes its event accounting: it passes
// when every expectation held and every event is freed, held by the library
// or one of the prescribed leaks.  `dm_test --sweep FILE...` runs the fault
// sweep (sweep.cpp).  Without either, the GoogleTest tables run.
#include <android/log.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>

#include "common/seams.h"
#include "common/tables.h"
#include "dati/dati.h"
#include "entity/datamngr.h"
#include "pdn/pdn_info.h"
#include "sim/netns.h"
#include "sim/sim.h"
#include "testkit/testkit.h"

namespace {

int run_table(const char *path) {
    dm::sim::Scenario sc;
    std::string error;
    if (!dm::sim::parse_scenario_file(path, sc, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return dm::sim::kExitUsage;
    }
    if (const int rc = dm_test::isolate(sc); rc != 0) return rc;
    dm::sim::Options options;
    options.linked = &dm_test::linked_library();
    options.final_check = [](dm::sim::Sim &) { return dm_test::closing_problems(); };
    dm::testkit::reset_library_state();
    dm_test::fake_clock::reset();
    const int rc = dm::sim::run_scenario(sc, options, stdout);
    dm::testkit::reset_library_state();
    return rc;
}

}  // namespace

namespace dm_test {

int isolate(dm::sim::Scenario &sc) {
    if (sc.ifaces.empty() && geteuid() != 0) return 0;
    std::string error;
    const dm::sim::NetnsResult r = dm::sim::enter_scenario_netns(sc, error);
    if (r == dm::sim::NetnsResult::kOk) return 0;
    std::printf("%s: %s\n", sc.file.c_str(), error.c_str());
    return r == dm::sim::NetnsResult::kUnprivileged ? kSkipped : dm::sim::kExitEnv;
}

const dm::sim::EntityLinks &linked_library() {
    static const dm::sim::EntityLinks links = {datamngr_entity_init,   datamngr_entity_exit,
                                               datamngr_dati_task_hdl, dati_setup_data_call_resp,
                                               dati_fail_resp,         dati_radio_power_resp,
                                               dati_allow_data_resp,   find_pdn_info_by_index};
    return links;
}

std::string closing_problems() {
    std::string problems = dm::testkit::accounting_problems(evfw_host::Runtime::instance());
    if (const long lists = ifaddrs_outstanding(); lists != 0)
        problems += std::to_string(lists) + " getifaddrs lists not freed; ";
    return problems;
}

std::string unlogged_refusals(const evfw_host::Runtime &rt) {
    const std::vector<evfw_host::LogLine> logs = rt.logs();
    for (const evfw_host::Diagnostic &d : rt.diagnostics()) {
        if (!d.text.starts_with("fault plan: ") || d.text.starts_with("fault plan: property_get"))
            continue;
        size_t i = d.after_log;
        while (i < logs.size() && logs[i].tid != d.tid) ++i;
        if (i == logs.size() || logs[i].prio != ANDROID_LOG_ERROR) {
            return "'" + d.text + "' not logged as an error (next line of its thread: " +
                   (i < logs.size() ? logs[i].text : "none") + "); ";
        }
    }
    return "";
}

}  // namespace dm_test

int main(int argc, char **argv) {
    if (argc == 3 && std::strcmp(argv[1], "--scenario") == 0) return run_table(argv[2]);
    if (argc >= 2 && std::strcmp(argv[1], "--sweep") == 0) return dm_test::run_sweep(argc, argv);
    if (argc >= 2 && std::strcmp(argv[1], "--chaos") == 0) return dm_test::run_chaos(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
