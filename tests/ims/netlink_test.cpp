// The route-netlink listener: a real address dump in a private namespace,
// crafted buffers for the walk, and the no-RA message check.
#include "ims/netlink_listener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <vector>

#include "ims_test_util.h"
#include "netns.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Builds netlink address messages byte by byte, as the kernel lays them out.
class NlBuf {
  public:
    struct Attr {
        uint16_t type;
        Bytes data;
    };

    static Attr address(const char *text) {
        ims_test::Addr a = ims_test::ipv6(text);
        return {IFA_ADDRESS, Bytes(a.begin(), a.end())};
    }

    // Appends a message; returns its offset.  With `pad_last` false the last
    // attribute ends the message unpadded, so nlmsg_len is not a multiple of 4.
    size_t message(std::vector<Attr> attrs, uint32_t index = 1, uint8_t prefix_len = 64,
                   uint16_t type = RTM_NEWADDR, bool pad_last = true) {
        size_t start = bytes_.size();
        bytes_.resize(start + NLMSG_HDRLEN);
        ifaddrmsg ifa = {};
        ifa.ifa_family = AF_INET6;
        ifa.ifa_prefixlen = prefix_len;
        ifa.ifa_index = index;
        append(&ifa, sizeof(ifa));
        for (size_t i = 0; i < attrs.size(); ++i) {
            rtattr rta;
            rta.rta_len = static_cast<uint16_t>(RTA_LENGTH(attrs[i].data.size()));
            rta.rta_type = attrs[i].type;
            append(&rta, sizeof(rta));
            append(attrs[i].data.data(), attrs[i].data.size());
            if (pad_last || i + 1 < attrs.size()) bytes_.resize(NLMSG_ALIGN(bytes_.size()));
        }
        nlmsghdr hdr = {};
        hdr.nlmsg_len = static_cast<uint32_t>(bytes_.size() - start);
        hdr.nlmsg_type = type;
        memcpy(&bytes_[start], &hdr, sizeof(hdr));
        bytes_.resize(NLMSG_ALIGN(bytes_.size()));
        return start;
    }
    void set_u32(size_t offset, uint32_t value) { memcpy(&bytes_[offset], &value, 4); }
    void set_u16(size_t offset, uint16_t value) { memcpy(&bytes_[offset], &value, 2); }
    size_t size() const { return bytes_.size(); }
    // Exactly `len` bytes (all by default) in a block of their own, so that
    // a read past them is a read past the allocation.
    Bytes take(size_t len = SIZE_MAX) const {
        return Bytes(bytes_.begin(), bytes_.begin() + std::min(len, bytes_.size()));
    }

  private:
    void append(const void *p, size_t n) {
        const auto *b = static_cast<const uint8_t *>(p);
        bytes_.insert(bytes_.end(), b, b + n);
    }
    Bytes bytes_;
};

constexpr size_t kFirstAttr = NLMSG_LENGTH(sizeof(ifaddrmsg));
constexpr const char *kDbPrefix = "prefix : 20 1: db8: 0 1: 0 2::\n";

struct WalkCase {
    const char *name;
    std::function<Bytes()> build;
    int32_t result;
    long messages;   // "netlink message len" lines
    long addresses;  // "address = " lines
    const char *prefix_line;
    const char *also;  // another line that must be there, or nullptr
};
void PrintTo(const WalkCase &c, std::ostream *os) {
    *os << c.name;
}

class ImsNetlinkWalkTest : public ::testing::TestWithParam<WalkCase> {
  protected:
    dm::testkit::Harness h;
};

long lines_starting(const dm::testkit::Harness &h, const std::string &start) {
    long n = 0;
    for (const auto &b : ims_test::bodies(h)) n += b.rfind(start, 0) == 0;
    return n;
}

TEST_P(ImsNetlinkWalkTest, LogsWhatTheLengthsAllow) {
    const WalkCase &c = GetParam();
    Bytes buf = c.build();
    h.clear();
    EXPECT_EQ(parse_netlink_msg(buf.data(), buf.size()), c.result);
    EXPECT_EQ(lines_starting(h, "netlink message len = "), c.messages);
    EXPECT_EQ(lines_starting(h, "address = "), c.addresses);
    if (c.prefix_line != nullptr) {
        EXPECT_EQ(ims_test::count_body(h, c.prefix_line), 1);
        EXPECT_TRUE(ims_test::logged_by(h, "recv_netlink_msg", c.prefix_line));
    }
    EXPECT_EQ(lines_starting(h, "prefix : "), c.prefix_line != nullptr ? 1 : 0);
    if (c.also != nullptr) {
        EXPECT_EQ(ims_test::count_body(h, c.also), 1) << c.also;
    }
}

INSTANTIATE_TEST_SUITE_P(
        Buffers, ImsNetlinkWalkTest,
        ::testing::Values(
                WalkCase{"usable_address",
                         [] {
                             NlBuf b;
                             b.message({NlBuf::address("2001:db8:1:2::5")}, 1, 64);
                             return b.take();
                         },
                         0, 1, 1, kDbPrefix, "address = 2001:db8:1:2::5, prefix len = 64\n"},
                WalkCase{"first_usable_prefix_ends_the_walk",
                         [] {
                             NlBuf b;
                             b.message({NlBuf::address("fe80::1")});
                             // Second byte 0x80 or 0xc0: passed over, whatever the first.
                             b.message({NlBuf::address("2a80::1"), NlBuf::address("20c0::1")});
                             b.message({NlBuf::address("2001:db8:1:2::5")});
                             b.message({NlBuf::address("2001:db8:9::1")});
                             return b.take();
                         },
                         0, 3, 4, kDbPrefix, "netlink message len = 88\n"},
                WalkCase{"buffer_shorter_than_a_header",
                         [] {
                             NlBuf b;
                             b.message({NlBuf::address("2001:db8:1:2::5")});
                             return b.take(15);
                         },
                         -1, 0, 0, nullptr, nullptr},
                WalkCase{"nlmsg_len_below_a_header",
                         [] {
                             NlBuf b;
                             b.message({NlBuf::address("2001:db8:1:2::5")});
                             b.set_u32(0, 8);
                             return b.take();
                         },
                         -1, 0, 0, nullptr, nullptr},
                WalkCase{"nlmsg_len_above_the_remaining_length",
                         [] {
                             NlBuf b;
                             b.message({NlBuf::address("2001:db8:1:2::5")});
                             b.set_u32(0, static_cast<uint32_t>(b.size() + 4));
                             return b.take();
                         },
                         -1, 0, 0, nullptr, nullptr},
                WalkCase{"truncated_second_message",
                         [] {
                             NlBuf b;
                             b.message({NlBuf::address("fe80::1")});
                             size_t second = b.message({NlBuf::address("2001:db8:1:2::5")});
                             return b.take(second + 30);
                         },
                         -1, 1, 1, nullptr, nullptr},
                WalkCase{"message_without_room_for_an_address",
                         [] {
                             NlBuf b;
                             size_t done = b.message({}, 0, 0, NLMSG_DONE);
                             b.set_u32(done, 20);
                             return b.take(20);
                         },
                         -1, 1, 0, nullptr,
                         "recv_netlink_msg message len 20 type 3 holds no address\n"},
                WalkCase{"rta_len_below_an_attribute_header",
                         [] {
                             NlBuf b;
                             b.message({NlBuf::address("2001:db8:1:2::5")});
                             b.set_u16(kFirstAttr, 2);
                             return b.take();
                         },
                         -1, 1, 0, nullptr, nullptr},
                WalkCase{"rta_len_above_the_space",
                         [] {
                             NlBuf b;
                             b.message({NlBuf::address("2001:db8:1:2::5")});
                             b.set_u16(kFirstAttr, 21);
                             return b.take();
                         },
                         -1, 1, 0, nullptr, nullptr},
                WalkCase{"address_attribute_too_short_for_ipv6",
                         [] {
                             NlBuf b;
                             b.message({{IFA_ADDRESS, {10, 0, 0, 1}}});
                             return b.take();
                         },
                         -1, 1, 0, nullptr, "data =  8, type = 1, IFA_ADDRESS = 1\n"},
                WalkCase{"unaligned_lengths_are_stepped_rounded_up",
                         [] {
                             NlBuf b;
                             // Other attributes first; the last one ends unpadded.
                             b.message({{IFA_CACHEINFO, {1, 2}},
                                        NlBuf::address("fe80::1"),
                                        {IFA_FLAGS, {1, 2}}},
                                       1, 64, RTM_NEWADDR, false);
                             b.message({{IFA_LOCAL, Bytes(16, 0x20)},
                                        NlBuf::address("2001:db8:1:2::5")});
                             return b.take();
                         },
                         0, 2, 2, kDbPrefix, "data = 14, type = 2, IFA_ADDRESS = 1\n"},
                WalkCase{"unpadded_message_ending_the_buffer",
                         [] {
                             NlBuf b;
                             b.message({NlBuf::address("fe80::1"), {IFA_FLAGS, {1, 2}}}, 1, 64,
                                       RTM_NEWADDR, false);
                             return b.take(16 + 8 + 20 + 6);
                         },
                         -1, 1, 1, nullptr, nullptr}),
        [](const ::testing::TestParamInfo<WalkCase> &info) { return info.param.name; });

// ---- the no-RA message ----------------------------------------------------

struct NoRaCase {
    const char *name;
    uint16_t type;
    uint8_t family;
    uint32_t len;
    int32_t result;
    const char *line;
};
void PrintTo(const NoRaCase &c, std::ostream *os) {
    *os << c.name;
}

class ImsNoRaTest : public ::testing::TestWithParam<NoRaCase> {
  protected:
    dm::testkit::Harness h;
};

TEST_P(ImsNoRaTest, TypeFamilyAndLength) {
    const NoRaCase &c = GetParam();
    struct {
        nlmsghdr hdr;
        ifaddrmsg ifa;
    } msg = {};
    msg.hdr.nlmsg_len = c.len;
    msg.hdr.nlmsg_type = c.type;
    msg.ifa.ifa_family = c.family;
    msg.ifa.ifa_index = 1;  // lo, in every namespace
    h.clear();
    EXPECT_EQ(nl_no_ra_handle(&msg.hdr), c.result);
    EXPECT_TRUE(ims_test::logged_by(h, "nl_no_ra_handle", c.line)) << c.line;
}

INSTANTIATE_TEST_SUITE_P(Messages, ImsNoRaTest,
                         ::testing::Values(NoRaCase{"other_type", 20, AF_INET6, 24, -1,
                                                    "nl_no_ra_handle: incorrect message type 20\n"},
                                           NoRaCase{"ipv4_family", 110, AF_INET, 24, -1,
                                                    "nl_no_ra_handle wrong family 2\n"},
                                           NoRaCase{"too_short", 110, AF_INET6, 16, -1,
                                                    "nl_no_ra_handle: message len 16 too short\n"},
                                           NoRaCase{"no_ra_for_lo", 110, AF_INET6, 24, 0,
                                                    "nl_no_ra_handle no RA message for lo"}),
                         [](const ::testing::TestParamInfo<NoRaCase> &info) {
                             return info.param.name;
                         });

// ---- a real dump ------------------------------------------------------------

class ImsNetlinkDumpTest : public ::testing::Test {
  protected:
    void SetUp() override {
        IMS_ENTER_PRIVATE_NETNS();
        ASSERT_TRUE(ims_test::add_data_interface(4));
    }
    // Opens the listener's socket, asks for the dump and reads once.
    void dump() {
        h.clear();
        int sock = init_netlink_conn();
        ASSERT_GE(sock, 0);
        timeval limit = {5, 0};  // a missing reply fails the test, not hangs it
        ASSERT_EQ(setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
        EXPECT_EQ(send_netlink_msg(sock), 0);
        EXPECT_EQ(recv_netlink_msg(sock), 0);
        close(sock);
        EXPECT_TRUE(h.logged("[DMGR-INF] Send the netlink message\n"));
        EXPECT_TRUE(h.logged("[DMGR-INF] Parsing reply message\n"));
        EXPECT_FALSE(h.logged("recv fail"));
    }
    dm::testkit::Harness h;
};

TEST_F(ImsNetlinkDumpTest, FirstUsablePrefixIsLoggedBlankPadded) {
    ASSERT_TRUE(ims_test::add_ipv6("pdnet4", "2001:db8:1:2::5/64"));
    dump();
    EXPECT_TRUE(h.logged("address = ::1, prefix len = 128\n"));
    EXPECT_TRUE(h.logged("if name = pdnet4, if index = "));
    EXPECT_TRUE(h.logged("address = 2001:db8:1:2::5, prefix len = 64\n"));
    EXPECT_TRUE(h.logged("[DMGR-INF] prefix : 20 1: db8: 0 1: 0 2::\n"));
}

TEST_F(ImsNetlinkDumpTest, LinkLocalAndLoopbackGiveNoPrefix) {
    // The kernel's own link-local address comes only once the link's carrier
    // is seen; one of our own is there at once.
    ASSERT_TRUE(ims_test::add_ipv6("pdnet4", "fe80::4/64"));
    dump();
    EXPECT_TRUE(h.logged("address = ::1, prefix len = 128\n"));
    EXPECT_TRUE(h.logged("address = fe80::4, prefix len = 64\n"));
    EXPECT_FALSE(h.logged("prefix : "));
}

}  // namespace
