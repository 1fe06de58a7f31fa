// The framework's mutex: recursive, owner-checked, with bounded waits.
#include <chrono>
#include <thread>

#include "host_test_util.h"

namespace host_test {
namespace {

using namespace std::chrono_literals;

class RuntimeMutex : public RuntimeFixture {
  protected:
    void SetUp() override {
        RuntimeFixture::SetUp();
        rt.set_wait_limit(30ms);
        ASSERT_EQ(evfw_mutex_init(&m), 0);
    }
    void TearDown() override {
        evfw_mutex_exit(&m);
        RuntimeFixture::TearDown();
    }
    template <class Fn>
    int on_other_thread(Fn fn) {
        int r = 99;
        std::thread([&] { r = fn(); }).join();
        return r;
    }
    int lock_elsewhere() {
        return on_other_thread([this] {
            int r = m.lock(&m);
            if (r == 0) m.unlock(&m);
            return r;
        });
    }
    evfw_mutex_t m{};
};

TEST_F(RuntimeMutex, IsRecursiveAndLockGivesUpAfterTheWaitLimit) {
    EXPECT_EQ(m.lock(&m), 0);
    EXPECT_EQ(m.lock(&m), 0);
    EXPECT_EQ(m.unlock(&m), 0);
    testing::internal::CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(lock_elsewhere(), -1) << "still held once";
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("evfw_host: ", 0), 0u);
    EXPECT_GE(took, 30ms);
    EXPECT_LT(took, 1000ms);
    EXPECT_EQ(rt.timeouts(), 1);
    EXPECT_EQ(m.unlock(&m), 0);
    EXPECT_EQ(lock_elsewhere(), 0) << "free after as many unlocks as locks";
}

TEST_F(RuntimeMutex, ForeignUnlockIsRefusedAndChangesNothing) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(m.unlock(&m), -1) << "not held";
    ASSERT_EQ(m.lock(&m), 0);
    EXPECT_EQ(on_other_thread([this] { return m.unlock(&m); }), -1) << "held by another";
    EXPECT_NE(testing::internal::GetCapturedStderr().find("evfw_host: "), std::string::npos);
    EXPECT_EQ(rt.bad_unlocks(), 2);
    EXPECT_EQ(m.unlock(&m), 0) << "the owner still holds it";
}

TEST_F(RuntimeMutex, WaiterGetsItWhenReleased) {
    rt.set_wait_limit(2000ms);
    ASSERT_EQ(m.lock(&m), 0);
    std::atomic<int> got{99};
    std::thread t([&] { got = lock_elsewhere(); });
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(got, 99) << "must wait while held";
    m.unlock(&m);
    t.join();
    EXPECT_EQ(got, 0);
}

TEST_F(RuntimeMutex, ExitDestroysEvenWhenHeld) {
    evfw_mutex_t held{};
    ASSERT_EQ(evfw_mutex_init(&held), 0);
    ASSERT_EQ(held.lock(&held), 0);
    EXPECT_EQ(evfw_mutex_exit(&held), 0);
    EXPECT_EQ(held.lock(&held), -1) << "a destroyed mutex refuses use";
    EXPECT_EQ(rt.calls(),
              (std::vector<std::string>{"evfw_mutex_init", "evfw_mutex_init", "evfw_mutex_exit"}));
}

}  // namespace
}  // namespace host_test
