// The DNS command line, run through the real shell against a fake "ndc" that
// records its arguments, and the caller's record it fills.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>

#include "pdn/pdn_info.h"
#include "pdn_test_util.h"

namespace {

using pdn_test::PdnTest;

using Addr4 = std::array<uint8_t, 4>;
using Addr6 = std::array<uint8_t, 16>;

constexpr Addr4 kDns1v4 = {8, 8, 8, 8};
constexpr Addr4 kDns2v4 = {8, 8, 4, 4};
constexpr Addr4 kDns3v4 = {1, 1, 1, 1};
constexpr Addr4 kAddrV4 = {10, 0, 0, 2};
constexpr Addr6 kDns1v6 = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
constexpr Addr6 kDns2v6 = {0xfe, 0x80, 0,    0,    0,    0,    0,    0,
                           0x02, 0x1a, 0x2b, 0xff, 0xfe, 0x3c, 0x4d, 0x5e};
constexpr Addr6 kDns3v6 = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
constexpr Addr6 kAddrV6 = {0x24, 0x04, 0x68, 0, 0x40, 0x08, 0x0c, 0x01,
                           0,    0,    0,    0, 0,    0,    0x10, 0x01};

// A fake "ndc" first on PATH: appends its command line to a file and exits
// with status 3.
class FakeNdc {
  public:
    FakeNdc() {
        char tmpl[] = "/tmp/pdn_ndc_XXXXXX";
        dir_ = mkdtemp(tmpl);
        log_ = dir_ + "/calls";
        std::string script = dir_ + "/ndc";
        std::ofstream(script) << "#!/bin/sh\n"
                                 "printf 'ndc' >> '"
                              << log_
                              << "'\n"
                                 "for a in \"$@\"; do printf ' %s' \"$a\" >> '"
                              << log_
                              << "'; done\n"
                                 "printf '\\n' >> '"
                              << log_ << "'\nexit 3\n";
        chmod(script.c_str(), 0755);
        const char *path = getenv("PATH");
        old_path_ = path != nullptr ? path : "";
        setenv("PATH", (dir_ + ":" + old_path_).c_str(), 1);
    }
    ~FakeNdc() {
        setenv("PATH", old_path_.c_str(), 1);
        unlink(log_.c_str());
        unlink((dir_ + "/ndc").c_str());
        rmdir(dir_.c_str());
    }
    std::vector<std::string> calls() const {
        std::ifstream in(log_);
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }

  private:
    std::string dir_;
    std::string log_;
    std::string old_path_;
};

struct DnsCase {
    const char *name;
    bool ipv6;
    uint32_t count;
    const char *command;
    bool stores_dns2;
    bool stores_dns3;
};

void PrintTo(const DnsCase &c, std::ostream *os) {
    *os << c.name;
}

class PdnDnsTest : public PdnTest, public ::testing::WithParamInterface<DnsCase> {
  protected:
    FakeNdc ndc;
};

// The record's slots: {addr, count, dns2, dns3} offsets for each family.
constexpr size_t kV4Slots[] = {296, 380, 388, 405};
constexpr size_t kV6Slots[] = {313, 384, 422, 487};

TEST_P(PdnDnsTest, CommandLineAndRecord) {
    const DnsCase &c = GetParam();
    std::vector<uint8_t> record(kDnsRecordLen + 32, 0xaa);
    std::vector<uint8_t> expected = record;
    const uint8_t *addr = c.ipv6 ? kAddrV6.data() : kAddrV4.data();
    const uint8_t *dns1 = c.ipv6 ? kDns1v6.data() : kDns1v4.data();
    const uint8_t *dns2 = c.ipv6 ? kDns2v6.data() : kDns2v4.data();
    const uint8_t *dns3 = c.ipv6 ? kDns3v6.data() : kDns3v4.data();
    const size_t len = c.ipv6 ? 16 : 4;
    const size_t *slot = c.ipv6 ? kV6Slots : kV4Slots;
    memcpy(&expected[slot[0]], addr, len);
    memcpy(&expected[slot[1]], &c.count, 4);
    if (c.stores_dns2) memcpy(&expected[slot[2]], dns2, len);
    if (c.stores_dns3) memcpy(&expected[slot[3]], dns3, len);

    EXPECT_EQ(dm_network_config("pdnet3", c.ipv6, addr, dns1, c.count, dns2, dns3, 100,
                                record.data()),
              0);

    EXPECT_EQ(ndc.calls(), std::vector<std::string>{c.command});
    EXPECT_EQ(record, expected);
    EXPECT_EQ(lines("dm_network_config", "DMGR-INF", std::string("cmd = (") + c.command + ")"), 1u);
    EXPECT_EQ(lines("dm_network_config", "DMGR-INF", "add dns server & dns, ret = (768)"), 1u);
    EXPECT_EQ(lines("dm_network_config", "DMGR-INF",
                    "dm_network_config interface pdnet3 network id : 100"),
              1u);
    EXPECT_EQ(h.logs_containing("no IPv6 dns addr").size(), c.ipv6 && c.count == 0 ? 1u : 0u);
}

constexpr const char *kV6Dns1 = "2001:0db8:0000:0000:0000:0000:0000:0001";
constexpr const char *kV6Dns2 = "fe80:0000:0000:0000:021a:2bff:fe3c:4d5e";

INSTANTIATE_TEST_SUITE_P(
        PdnCases, PdnDnsTest,
        ::testing::Values(
                DnsCase{"Ipv4One", false, 1, "ndc resolver setnetdns 100 8.8.8.8 8.8.4.4", true,
                        false},
                // No zero-count test for IPv4: the second server still goes out.
                DnsCase{"Ipv4None", false, 0, "ndc resolver setnetdns 100 8.8.8.8 8.8.4.4", false,
                        false},
                DnsCase{"Ipv4Two", false, 2, "ndc resolver setnetdns 100 8.8.8.8 8.8.4.4 1.1.1.1",
                        true, true},
                DnsCase{"Ipv6None", true, 0,
                        "ndc resolver setnetdns 100 2001:0db8:0000:0000:0000:0000:0000:0001", false,
                        false},
                DnsCase{"Ipv6One", true, 1,
                        "ndc resolver setnetdns 100 2001:0db8:0000:0000:0000:0000:0000:0001 "
                        "fe80:0000:0000:0000:021a:2bff:fe3c:4d5e",
                        true, false},
                // Counts are unsigned: "all bits set" is above 1.
                DnsCase{"Ipv6Huge", true, UINT32_MAX,
                        "ndc resolver setnetdns 100 2001:0db8:0000:0000:0000:0000:0000:0001 "
                        "fe80:0000:0000:0000:021a:2bff:fe3c:4d5e "
                        "0000:0000:0000:0000:0000:0000:0000:0000",
                        true, true}),
        [](const auto &info) { return std::string(info.param.name); });

class PdnDnsPlainTest : public PdnTest {};

TEST_F(PdnDnsPlainTest, WithoutRecordTheCommandStillRuns) {
    FakeNdc ndc;
    dm_network_config("pdnet4", 1, kAddrV6.data(), kDns1v6.data(), 1, kDns2v6.data(),
                      kDns3v6.data(), -5, nullptr);
    EXPECT_EQ(ndc.calls(), std::vector<std::string>{std::string("ndc resolver setnetdns -5 ") +
                                                    kV6Dns1 + " " + kV6Dns2});
    EXPECT_EQ(lines("dm_network_config", "DMGR-ERR", "dm_network_config NULL PDN info\n"), 1u);
    dm_network_config("pdnet4", 0, kAddrV4.data(), kDns1v4.data(), 1, kDns2v4.data(),
                      kDns3v4.data(), 7, nullptr);
    EXPECT_EQ(ndc.calls().size(), 2u);
    EXPECT_EQ(lines("dm_network_config", "DMGR-ERR", "dm_network_config NULL PDN info\n"), 2u);
}

TEST_F(PdnDnsPlainTest, AppendedAddressesStayWithinTheCommandBuffer) {
    char cmd[kDnsCmdLen];
    memset(cmd, 'x', sizeof(cmd) - 10);
    cmd[sizeof(cmd) - 10] = '\0';
    EXPECT_EQ(append_ipv6_addr(cmd, kDns2v6.data()), 0);
    EXPECT_EQ(strnlen(cmd, sizeof(cmd)), sizeof(cmd) - 1);
    EXPECT_EQ(std::string(cmd + sizeof(cmd) - 10), " fe80:000");
    EXPECT_EQ(append_ipv4_addr(cmd, kDns1v4.data()), 0);
    EXPECT_EQ(strnlen(cmd, sizeof(cmd)), sizeof(cmd) - 1);
}

}  // namespace
