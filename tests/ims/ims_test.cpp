// IPv6 addressing, the network indications and the netlink listener where
// another module calls them: address classes, the prefix and address lookups
// (on the fake clock), the indications' results, the walk of crafted netlink
// buffers, the no-RA message, the listener's sockets, and, in a private
// network namespace, a real address dump and the kernel's own messages about
// a router advertisement.
#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <sstream>

#include "common/dm_test.h"
#include "ims/ims_pdn.h"
#include "ims/ipv6_addr.h"
#include "ims/netlink_listener.h"
#include "sim/netns.h"

namespace {

using namespace dm_test;

// An address and, after its 16 bytes, bait: a read past them changes the outcome.
Bytes ipv6(const std::string &text, size_t bait = 0) {
    Bytes a(16 + bait, 0xff);
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), a.data()), 1) << text;
    return a;
}

class Ims : public DmTest {
  protected:
    void SetUp() override { h.clear(); }
    void fail(const char *plan) {
        std::string error;
        h.rt().clear_faults();
        ASSERT_TRUE(h.rt().add_fault(plan, error)) << error;
    }
};

TEST_F(Ims, AddressClassesAndWhichCountAsGlobal) {
    // Each address with the class it is logged in; unique local and global unicast (also
    // with eight zero bytes first) count as global.
    std::istringstream classes(
            "ff0e::1 global multicast|ff02::1 local multicast|fe80::1 link local|"
            "febf::1 link local|fec0::1 site local|::ffff:10.0.0.1 v4 mapped|::0.0.0.2 v4 compat|"
            "::1.0.0.0 v4 compat|::1 loop back|:: unspecified|fd00::1 uni-local|fc00::1 uni-local|"
            "fe00::1 glocal unicast|::fffe:0:0 glocal unicast|2001:db8::1 glocal unicast|"
            "::2:0:0:1 glocal unicast");
    std::string got, want;
    for (std::string entry; std::getline(classes, entry, '|');) {
        const std::string cls = entry.substr(entry.find(' ') + 1);
        h.clear();
        const int32_t global = dm_ipv6_is_global(ipv6(entry.substr(0, entry.find(' ')), 4).data());
        got += std::to_string(global) + " " + std::string(log_body(h.logs().back().text));
        want += (cls == "uni-local" || cls == "glocal unicast" ? "1 " : "0 ") + cls + " address\n";
    }
    EXPECT_EQ(got, want);
}

// The prefix comes from a global report, else from the network daemon's
// property, polled every 100 ms or read once; the address from the interface.
TEST_F(Ims, PrefixAndAddressLookupsGiveTheirResults) {
    fake_clock::reset();
    uint8_t prefix[16] = {}, addr[16];
    const auto resp = std::make_unique<SetupDataCallResp>();
    auto of = [&](const char *ifname, const char *reported, int once) {
        snprintf(resp->ifname, sizeof(resp->ifname), "%s", ifname);
        memcpy(resp->ipv6_addr, ipv6(reported).data(), 16);
        return dm_get_ipv6_prefix(resp.get(), once, prefix);
    };
    // A property set after 3 s is read on the 31st try; a value with a prefix length is no
    // address; a global report gives its own, unless its first eight bytes are zero.
    fake_clock::set_property_at(3000000, "net.ipv6.pdnet4.prefix", "2001:db8:1:2::");
    const std::string polled = values({dm_get_ipv6_prefix_from_netd("pdnet4", prefix),
                                       fake_clock::sleeps(), prefix[7], of("pdnet5", "fe80::1", 1),
                                       dm_get_ipv6_prefix_once_from_netd("pdnet5", prefix)});
    h.rt().set_property("net.ipv6.pdnet5.prefix", "2001:db8:5::/64");
    const long with_length = dm_get_ipv6_prefix_once_from_netd("pdnet5", prefix);
    h.rt().set_property("net.ipv6.pdnet5.prefix", "2001:db8:5::");
    EXPECT_EQ(polled + " " +
                      values({with_length, of("pdnet5", "::", 1), of("pdnet5", "::", 0),
                              dm_get_ipv6_prefix_from_netd("pdnet6", prefix), of("pdnet6", "::", 0),
                              fake_clock::sleeps(), of("pdnet6", "2001:db8:9::1", 0), prefix[5],
                              of("pdnet6", "::2:0:0:1", 0), fake_clock::sleeps()}),
              "0 30 2 -1 -1 -1 0 0 -1 -1 350 0 9 -1 350");
    // No such interface here; no list to be had.
    const long none = dm_get_global_ipv6_addr(resp.get(), prefix, addr);
    fail("getifaddrs:1");
    EXPECT_EQ(values({none, dm_get_global_ipv6_addr(resp.get(), prefix, addr),
                      count("[DMGR-ERR] getifaddrs failed"),
                      count("[DMGR-ERR] get ipv6 prefix once fail for pdnet5\n")}),
              "-1 -1 1 1");
}

// The indications' results as a module that calls them reads them: the
// forwarding's (-1 here: no IMS manager has announced itself), or 0 when
// nothing is forwarded.
// New parameters start the IMS slot afresh: a query still parked there is
// never answered now, and its event is released.
TEST_F(Ims, NewParametersReleaseAParkedQuery) {
    h.announce(h.client("imsm_0"));
    ImsParaSlot *slot = ims_para_slot(4);
    slot->state = kImsSlotQueryParked;
    slot->parked_req.event = evfw_event_alloc(nullptr);
    const auto req = std::make_unique<SetupDataCallReq>();
    req->ims_para_valid = 1;
    const long before = h.rt().live_events();
    h.send(h.client("imsm_0"), EVENT_DATAMNGR_PASS_IMS_PDN_REQ, *req);
    h.pump();
    EXPECT_EQ(std::tuple(h.rt().live_events(), slot->state, slot->parked_req.event),
              std::tuple(before - 1, kImsSlotParamsPassed, nullptr));
}

TEST_F(Ims, IndicationsTellWhetherTheyForwarded) {
    fake_clock::reset();
    h.rt().set_property("ro.qpx_multiple_ims_support", "0");
    const auto list = std::make_unique<DataCallListInd>();
    DedicateBearerInd bearer = {};
    std::string results;
    // IMS interfaces are told, others not; an IPv6-only call without its prefix (polled for in
    // vain) is dropped; an IPv4 one is not completed at all.
    for (auto [interface_id, pdp_type] : {std::pair{4, 0u}, {2, 0u}, {5, 1u}}) {
        list->resp.interface_id = bearer.entry.interface_id = bearer.entry.cid = interface_id;
        list->resp.pdp_type = pdp_type;
        DedicateBearerDeactInd deact = {0, interface_id, 0};
        results += " " + values({dm_data_call_list_changed_urc(list.get(), nullptr),
                                 dm_dedicate_bearer_activated_urc(&bearer, nullptr),
                                 dm_dedicate_bearer_modified_urc(&bearer, nullptr),
                                 dm_dedicate_bearer_deactivated_urc(&deact, nullptr),
                                 dm_dedicate_bearer_deactivated_urc(&deact, nullptr)});
    }
    EXPECT_EQ(results + " " +
                      values({dm_ipv6_complete_for_indication("x", &list->resp, ims_para_slot(5)),
                              dm_if_status_req(nullptr, nullptr),
                              dm_if_rat_cell_info_req(nullptr, nullptr),
                              dm_default_bearer_modified_urc(nullptr, nullptr),
                              fake_clock::sleeps()}),
              " -1 -1 -1 -1 0 0 0 0 0 0 0 -1 -1 -1 0 -1 0 0 0 320");
}

// ---- the listener -------------------------------------------------------------------

// Netlink address messages on lo (index 1), laid out as the kernel does,
// from a recipe: "|" starts a message ("|3" one of type 3), an address is an
// IFA_ADDRESS attribute, "T*N" an attribute of type T with N bytes; a
// message ends with its last attribute, unpadded.  Then "len=" sets the
// first message's length, "cut=" the bytes kept.
Bytes netlink(const std::string &recipe) {
    Bytes b;
    size_t start = 0;
    std::map<char, uint32_t> set;
    auto append = [&b](const auto &item) {
        b.insert(b.end(), reinterpret_cast<const uint8_t *>(&item),
                 reinterpret_cast<const uint8_t *>(&item + 1));
    };
    auto end_message = [&] {
        const uint32_t len = static_cast<uint32_t>(b.size() - start);
        if (len != 0) memcpy(&b[start], &len, sizeof(len));
        b.resize(start = NLMSG_ALIGN(b.size()));
    };
    std::istringstream in(recipe);
    for (std::string w; in >> w;) {
        const size_t star = w.find('*'), eq = w.find('=');
        if (eq == std::string::npos) b.resize(NLMSG_ALIGN(b.size()));
        if (w[0] == '|') {
            end_message();
            const uint16_t type = w.size() > 1 ? std::stoi(w.substr(1)) : RTM_NEWADDR;
            append(std::pair<nlmsghdr, ifaddrmsg>{{0, type, 0, 0, 0}, {AF_INET6, 64, 0, 0, 1}});
        } else if (eq != std::string::npos) {
            set[w[0]] = std::stoul(w.substr(eq + 1));
        } else {
            const Bytes data = star != std::string::npos
                                       ? Bytes(std::stoul(w.substr(star + 1)), 0x20)
                                       : ipv6(w);
            append(rtattr{uint16_t(RTA_LENGTH(data.size())),
                          uint16_t(star != std::string::npos ? std::stoi(w) : IFA_ADDRESS)});
            b.insert(b.end(), data.begin(), data.end());
        }
    }
    end_message();
    if (set.contains('l')) memcpy(&b[0], &set['l'], 4);
    if (set.contains('c')) b.resize(set['c']);
    return b;
}

TEST_F(Ims, NetlinkWalksLogWhatTheLengthsAllow) {
    // Each buffer's recipe, the result with the "netlink message len" and "address = " lines,
    // and lines that must be there in a row.
    const std::vector<std::array<const char *, 3>> walks = {
            {"| 2001:db8:1:2::5", "0 1 1",
             "if name = lo, if index = 1\n] data = 14, type = 1, IFA_ADDRESS = 1\n] address = "
             "2001:db8:1:2::5, prefix len = 64\n] prefix : 20 1: db8: 0 1: 0 2::\n"},
            // Second byte 0x80 or 0xc0: passed over, whatever the first; the first usable
            // prefix ends the walk.
            {"| fe80::1 ::1 | 2a80::1 20c0::1 | 2001:db8:1:2::5 | 2001:db8:9::1", "0 3 5",
             "netlink message len = 88\n"},
            {"| 2001:db8:1:2::5 len=15", "-1 0 0", ""},
            {"| 2001:db8:1:2::5 len=45", "-1 0 0", ""},
            {"|3 len=20 cut=20", "-1 1 0",
             "recv_netlink_msg message len 20 type 3 holds no address\n"},
            {"|3 len=16 cut=16", "-1 1 0",
             "recv_netlink_msg message len 16 type 3 holds no address\n"},
            {"|", "-1 1 0", "if name = lo"},
            {"| 1*15", "-1 1 0", "recv_netlink_msg address attribute len 19 too short\n"},
            // Unaligned lengths are stepped over rounded up.
            {"| 6*2 fe80::1 8*2 | 2*16 2001:db8:1:2::5", "0 2 2",
             "data =  6, type = 8, IFA_ADDRESS = 1\n] netlink message len = 64\n"},
            {"| fe80::1 8*2 cut=50", "-1 1 1", ""}};
    for (const auto &[recipe, outcome, lines] : walks) {
        SCOPED_TRACE(recipe);
        h.clear();
        // A usable message after the given length, at the next boundary: a read
        // past the length would find its prefix.
        Bytes buf = netlink(recipe), bait = netlink("| 2001:db8:7::7");
        const size_t len = buf.size();
        buf.resize(NLMSG_ALIGN(len));
        buf.insert(buf.end(), bait.begin(), bait.end());
        EXPECT_EQ(values({parse_netlink_msg(buf.data(), len), count("] netlink message len = "),
                          count("] address = ")}),
                  outcome);
        // Every line of the walk reports as part of the receive.
        std::string all = "] ";
        for (const auto &l : h.logs()) all += std::string(log_body(l.text)) + "] ";
        EXPECT_NE(all.find(std::string("] ") + lines), std::string::npos) << all;
        EXPECT_EQ(values({count("] prefix : "), count(" (        recv_netlink_msg, ")}),
                  values({outcome[0] == '0', long(h.logs().size())}));
    }
}

// Each failure of the listener's socket calls ends it with -1 and leaves no
// descriptor open: the lowest free one is the next one handed out.  A failed
// receive walks nothing.
TEST_F(Ims, ListenerEntryPointsFailCleanly) {
    // Descriptor 0 is a socket like any other (a daemon without standard input).
    const int input = dup(0);
    close(0);
    NetlinkListenReq req = {5566};
    fail("socket:1-");
    EXPECT_EQ(
            values({init_netlink_conn(), dm_run_netlink_listener(),
                    dm_netlink_listen_req(&req, nullptr), dm_netlink_listen_req(nullptr, nullptr)}),
            "-1 -1 0 -1");
    fail("bind:1");
    EXPECT_EQ(init_netlink_conn(), -1);
    fail("send:1");
    EXPECT_EQ(values({dm_run_netlink_listener(), send_netlink_msg(-1), dup(input)}), "-1 -1 0");
    close(input);
    EXPECT_EQ(values({recv_netlink_msg(-1), count("[DMGR-INF] dm_netlink_listen_req type 5566\n"),
                      count("[DMGR-ERR] init_netlink_conn open netlink socket error\n"),
                      count("[DMGR-ERR] dm_run_netlink_listener init netlink socket fail\n"),
                      count("[DMGR-ERR] recv_netlink_msg recv fail errno 9\n"),
                      count("Parsing reply")}),
              "0 1 3 2 1 0");
    // A no-RA message (type 110) of the wrong type, family or length is refused.
    auto no_ra = [](uint16_t type, uint8_t family, uint32_t len) {
        const std::pair<nlmsghdr, ifaddrmsg> msg = {{len, type, 0, 0, 0}, {family, 0, 0, 0, 1}};
        return nl_no_ra_handle(&msg.first);
    };
    EXPECT_EQ(values({no_ra(20, AF_INET6, 24), no_ra(110, AF_INET, 24), no_ra(110, AF_INET6, 23),
                      nl_no_ra_handle(nullptr), no_ra(110, AF_INET6, 24),
                      count("] nl_no_ra_handle no RA message for lo")}),
              "-1 -1 -1 -1 0 1");
}

// ---- in a network namespace of the test's own -----------------------------------

// pdnet5 with its address and pdnet4, where a router (radvd) advertises a
// prefix: a real dump of the addresses, then, once the kernel has configured
// pdnet4's address itself, its own messages about the prefix and the address.
TEST_F(Ims, ListenerReadsARealDumpAndTheKernelsMessagesAboutARouterAdvertisement) {
    std::string why;
    const std::vector<dm::sim::IfaceDecl> ifaces = {{0, "pdnet5", {{"2001:db8:1:2::5", 64}}, ""},
                                                    {0, "pdnet4", {}, "2001:db8:4::"}};
    if (dm::sim::enter_netns(ifaces, why) != dm::sim::NetnsResult::kOk) GTEST_SKIP() << why;
    const int sock = init_netlink_conn();
    timeval limit = {5, 0};  // a missing message fails the test instead of hanging it
    EXPECT_EQ(setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    EXPECT_EQ(send_netlink_msg(sock), 0);
    // The socket also hears the groups the listener joins (the veth links
    // coming up); the dump is the one reply with ::1.  Its first usable
    // prefix is logged blank padded.
    const char *loopback = "address = ::1, prefix len = 128\n";
    for (int reads = 0; reads < 10 && logged(loopback) == 0; ++reads)
        EXPECT_EQ(recv_netlink_msg(sock), 0);
    EXPECT_EQ(values({count(loopback), count("recv fail"),
                      count("[DMGR-INF] Send the netlink message\n"),
                      count("if name = pdnet5, if index = ") > 0,
                      count("address = 2001:db8:1:2::5, prefix len = 64\n") > 0,
                      count("[DMGR-INF] prefix : 20 1: db8: 0 1: 0 2::\n") > 0}),
              "1 0 1 1 1 1");
    std::vector<dm::sim::Slaac> learned;
    ASSERT_TRUE(dm::sim::advertise(ifaces, learned, why)) << why;
    ASSERT_EQ(learned.size(), 1u);
    EXPECT_EQ(learned[0].prefix + " " + learned[0].address.substr(0, 13),
              "2001:db8:4:: 2001:db8:4:0:");
    // Each message's type is peeked at before the listener reads it.  The prefix message is read
    // as an address message: the interface is named, and the prefix header's rest ends the walk
    // of its attributes.  (qemu-user refuses the route messages it cannot translate, this one
    // among them, with EINVAL; the kernel never does.)
    bool prefix_read = false, address_read = false;
    const std::string address = "address = " + learned[0].address + ", prefix len = 64\n";
    for (int reads = 0; reads < 60 && !(prefix_read && address_read); ++reads) {
        nlmsghdr next;
        if (recv(sock, &next, sizeof(next), MSG_PEEK) != sizeof(next)) break;
        h.clear();
        EXPECT_EQ(recv_netlink_msg(sock), 0);
        prefix_read |=
                next.nlmsg_type == RTM_NEWPREFIX &&
                ((logged("if name = pdnet4, if index = ") == 1 && logged("address =") == 0) ||
                 logged("recv fail errno 22") == 1);
        address_read |= next.nlmsg_type == RTM_NEWADDR && logged(address) == 1 &&
                        logged("[DMGR-INF] prefix : 20 1: db8: 0 4: 0 0::\n") == 1;
    }
    close(sock);
    EXPECT_EQ(values({prefix_read, address_read}), "1 1");
}

}  // namespace
