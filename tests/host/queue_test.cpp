// The runtime's delivery queue: a ring that grows and is reused.  The cases
// that break rings: growth while the items wrap around the end, removal from
// the middle of a wrapped ring, and removal of several items at once.
#include <gtest/gtest.h>

#include <vector>

#include "host/src/internal.h"

namespace host_test {
namespace {

using evfw_host::Item;
using evfw_host::ItemQueue;

Item item(uint32_t n) {
    return Item{n, n + 1000, nullptr};
}

std::vector<uint32_t> contents(const ItemQueue &q) {
    std::vector<uint32_t> out;
    for (const Item &i : q) out.push_back(i.from);
    return out;
}

// Pushes n items after having pushed and popped `offset`, so that the ring's
// front sits `offset` slots in.
ItemQueue wrapped(uint32_t offset, uint32_t n) {
    ItemQueue q;
    for (uint32_t i = 0; i < offset; ++i) {
        q.push_back(item(9999));
        q.pop_front();
    }
    for (uint32_t i = 0; i < n; ++i) q.push_back(item(i));
    return q;
}

std::vector<uint32_t> iota(uint32_t from, uint32_t to) {
    std::vector<uint32_t> out;
    for (uint32_t i = from; i < to; ++i) out.push_back(i);
    return out;
}

TEST(RuntimeQueue, KeepsOrderWhenItGrowsWhileWrapped) {
    ItemQueue q = wrapped(50, 64);  // fills the first ring, wrapping at slot 14
    EXPECT_EQ(q.capacity(), 64u);
    for (uint32_t i = 64; i < 200; ++i) q.push_back(item(i));  // grows twice, wrapped
    EXPECT_EQ(q.size(), 200u);
    EXPECT_EQ(contents(q), iota(0, 200));
    EXPECT_EQ(q.front().to, 1000u) << "items are copied whole";
    for (uint32_t i = 0; i < 200; ++i) {
        ASSERT_EQ(q.front().from, i);
        q.pop_front();
    }
    EXPECT_TRUE(q.empty());
}

TEST(RuntimeQueue, StorageIsReusedOnceWarm) {
    ItemQueue q;
    for (uint32_t i = 0; i < 100; ++i) q.push_back(item(i));
    const size_t warm = q.capacity();
    for (uint32_t i = 0; i < 10000; ++i) {
        q.pop_front();
        q.push_back(item(100 + i));
    }
    EXPECT_EQ(q.capacity(), warm) << "a steady backlog does not grow the ring";
    EXPECT_EQ(q.front().from, 10000u);
}

TEST(RuntimeQueue, EraseAndRemoveIfKeepTheOthersInOrderAcrossTheWrap) {
    ItemQueue q = wrapped(60, 10);  // slots 60..63 then 0..5
    q.erase(5);                     // the first item past the wrap
    q.erase(0);
    EXPECT_EQ(contents(q), (std::vector<uint32_t>{1, 2, 3, 4, 6, 7, 8, 9}));

    std::vector<uint32_t> dropped;
    q.remove_if([&](const Item &i) {
        if (i.from % 2 == 0) return false;
        dropped.push_back(i.from);
        return true;
    });
    EXPECT_EQ(dropped, (std::vector<uint32_t>{1, 3, 7, 9})) << "each removed item handed over once";
    EXPECT_EQ(contents(q), (std::vector<uint32_t>{2, 4, 6, 8}));
    q.push_back(item(10));
    EXPECT_EQ(contents(q), (std::vector<uint32_t>{2, 4, 6, 8, 10}));
}

TEST(RuntimeQueue, SwapExchangesEverything) {
    ItemQueue a = wrapped(63, 3);
    ItemQueue b;
    b.swap(a);
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(contents(b), (std::vector<uint32_t>{0, 1, 2}));
    a.push_back(item(7));
    EXPECT_EQ(contents(a), (std::vector<uint32_t>{7}));
}

}  // namespace
}  // namespace host_test
