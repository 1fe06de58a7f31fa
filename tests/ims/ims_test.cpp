// IPv6 addressing and the netlink listener where they are called directly:
// address classes, interface names, the prefix property's polling (on the
// fake clock), the walk of crafted netlink buffers, the no-RA message, and,
// in a private network namespace, a real address dump and the kernel's own
// messages about a router advertisement.
#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/dm_test.h"
#include "common/seams.h"
#include "ims/ims_pdn.h"
#include "ims/ipv6_addr.h"
#include "ims/netlink_listener.h"
#include "sim/netns.h"

namespace {

using namespace dm_test;

Bytes ipv6(const char *text) {
    Bytes a(16);
    EXPECT_EQ(inet_pton(AF_INET6, text, a.data()), 1) << text;
    return a;
}

class Ims : public DmTest {
  protected:
    void SetUp() override {
        fake_clock::reset();
        h.clear();
    }
};

TEST_F(Ims, AddressClasses) {
    // The class each address is logged in; only unicast and unique-local
    // addresses are global.
    const std::pair<const char *, std::vector<const char *>> classes[] = {
            {"global multicast", {"ff0e::1"}},
            {"local multicast", {"ff02::1"}},
            {"link local", {"fe80::1", "febf::1"}},
            {"site local", {"fec0::1"}},
            {"v4 mapped", {"::ffff:10.0.0.1"}},
            {"v4 compat", {"::0.0.0.2", "::1.0.0.0"}},
            {"loop back", {"::1"}},
            {"unspecified", {"::"}},
            {"uni-local", {"fd00::1", "fc00::1"}},
            // The last: eight zero bytes first, and still global (see the README).
            {"glocal unicast", {"fe00::1", "::fffe:0:0", "2001:db8::1", "::2:0:0:1"}}};
    for (const auto &[cls, addrs] : classes) {
        const bool global = cls == std::string("uni-local") || cls == std::string("glocal unicast");
        for (const char *addr : addrs) {
            h.clear();
            EXPECT_EQ(dm_ipv6_is_global(ipv6(addr).data()), global) << addr;
            auto logs = h.logs();
            ASSERT_EQ(logs.size(), 2u) << addr;
            EXPECT_EQ(log_body(logs[1].text), std::string(cls) + " address\n") << addr;
        }
    }
    EXPECT_EQ(log_body(h.logs()[0].text),
              "dm_ipv6_is_global ipv6 00.00.00.00.00.00.00.00.00.02.00.00.00.00.00.01 is\n");
}

TEST_F(Ims, InterfaceNumberIsReadAfterTheFirstFiveCharacters) {
    std::string ids;
    for (const char *name : {"pdnet4", "pdnet12", "pdnet", "rmnet4", "xpdnet4", "abcde7pdnet"})
        ids += std::to_string(get_interface_id(name)) + " ";
    EXPECT_EQ(ids, "4 12 0 -1 0 7 ");
}

TEST_F(Ims, PrefixPropertyIsPolledUntilItComes) {
    uint8_t prefix[16] = {};
    fake_clock::set_property_at(3000000, "net.ipv6.pdnet4.prefix", "2001:db8:1:2::");
    EXPECT_EQ(dm_get_ipv6_prefix_from_netd("pdnet4", prefix), 0);
    EXPECT_EQ(fake_clock::sleeps(), 30);
    EXPECT_EQ(logged("[DMGR-WAR] dm_get_ipv6_prefix_from_netd get prefix fail retry"), 30u);
    EXPECT_EQ(logged("get prefix fail retry 30\n"), 1u);
    EXPECT_EQ(Bytes(prefix, prefix + 16), ipv6("2001:db8:1:2::"));
    // Read once: no wait, and the failure is the caller's to report.
    auto resp = std::make_unique<SetupDataCallResp>();
    strcpy(resp->ifname, "pdnet5");
    EXPECT_EQ(dm_get_ipv6_prefix(resp.get(), 1, prefix), -1);
    EXPECT_EQ(fake_clock::sleeps(), 30);
    EXPECT_EQ(logged("[DMGR-ERR] dm_get_ipv6_prefix_once_from_netd get property fail\n"), 1u);
    EXPECT_EQ(logged("[DMGR-ERR] get ipv6 prefix once fail for pdnet5\n"), 1u);
    h.rt().set_property("net.ipv6.pdnet5.prefix", "2001:db8:5::");
    EXPECT_EQ(dm_get_ipv6_prefix(resp.get(), 1, prefix), 0);
    EXPECT_EQ(logged("dm_get_ipv6_prefix_once_from_netd get prefix 2001:db8:5:: for pdnet5 \n"),
              1u);
    EXPECT_EQ(dm_get_ipv6_prefix(resp.get(), 0, prefix), 0);
    strcpy(resp->ifname, "pdnet6");  // no property: polled to the end
    EXPECT_EQ(dm_get_ipv6_prefix(resp.get(), 0, prefix), -1);
    EXPECT_EQ(logged("[DMGR-ERR] get ipv6 prefix fail for pdnet6\n"), 1u);
    // A global report with a zero prefix is refused without a word.
    memcpy(resp->ipv6_addr, ipv6("::2:0:0:1").data(), 16);
    h.clear();
    EXPECT_EQ(dm_get_ipv6_prefix(resp.get(), 0, prefix), -1);
    EXPECT_EQ(logged("fail"), 0u);
}

// ---- the walk of a received buffer ---------------------------------------------

// Netlink address messages, laid out as the kernel does.
struct NlBuf {
    struct Attr {
        uint16_t type;
        Bytes data;
    };
    // Appends a message; with `pad_last` false its last attribute ends it
    // unpadded.
    NlBuf &msg(std::vector<Attr> attrs, uint16_t type = RTM_NEWADDR, bool pad_last = true) {
        const size_t start = b.size();
        b.resize(start + NLMSG_HDRLEN);
        ifaddrmsg ifa = {AF_INET6, 64, 0, 0, 1};
        append(&ifa, sizeof(ifa));
        for (size_t i = 0; i < attrs.size(); ++i) {
            rtattr rta = {static_cast<uint16_t>(RTA_LENGTH(attrs[i].data.size())), attrs[i].type};
            append(&rta, sizeof(rta));
            append(attrs[i].data.data(), attrs[i].data.size());
            if (pad_last || i + 1 < attrs.size()) b.resize(NLMSG_ALIGN(b.size()));
        }
        nlmsghdr hdr = {static_cast<uint32_t>(b.size() - start), type, 0, 0, 0};
        memcpy(&b[start], &hdr, sizeof(hdr));
        b.resize(NLMSG_ALIGN(b.size()));
        return *this;
    }
    template <class T>
    NlBuf &set(size_t offset, T value) {
        memcpy(&b[offset], &value, sizeof(value));
        return *this;
    }
    Bytes upto(size_t n) const { return Bytes(b.begin(), b.begin() + static_cast<long>(n)); }
    void append(const void *p, size_t n) {
        b.insert(b.end(), static_cast<const uint8_t *>(p), static_cast<const uint8_t *>(p) + n);
    }
    Bytes b;
};

constexpr const char *kUsable = "2001:db8:1:2::5";
NlBuf::Attr addr(const char *text) {
    return {IFA_ADDRESS, ipv6(text)};
}
// A message of one address, the usable one.
NlBuf usable() {
    return NlBuf().msg({addr(kUsable)});
}

constexpr size_t kFirstAttr = NLMSG_LENGTH(sizeof(ifaddrmsg));
constexpr size_t kOneAddress = kFirstAttr + RTA_LENGTH(16);  // usable()'s length
constexpr const char *kDbPrefix = "prefix : 20 1: db8: 0 1: 0 2::\n";

struct WalkCase {
    const char *name;
    Bytes (*build)();
    int32_t result;
    size_t messages, addresses;  // "netlink message len", "address = " lines
    const char *line;            // a line that must be there once, or nullptr
};

const WalkCase kWalks[] = {
        {"UsableAddress", [] { return usable().b; }, 0, 1, 1,
         "address = 2001:db8:1:2::5, prefix len = 64\n"},
        {"FirstUsablePrefixEndsTheWalk",
         [] {
             // Second byte 0x80 or 0xc0: passed over, whatever the first.
             return NlBuf()
                     .msg({addr("fe80::1"), addr("::1")})
                     .msg({addr("2a80::1"), addr("20c0::1")})
                     .msg({addr(kUsable)})
                     .msg({addr("2001:db8:9::1")})
                     .b;
         },
         0, 3, 5, "netlink message len = 88\n"},
        {"ShorterThanAHeader", [] { return usable().upto(15); }, -1, 0, 0, nullptr},
        {"NlmsgLenBelowAHeader", [] { return usable().set<uint32_t>(0, 15).b; }, -1, 0, 0, nullptr},
        {"NlmsgLenAboveTheRest", [] { return usable().set<uint32_t>(0, kOneAddress + 1).b; }, -1, 0,
         0, nullptr},
        {"TruncatedSecondMessage",
         [] { return NlBuf().msg({addr("fe80::1")}).msg({addr(kUsable)}).upto(kOneAddress + 30); },
         -1, 1, 1, nullptr},
        {"NoRoomForAnAddressMessage",
         [] { return NlBuf().msg({}, NLMSG_DONE).set<uint32_t>(0, 20).upto(20); }, -1, 1, 0,
         "recv_netlink_msg message len 20 type 3 holds no address\n"},
        {"BareHeaderEndingTheBuffer",
         [] { return NlBuf().msg({}, NLMSG_DONE).set<uint32_t>(0, 16).upto(16); }, -1, 1, 0,
         "recv_netlink_msg message len 16 type 3 holds no address\n"},
        {"AddressMessageWithoutAttributes", [] { return NlBuf().msg({}).b; }, -1, 1, 0,
         "if name = "},
        {"RtaLenBelowAHeader", [] { return usable().set<uint16_t>(kFirstAttr, 3).b; }, -1, 1, 0,
         nullptr},
        {"RtaLenAboveTheSpace", [] { return usable().set<uint16_t>(kFirstAttr, 21).b; }, -1, 1, 0,
         nullptr},
        {"AddressTooShortForIpv6",
         [] {
             return NlBuf().msg({{IFA_ADDRESS, Bytes(15, 0x20)}}).b;
         },
         -1, 1, 0, "recv_netlink_msg address attribute len 19 too short\n"},
        {"UnalignedLengthsAreSteppedRoundedUp",
         [] {
             return NlBuf()
                     .msg({{IFA_CACHEINFO, {1, 2}}, addr("fe80::1"), {IFA_FLAGS, {1, 2}}},
                          RTM_NEWADDR, false)
                     .msg({{IFA_LOCAL, Bytes(16, 0x20)}, addr(kUsable)})
                     .b;
         },
         0, 2, 2, "data = 14, type = 2, IFA_ADDRESS = 1\n"},
        {"UnpaddedMessageEndingTheBuffer",
         [] {
             return NlBuf()
                     .msg({addr("fe80::1"), {IFA_FLAGS, {1, 2}}}, RTM_NEWADDR, false)
                     .upto(50);
         },
         -1, 1, 1, nullptr},
};

class Walks : public Ims, public ::testing::WithParamInterface<WalkCase> {};

TEST_P(Walks, LogWhatTheLengthsAllow) {
    const WalkCase &c = GetParam();
    const Bytes buf = c.build();  // exactly its bytes: a read past them is caught
    EXPECT_EQ(parse_netlink_msg(buf.data(), buf.size()), c.result);
    EXPECT_EQ(logged("] netlink message len = "), c.messages);
    EXPECT_EQ(logged("] address = "), c.addresses);
    EXPECT_EQ(std::tuple(logged(kDbPrefix), logged("] prefix : ")),
              c.result == 0 ? std::tuple(1u, 1u) : std::tuple(0u, 0u));
    if (c.line != nullptr) {
        EXPECT_EQ(logged(std::string("] ") + c.line), 1u) << c.line;
    }
    for (const auto &l : h.logs()) EXPECT_EQ(l.text.substr(2, 24), "        recv_netlink_msg");
}

INSTANTIATE_TEST_SUITE_P(Buffers, Walks, ::testing::ValuesIn(kWalks),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(Ims, NoRaMessageIsCheckedForTypeLengthAndFamily) {
    const struct {
        uint16_t type;
        uint8_t family;
        uint32_t len;
        int32_t result;
        const char *line;
    } cases[] = {{20, AF_INET6, 24, -1, "nl_no_ra_handle: incorrect message type 20\n"},
                 {110, AF_INET, 24, -1, "nl_no_ra_handle wrong family 2\n"},
                 {110, AF_INET6, 23, -1, "nl_no_ra_handle: message len 23 too short\n"},
                 {110, AF_INET6, 24, 0, "nl_no_ra_handle no RA message for lo"}};
    for (const auto &c : cases) {
        struct {
            nlmsghdr hdr;
            ifaddrmsg ifa;
        } msg = {{c.len, c.type, 0, 0, 0}, {c.family, 0, 0, 0, 1}};  // index 1: lo
        EXPECT_EQ(nl_no_ra_handle(&msg.hdr), c.result) << c.line;
        EXPECT_EQ(logged(std::string("] ") + c.line), 1u) << c.line;
    }
    EXPECT_EQ(nl_no_ra_handle(nullptr), -1);
}

TEST_F(Ims, ListenRequestRunsTheListenerUntilItEnds) {
    std::string error;
    ASSERT_TRUE(h.rt().add_fault("socket:1-", error)) << error;
    NetlinkListenReq req = {5566};
    EXPECT_EQ(std::tuple(dm_netlink_listen_req(&req, nullptr),
                         dm_netlink_listen_req(nullptr, nullptr)),
              std::tuple(0, -1));
    EXPECT_EQ(logged("[DMGR-ERR] dm_run_netlink_listener init netlink socket fail\n"), 1u);
    EXPECT_EQ(logged("[DMGR-INF] dm_netlink_listen_req type 5566\n"), 1u);
    EXPECT_EQ(logged("[DMGR-ERR] dm_netlink_listen_req no request\n"), 1u);
}

// A real dump from the kernel, in a namespace of the test's own.
TEST_F(Ims, RealDumpLogsEveryAddressAndTheFirstUsablePrefixBlankPadded) {
    std::string why;
    dm::sim::IfaceDecl pdnet4{0, "pdnet4", {{"2001:db8:1:2::5", 64}}, ""};
    if (dm::sim::enter_netns({pdnet4}, why) != dm::sim::NetnsResult::kOk) GTEST_SKIP() << why;
    const int sock = init_netlink_conn();
    ASSERT_GE(sock, 0);
    timeval limit = {5, 0};  // a missing reply fails the test instead of hanging it
    ASSERT_EQ(setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    EXPECT_EQ(send_netlink_msg(sock), 0);
    // The socket also hears the groups the listener joins: the veth link
    // coming up (the kernel does that a moment later) can be announced
    // before the dump's reply arrives.  The dump is the one reply with ::1.
    const char *loopback = "address = ::1, prefix len = 128\n";
    for (int reads = 0; reads < 10 && logged(loopback) == 0; ++reads) {
        EXPECT_EQ(recv_netlink_msg(sock), 0);
    }
    close(sock);
    EXPECT_EQ(logged(loopback), 1u);
    EXPECT_EQ(logged("[DMGR-INF] Send the netlink message\n"), 1u);
    for (const char *line : {"[DMGR-INF] Parsing reply message\n", "if name = pdnet4, if index = ",
                             "address = 2001:db8:1:2::5, prefix len = 64\n",
                             "[DMGR-INF] prefix : 20 1: db8: 0 1: 0 2::\n"}) {
        EXPECT_GE(logged(line), 1u) << line;
    }
    EXPECT_EQ(logged("recv fail"), 0u);
}

// A router (radvd) advertises a prefix on pdnet4's far end and the kernel
// configures the address itself: the listener reads the kernel's own
// messages about the prefix it learned and the address it made from it.
TEST_F(Ims, ListenerReadsTheKernelsPrefixAndAddressFromARouterAdvertisement) {
    std::string why;
    const std::vector<dm::sim::IfaceDecl> ifaces = {{0, "pdnet4", {}, "2001:db8:4::"}};
    if (dm::sim::enter_netns(ifaces, why) != dm::sim::NetnsResult::kOk) GTEST_SKIP() << why;
    const int sock = init_netlink_conn();
    ASSERT_GE(sock, 0);
    timeval limit = {5, 0};  // a missing message fails the test instead of hanging it
    ASSERT_EQ(setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    std::vector<dm::sim::Slaac> learned;
    ASSERT_TRUE(dm::sim::advertise(ifaces, learned, why)) << why;
    ASSERT_EQ(learned.size(), 1u);
    EXPECT_EQ(learned[0].prefix, "2001:db8:4::");
    EXPECT_TRUE(learned[0].address.starts_with("2001:db8:4:0:")) << learned[0].address;

    // Each message's type is peeked at before the listener reads it.
    bool prefix_read = false, address_read = false, emulator_refused = false;
    const std::string address = "address = " + learned[0].address + ", prefix len = 64\n";
    for (int reads = 0; reads < 40 && !((prefix_read || emulator_refused) && address_read);
         ++reads) {
        nlmsghdr next;
        if (recv(sock, &next, sizeof(next), MSG_PEEK) != sizeof(next)) break;
        h.clear();
        EXPECT_EQ(recv_netlink_msg(sock), 0);
        if (next.nlmsg_type == RTM_NEWPREFIX) {
            // Read as an address message: the interface is named, and the
            // prefix header's rest ends the walk of its attributes.  qemu-user
            // refuses the route messages it cannot translate, this one among
            // them, with EINVAL; the kernel never does.
            emulator_refused |= logged("recv fail errno 22") == 1;
            prefix_read |= logged("if name = pdnet4, if index = ") == 1 && logged("address =") == 0;
        } else if (next.nlmsg_type == RTM_NEWADDR && logged(address) == 1) {
            address_read |= logged("[DMGR-INF] prefix : 20 1: db8: 0 4: 0 0::\n") == 1;
        }
    }
    close(sock);
    EXPECT_TRUE(prefix_read || emulator_refused);
    EXPECT_TRUE(address_read);
}

}  // namespace
