// Imported calls failing where the library calls them directly: the next
// call of one kind is failed by a fault plan, and the routine that saw it
// gives its result and its log lines, with every event accounted for (the
// fixture).  The fault sweep (sweep.cpp) fails every call the shipped
// scenarios reach; these are the calls only other modules' direct calls
// reach, and the results a scenario cannot see.
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/dm_test.h"
#include "entity/dm_send.h"
#include "ims/ipv6_addr.h"
#include "ims/netlink_listener.h"
#include "pdn/pdn_info.h"
#include "pdn/pdn_records.h"

namespace {

using namespace dm_test;
using dm::testkit::Harness;
using dm::testkit::Peer;
using dm::testkit::Runtime;
using evfw_host::FaultCall;

struct FaultCase {
    const char *name;
    FaultCall call;
    const char *nth;  // which call fails: ":<n>", and "=<status>" for system()
    int32_t (*act)(Harness &h);
    int32_t result;
    const char *line, *line2 = nullptr;  // log lines that end so, once each
};

int32_t receive(Harness &) {
    const int sock = init_netlink_conn();
    const int32_t r = recv_netlink_msg(sock);
    close(sock);
    return r;
}

int32_t no_ra(Harness &) {
    struct {
        nlmsghdr hdr;
        ifaddrmsg ifa;
    } msg = {{sizeof(msg), static_cast<uint16_t>(RTM_NORA), 0, 0, 0}, {AF_INET6, 64, 0, 0, 1}};
    return nl_no_ra_handle(&msg.hdr);
}

int32_t dns(Harness &) {
    const uint8_t v4[3][4] = {{8, 8, 8, 8}, {8, 8, 4, 4}, {1, 1, 1, 1}};
    return dm_network_config("pdnet3", 0, v4[0], v4[0], 1, v4[1], v4[2], 100, nullptr);
}

int32_t global_address(Harness &) {
    auto resp = std::make_unique<SetupDataCallResp>();
    uint8_t prefix[16] = {0x20, 0x01, 0x0d, 0xb8};
    uint8_t addr[16];
    return dm_get_global_ipv6_addr(resp.get(), prefix, addr);
}

// The direct calls, each as another module makes it.
uint32_t g_word = 1;
struct Call {
    static int32_t listen(Harness &) { return dm_run_netlink_listener(); }
    static int32_t notify(Harness &) { return dm_notify_to_imsm(&g_word, 4, 4042, 0); }
    // Several IMS stacks: the main SIM's property is read second.
    static int32_t notify_main_sim(Harness &h) {
        h.rt().set_property("ro.qpx_multiple_ims_support", "1");
        return dm_notify_to_imsm(&g_word, 4, 4042, 0);
    }
    static int32_t to_rild(Harness &) {
        return dm_send_to_task(TASK_RILDPROXY, &g_word, 4, nullptr, 4003);
    }
    // Before the RIL proxy is up the request would wait; it is dropped, and
    // not sent instead.
    static int32_t pending(Harness &h) {
        const int32_t r = dm_req_to_rild(&g_word, 4, nullptr, 4003);
        h.pump();
        return h.rt().trace().empty() ? r : -99;
    }
    static int32_t and_wait(Harness &) {
        return dm_send_to_task_wait_for_event(TASK_ATMNGR, &g_word, 4, nullptr, 3002, 3004);
    }
    static int32_t to_clients(Harness &) {
        return dm_resp_to_external_channel(&g_word, 4, nullptr, 4042);
    }
};

// A state set answered on the request's own event (4059), which the
// framework refuses: the dispatcher keeps the event and frees it.
int32_t state_set(Harness &h) {
    Peer &lan = h.client("lanmngr");
    h.send_bytes(lan, 4058, words(12, {{4, 4}, {8, 0}}));
    h.pump();
    return static_cast<int32_t>(h.sent_to(lan.id()).size());
}

const FaultCase kCases[] = {
        {"Socket", FaultCall::Socket, ":1", Call::listen, -1,
         "[DMGR-ERR] init_netlink_conn open netlink socket error\n",
         "[DMGR-ERR] dm_run_netlink_listener init netlink socket fail\n"},
        {"Bind", FaultCall::Bind, ":1", Call::listen, -1,
         "[DMGR-ERR] init_netlink_conn bind netlink socket error\n",
         "[DMGR-ERR] dm_run_netlink_listener init netlink socket fail\n"},
        {"Send", FaultCall::Send, ":1", Call::listen, -1,
         "[DMGR-ERR] send netlink message error\n"},
        // Nothing arrived: the listener reads on.
        {"Recv", FaultCall::Recv, ":1", receive, 0,
         "[DMGR-ERR] recv_netlink_msg recv fail errno 11\n"},
        {"IfIndexToName", FaultCall::IfIndexToName, ":1", no_ra, 0,
         "[DMGR-INF] nl_no_ra_handle no RA message for "},
        // The command's status is logged, never returned.
        {"SystemStatus", FaultCall::System, ":1", dns, 0,
         "[DMGR-INF] add dns server & dns, ret = (256)"},
        {"SystemCannotRun", FaultCall::System, ":1=-1", dns, 0,
         "[DMGR-INF] add dns server & dns, ret = (-1)"},
        {"Getifaddrs", FaultCall::Getifaddrs, ":1", global_address, -1,
         "[DMGR-ERR] getifaddrs failed"},
        {"PropertyAbsent", FaultCall::PropertyGet, ":1", Call::notify, -1,
         "[DMGR-ERR] rvn_datamngr_set_hdr(): property_get(qpx_multiple_ims_support) error!!"},
        {"MainSimAbsent", FaultCall::PropertyGet, ":2", Call::notify_main_sim, -1,
         "[DMGR-ERR] rvn_datamngr_set_hdr(): property_get(simswitch) error!!"},
        {"NoEventToSend", FaultCall::EventAlloc, ":1", Call::to_rild, -1,
         "[DMGR-ERR] dm_send_to_task no event for event id 4003 to task 202"},
        {"NoEventToHoldAPendingRequest", FaultCall::EventAlloc, ":1", Call::pending, 0,
         "[DMGR-ERR] pending event 4003 dropped: no event to hold it"},
        // Refused: the event is released.
        {"SendRefused", FaultCall::TaskSendEvent, ":1", Call::to_rild, -1,
         "[DMGR-ERR] dm_send_to_task send event task id 202 event id 4003 to rild fail -1"},
        // Sent; the answer never comes.
        {"WaitGivesUp", FaultCall::TaskSendRecvEvent, ":1", Call::and_wait, -110,
         "[DMGR-ERR] dm_send_to_task_wait_for_event send event task id 302 event id 3002 to "
         "rild fail -110"},
        {"BroadcastRefused", FaultCall::TaskBcastExtEvent, ":1", Call::to_clients, -1,
         "[DMGR-ERR] dm_resp_to_external_channel send event id 4042 fail -1"},
        {"ReplyOnTheRequestRefused", FaultCall::ContextCommonSend, ":1", state_set, 0,
         "[DMGR-ERR] datamngr_ext_send(): evfw_task_ext_send() error!!",
         "[DMGR-ERR] datamngr_main_hdl(): datamngr_ext_send() error!!"},
};

class Faults : public DmTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(Faults, TheRoutineThatSawTheFailureSaysSo) {
    const FaultCase &c = GetParam();
    Runtime &rt = h.rt();
    // Counted from here: the plan starts the count.
    const std::string plan = std::string(Runtime::fault_call_name(c.call)) + c.nth;
    std::string error;
    ASSERT_TRUE(rt.add_fault(plan, error)) << error;
    h.clear();
    EXPECT_EQ(c.act(h), c.result);
    h.pump();
    EXPECT_EQ(rt.faults(c.call), 1u);
    for (const char *line : {c.line, c.line2}) {
        if (line == nullptr) continue;
        long n = 0;
        for (const auto &l : h.logs()) n += std::string_view(l.text).ends_with(line);
        EXPECT_EQ(n, 1) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, Faults, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
