// Shared by the data manager's GoogleTest tables: a fixture with the entity
// loaded into a fresh deterministic runtime, closed by its event accounting,
// and small expectation helpers.
#ifndef TESTS_COMMON_DM_TEST_H
#define TESTS_COMMON_DM_TEST_H

#include <gtest/gtest.h>

#include "common/seams.h"
#include "testkit/testkit.h"

namespace dm_test {

using Bytes = std::vector<uint8_t>;
using dm::testkit::log_body;
using dm::testkit::record_of;

class DmTest : public ::testing::Test {
  protected:
    void TearDown() override {
        h.pump();
        EXPECT_EQ(dm::testkit::accounting_problems(h.rt()), "");
        EXPECT_EQ(ifaddrs_outstanding(), ifaddrs_at_start_) << "getifaddrs lists not freed";
    }
    // Log lines that contain `text`.
    size_t logged(std::string_view text) const { return h.logs_containing(text).size(); }
    long count(std::string_view text) const { return static_cast<long>(logged(text)); }
    // The payloads sent to `to` with `event_id`, in order.
    std::vector<Bytes> payloads(uint32_t to, uint32_t event_id) const {
        std::vector<Bytes> out;
        for (const auto &e : h.sent_to(to, event_id)) out.push_back(e.data);
        return out;
    }

    dm::testkit::Harness h;
    const long ifaddrs_at_start_ = ifaddrs_outstanding();
};

// A zeroed payload of `len` bytes with little-endian words written in.
inline Bytes words(size_t len, std::initializer_list<std::pair<size_t, uint32_t>> at) {
    Bytes b(len, 0);
    for (auto [offset, value] : at) std::memcpy(b.data() + offset, &value, sizeof(value));
    return b;
}
inline void put_text(Bytes &b, size_t offset, std::string_view text) {
    std::memcpy(b.data() + offset, text.data(), text.size());
}
// Values (results, counts) in the order they were taken, as one text: one
// expectation for a sequence of calls, whose braces fix that order.  64-bit
// on every ABI, so that an unsigned 32-bit field fits as it is.
inline std::string values(std::initializer_list<long long> taken) {
    std::string out;
    for (long long v : taken) out += (out.empty() ? "" : " ") + std::to_string(v);
    return out;
}

}  // namespace dm_test

#endif  // TESTS_COMMON_DM_TEST_H
