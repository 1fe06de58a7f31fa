// IPv6 address discovery: the classification of addresses, the prefix from
// the reported address or the network daemon's property, and the global
// address on a real data interface.
#include "ims/ipv6_addr.h"

#include <gtest/gtest.h>

#include "ims_test_util.h"
#include "netns.h"

namespace {

using ims_test::Addr;
using ims_test::ipv6;
namespace fake_clock = ims_test::fake_clock;

class ImsIpv6Test : public ::testing::Test {
  protected:
    ImsIpv6Test() {
        fake_clock::reset();
        h.clear();
    }
    dm::testkit::Harness h;
};

// ---- classification -------------------------------------------------------

struct ClassCase {
    const char *addr;
    int32_t global;
    const char *message;
};
void PrintTo(const ClassCase &c, std::ostream *os) {
    *os << c.addr;
}

class ImsClassifyTest : public ImsIpv6Test, public ::testing::WithParamInterface<ClassCase> {};

TEST_P(ImsClassifyTest, ResultAndMessage) {
    const ClassCase &c = GetParam();
    Addr a = ipv6(c.addr);
    EXPECT_EQ(dm_ipv6_is_global(a.data()), c.global);

    char dotted[64];
    snprintf(dotted, sizeof(dotted),
             "%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x",
             a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10], a[11], a[12], a[13],
             a[14], a[15]);
    auto lines = ims_test::bodies(h);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], std::string("dm_ipv6_is_global ipv6 ") + dotted + " is\n");
    EXPECT_EQ(lines[1], c.message);
    EXPECT_TRUE(h.logged("[DMGR-INF] " + std::string(c.message)));
}

INSTANTIATE_TEST_SUITE_P(Addresses, ImsClassifyTest,
                         ::testing::Values(ClassCase{"::1", 0, "loop back address\n"},
                                           ClassCase{"::", 0, "unspecified address\n"},
                                           ClassCase{"::0.0.0.2", 0, "v4 compat address\n"},
                                           ClassCase{"::ffff:10.0.0.1", 0, "v4 mapped address\n"},
                                           ClassCase{"fd00::1", 1, "uni-local address\n"},

                                           ClassCase{"2001:db8::1", 1, "glocal unicast address\n"},
                                           ClassCase{"fe80::1", 0, "link local address\n"},
                                           ClassCase{"febf::1", 0, "link local address\n"},
                                           ClassCase{"fec0::1", 0, "site local address\n"},
                                           // 0xfe with byte 1 below 0x80 counts as global.
                                           ClassCase{"fe00::1", 1, "glocal unicast address\n"},
                                           ClassCase{"ff0e::1", 0, "global multicast address\n"},
                                           ClassCase{"ff1e::1", 0, "global multicast address\n"},
                                           ClassCase{"ff02::1", 0, "local multicast address\n"}));

// ---- prefix -----------------------------------------------------------------

constexpr const char *kPrefixKey = "net.ipv6.pdnet4.prefix";

TEST_F(ImsIpv6Test, PropertySetAfterThreeSecondsIsFoundOnThe31stAttempt) {
    fake_clock::set_property_at(3'000'000, kPrefixKey, "2001:db8:1:2::");
    uint8_t prefix[16] = {};
    EXPECT_EQ(dm_get_ipv6_prefix_from_netd("pdnet4", prefix), 0);
    EXPECT_EQ(fake_clock::sleeps(), 30);
    EXPECT_EQ(ims_test::addr_of(prefix), ipv6("2001:db8:1:2::"));

    std::vector<std::string> warnings;
    for (const auto &line : h.logs()) {
        if (line.text.find("[DMGR-WAR] ") != std::string::npos) warnings.push_back(line.text);
    }
    ASSERT_EQ(warnings.size(), 30u);
    EXPECT_EQ(dm::testkit::log_body(warnings[0]),
              "dm_get_ipv6_prefix_from_netd get prefix fail retry 1\n");
    EXPECT_EQ(dm::testkit::log_body(warnings[29]),
              "dm_get_ipv6_prefix_from_netd get prefix fail retry 30\n");
    EXPECT_TRUE(h.logged("dm_get_ipv6_prefix_from_netd get prefix 2001:db8:1:2:: for pdnet4 \n"));
}

TEST_F(ImsIpv6Test, PrefixWithLengthSuffixFailsTheParseSilently) {
    h.rt().set_property(kPrefixKey, "2001:db8:1:2::/64");
    uint8_t prefix[16] = {};
    EXPECT_EQ(dm_get_ipv6_prefix_from_netd("pdnet4", prefix), -1);
    EXPECT_EQ(fake_clock::sleeps(), 0);
    EXPECT_TRUE(h.logged("dm_get_ipv6_prefix_from_netd prefix_value : 2001:db8:1:2::/64\n"));
    EXPECT_FALSE(h.logged(" get prefix 2001"));
    EXPECT_FALSE(h.logged("DMGR-ERR"));
}

TEST_F(ImsIpv6Test, OneShotVariantReadsOnceWithoutWaiting) {
    auto resp = ims_test::setup_answer(4, kPdpIpv6, "fe80::5");
    uint8_t prefix[16] = {};
    EXPECT_EQ(dm_get_ipv6_prefix(resp.get(), 1, prefix), -1);
    EXPECT_EQ(fake_clock::sleeps(), 0);
    EXPECT_TRUE(h.logged("dm_get_ipv6_prefix_once_from_netd get property fail\n"));
    EXPECT_TRUE(
            ims_test::logged_by(h, "dm_get_ipv6_prefix", "get ipv6 prefix once fail for pdnet4\n"));

    h.rt().set_property(kPrefixKey, "2001:db8:7::");
    EXPECT_EQ(dm_get_ipv6_prefix(resp.get(), 1, prefix), 0);
    EXPECT_EQ(ims_test::addr_of(prefix), ipv6("2001:db8:7::"));
}

TEST_F(ImsIpv6Test, GlobalReportedAddressGivesItsOwnPrefixWithoutTheProperty) {
    auto resp = ims_test::setup_answer(4, kPdpIpv6, "2001:db8:1:2:aaaa:bbbb:cccc:dddd");
    h.rt().set_property(kPrefixKey, "2001:db8:9:9::");
    uint8_t prefix[16] = {};
    EXPECT_EQ(dm_get_ipv6_prefix(resp.get(), 0, prefix), 0);
    EXPECT_EQ(ims_test::addr_of(prefix), ipv6("2001:db8:1:2::"));
    EXPECT_FALSE(h.logged("prefix_value"));
    EXPECT_TRUE(h.logged("[DMGR-DBG] get ipv6 prefix 2001:0db8:0001:0002 from global address\n"));
}

TEST_F(ImsIpv6Test, InterfaceNameFillingItsFieldIsReadWithinIt) {
    auto resp = ims_test::setup_answer(4, kPdpIpv6, "fe80::5");
    memset(resp->ifname, 'x', sizeof(resp->ifname));
    uint8_t prefix[16] = {};
    EXPECT_EQ(dm_get_ipv6_prefix(resp.get(), 1, prefix), -1);
    EXPECT_TRUE(h.logged("get ipv6 prefix once fail for " + std::string(128, 'x') + "\n"));
}

// ---- the global address on the interface ----------------------------------

class ImsGlobalAddrTest : public ImsIpv6Test {
  protected:
    void SetUp() override {
        IMS_ENTER_PRIVATE_NETNS();
        ASSERT_TRUE(ims_test::add_data_interface(4));
        ASSERT_TRUE(ims_test::add_data_interface(5));
        resp = ims_test::setup_answer(4, kPdpIpv6, "2001:db8:1:2::aaaa");
        h.clear();
    }
    int32_t find(Addr &out) {
        Addr prefix = ipv6("2001:db8:1:2::");
        return dm_get_global_ipv6_addr(resp.get(), prefix.data(), out.data());
    }
    std::unique_ptr<SetupDataCallResp> resp;
};

// Whichever of the two the kernel lists first.
class ImsGlobalAddrOrderTest : public ImsGlobalAddrTest,
                               public ::testing::WithParamInterface<bool> {};

TEST_P(ImsGlobalAddrOrderTest, AddressDifferingFromTheModemsChoiceWins) {
    const char *first = GetParam() ? "2001:db8:1:2::aaaa/64" : "2001:db8:1:2::5/64";
    const char *second = GetParam() ? "2001:db8:1:2::5/64" : "2001:db8:1:2::aaaa/64";
    ASSERT_TRUE(ims_test::add_ipv6("pdnet4", first));
    ASSERT_TRUE(ims_test::add_ipv6("pdnet4", second));
    ASSERT_TRUE(ims_test::add_ipv6("pdnet4", "2001:db8:7:7::9/64"));
    Addr found{};
    EXPECT_EQ(find(found), 0);
    EXPECT_EQ(found, ipv6("2001:db8:1:2::5"));
    EXPECT_TRUE(
            h.logged("[DMGR-INF] found ipv6 addrss not equal to the address reported by rild\n"));
    EXPECT_TRUE(h.logged("[DMGR-DBG] ipv6 2001:0db8:0001:0002:0000:0000:0000:0005\n"));
}

INSTANTIATE_TEST_SUITE_P(ExpectedAddedFirst, ImsGlobalAddrOrderTest, ::testing::Bool());

TEST_F(ImsGlobalAddrTest, AddressEqualToTheModemsChoiceIsTakenWhenAlone) {
    ASSERT_TRUE(ims_test::add_ipv6("pdnet4", "2001:db8:1:2::aaaa/64"));
    Addr found{};
    EXPECT_EQ(find(found), 0);
    EXPECT_EQ(found, ipv6("2001:db8:1:2::aaaa"));
    EXPECT_TRUE(h.logged("[DMGR-INF] found ipv6 addrss equal to the address reported by rild\n"));
}

TEST_F(ImsGlobalAddrTest, AddressOnlyOnAnotherInterfaceIsNotFound) {
    ASSERT_TRUE(ims_test::add_ipv6("pdnet5", "2001:db8:1:2::5/64"));
    ASSERT_TRUE(ims_test::add_ipv6("pdnet4", "2001:db8:7:7::5/64"));
    Addr found{};
    EXPECT_EQ(find(found), -1);
    EXPECT_TRUE(
            ims_test::logged_by(h, "dm_get_global_ipv6_addr", "not found global ipv6 addrss\n"));
    EXPECT_TRUE(h.logged("[DMGR-ERR] not found global ipv6 addrss\n"));
}

}  // namespace
