// Records and a fixture for the IMS PDN tests: the data manager in the host
// runtime with the IMS manager of SIM 0 and the RIL proxy announced.
#ifndef TESTS_IMS_IMS_TEST_UTIL_H
#define TESTS_IMS_IMS_TEST_UTIL_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "fake_clock.h"
#include "ims/ims_pdn.h"
#include "pdn/pdn_info.h"
#include "testkit/testkit.h"

namespace ims_test {

using Addr = std::array<uint8_t, 16>;

inline Addr ipv6(const char *text) {
    Addr a{};
    EXPECT_EQ(inet_pton(AF_INET6, text, a.data()), 1) << text;
    return a;
}

inline Addr addr_of(const uint8_t *bytes) {
    Addr a;
    memcpy(a.data(), bytes, a.size());
    return a;
}

// The IMS manager's parameters for the IMS (or emergency) PDN.
inline SetupDataCallReq ims_params(const char *apn, uint32_t emergency = 0, uint8_t sim = 0) {
    SetupDataCallReq r;
    memset(&r, 0, sizeof(r));
    dm::testkit::copy_field(r.apn, apn);
    r.ims_para_valid = 1;
    for (size_t i = 0; i < sizeof(r.ims_para); ++i) r.ims_para[i] = static_cast<uint8_t>(0xa0 + i);
    r.emergency_ind = emergency;
    r.ims_word_684 = 0x684;
    r.ims_word_688 = 0x688;
    r.assigned_rate_type = 3;
    r.sim_id = sim;
    return r;
}

inline DataCallEntry bearer(int32_t cid, uint32_t interface_id, uint32_t primary_cid) {
    DataCallEntry e;
    memset(&e, 0, sizeof(e));
    e.interface_id = interface_id;
    e.primary_cid = primary_cid;
    e.cid = cid;
    for (size_t i = 0; i < sizeof(e.rest); ++i) e.rest[i] = static_cast<uint8_t>(i * 7 + cid);
    return e;
}

// A successful set-up answer for "pdnet<interface_id>" whose one connection is
// the default bearer with cid == interface_id.  47876 bytes: kept off the
// stack.
inline std::unique_ptr<SetupDataCallResp> setup_answer(uint32_t interface_id, uint32_t pdp_type,
                                                       const char *reported_ipv6) {
    auto r = std::make_unique<SetupDataCallResp>();
    memset(r.get(), 0, sizeof(*r));
    r->interface_id = interface_id;
    r->active = 1;
    r->pdp_type = pdp_type;
    snprintf(r->ifname, sizeof(r->ifname), "pdnet%u", interface_id);
    Addr a = ipv6(reported_ipv6);
    memcpy(r->ipv6_addr, a.data(), a.size());
    r->num_calls = 1;
    r->calls[0] = bearer(static_cast<int32_t>(interface_id), interface_id, interface_id);
    return r;
}

inline ImsPdnReq ims_pdn_req(const char *ifname, uint32_t token) {
    ImsPdnReq r;
    memset(&r, 0, sizeof(r));
    dm::testkit::copy_field(r.ifname, ifname);
    r.req_token = token;
    return r;
}

// The log lines' texts after their header, in order.
inline std::vector<std::string> bodies(const dm::testkit::Harness &h) {
    std::vector<std::string> out;
    for (const auto &line : h.logs()) out.emplace_back(dm::testkit::log_body(line.text));
    return out;
}
inline long count_body(const dm::testkit::Harness &h, const std::string &body) {
    auto all = bodies(h);
    return std::count(all.begin(), all.end(), body);
}
// Whether a line of `function` carries exactly `body`.
inline bool logged_by(const dm::testkit::Harness &h, const std::string &function,
                      const std::string &body) {
    for (const auto &line : h.logs()) {
        std::string_view text = line.text;
        if (dm::testkit::log_body(text) != body) continue;
        char header[32];
        snprintf(header, sizeof(header), " (%24.24s, ", function.c_str());
        if (text.substr(0, strlen(header)) == header) return true;
    }
    return false;
}

// The data manager with the IMS manager of SIM 0 and the RIL proxy announced,
// IMS indications enabled for one IMS stack, the fake clock at 0.
class ImsFixture : public ::testing::Test {
  protected:
    ImsFixture() : imsm(h.client("imsm_0")), ril(h.ril()) {
        fake_clock::reset();
        h.rt().set_property("ro.qpx_multiple_ims_support", "0");
        h.announce(imsm);
        h.announce_ril();
        h.clear();
    }
    void TearDown() override { EXPECT_EQ(h.rt().bad_frees(), 0); }

    template <class T>
    void from_imsm(uint32_t event_id, const T &record) {
        h.send(imsm, event_id, record);
        h.pump();
    }
    template <class T>
    void from_ril(uint32_t event_id, const T &record) {
        h.send(ril, event_id, record);
        h.pump();
    }

    // What the IMS manager received with `event_id`, as records.
    template <class T>
    std::vector<std::unique_ptr<T>> to_imsm(uint32_t event_id) {
        std::vector<std::unique_ptr<T>> out;
        for (const auto &e : h.sent_to(imsm.id(), event_id)) {
            EXPECT_EQ(e.data.size(), sizeof(T));
            auto r = std::make_unique<T>();
            memset(r.get(), 0, sizeof(T));
            memcpy(r.get(), e.data.data(), std::min(e.data.size(), sizeof(T)));
            out.push_back(std::move(r));
        }
        return out;
    }

    dm::testkit::Harness h;
    dm::testkit::Peer &imsm;
    dm::testkit::Peer &ril;
};

}  // namespace ims_test

#endif  // TESTS_IMS_IMS_TEST_UTIL_H
