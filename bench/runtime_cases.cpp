// The host runtime alone, in threaded mode (a thread per task, as on the
// device): events per second from one task to another, and the latency of a
// send-and-wait round trip.  A minimal entity owns task 402; its handler
// frees what it gets.  Tracing is off.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/alloc_hook.h"
#include "bench/bench.h"
#include "evfw.h"
#include "evfw_host/runtime.h"
#include "evfw_ids.h"

namespace bench {
namespace {

using evfw_host::Mode;
using evfw_host::Peer;
using evfw_host::Received;
using evfw_host::Runtime;

constexpr uint32_t kEntityId = 41;
// Events in flight at most: the sender waits for the receiving task beyond
// it, so that a faster sender measures the pair, not a growing backlog.
constexpr uint64_t kWindow = 256;

struct MiniEntity {
    evfw_task_t main{};
    // Events the handler has taken (and freed).
    std::atomic<uint64_t> received{0};
    // Send-and-wait mode: each trigger event makes the handler send a request
    // to task 902 and wait for its answer, as the data manager's main task
    // waits for the modem's AT manager.
    bool round_trip_on_trigger = false;
    std::atomic<uint64_t> round_trips{0};
    std::atomic<int> failures{0};
};

constexpr uint32_t kTriggerId = EVENT_DATAMNGR_ATCMD_REQ;
constexpr uint32_t kRequestId = EVENT_ATMNGR_ATCMD_REQ;
constexpr uint32_t kAnswerId = EVENT_ATMNGR_ATCMD_RESP;

MiniEntity *g_entity = nullptr;

void round_trip(MiniEntity *e, evfw_task_t *task) {
    static const uint8_t payload[8] = {};
    const uint32_t awaited = kAnswerId;
    evfw_event_t *req = evfw_event_alloc(nullptr);
    event_set_id(req, kRequestId);
    event_set_data(req, 0, payload, sizeof(payload));
    if (evfw_task_send_recv_event(task, req, TASK_RB_SIM0, rx_cond_event_id, &awaited,
                                  sizeof(awaited)) < 0) {
        e->failures.fetch_add(1);
    }
    e->round_trips.fetch_add(1, std::memory_order_release);
}

void *mini_hdl(evfw_task_t *task, evfw_event_t *event, void *arg) {
    auto *e = static_cast<MiniEntity *>(arg);
    const bool trigger = e->round_trip_on_trigger && event_get_id(event) == kTriggerId;
    evfw_event_free(event);
    if (trigger) round_trip(e, task);
    e->received.fetch_add(1, std::memory_order_release);
    return nullptr;
}

evfw_entity_t *mini_init(evfw_entity_t *record) {
    record->id = kEntityId;
    record->priv = g_entity;
    evfw_task_init(&g_entity->main, kEntityId, TASK_DATAMNGR);
    g_entity->main.set_hdl(&g_entity->main, mini_hdl, g_entity);
    return record;
}

evfw_entity_t *mini_exit(evfw_entity_t *record) {
    evfw_task_exit(&g_entity->main);
    return record;
}

// The threaded runtime with the minimal entity loaded.
class Threaded {
  public:
    Threaded() : rt_(Runtime::instance()) {
        rt_.reset(Mode::Threaded);
        rt_.set_trace(false);
        rt_.set_log_capture(false);
        g_entity = &entity_;
        evfw_host::EntityAbi abi;
        abi.init = mini_init;
        abi.exit = mini_exit;
        rt_.load("mini", abi);
    }
    ~Threaded() {
        rt_.unload();
        rt_.reset();
        g_entity = nullptr;
    }
    Runtime &rt() { return rt_; }
    MiniEntity &entity() { return entity_; }

    void wait_for(uint64_t count) {
        while (entity_.received.load(std::memory_order_acquire) < count) std::this_thread::yield();
    }

  private:
    Runtime &rt_;
    MiniEntity entity_;
};

// Task 902 (a peer, sending from the benchmark's thread) to task 402 (its
// own thread).
void task_to_task(benchmark::State &state) {
    const size_t len = static_cast<size_t>(state.range(0));
    Threaded t;
    Peer &sender = t.rt().add_task(TASK_RB_SIM0);
    std::vector<uint8_t> payload(len, 0x5a);
    uint64_t sent = 0;
    auto send_one = [&] {
        while (sent - t.entity().received.load(std::memory_order_acquire) >= kWindow) {
            std::this_thread::yield();
        }
        sender.send(TASK_DATAMNGR, EVENT_DATAMNGR_DATA_CALL_LIST_REQ, payload.data(), len);
        ++sent;
    };
    for (uint64_t i = 0; i < 2 * kWindow; ++i) send_one();
    t.wait_for(sent);

    const uint64_t allocs_before = allocations();
    for (auto _ : state) send_one();
    t.wait_for(sent);
    const uint64_t allocs = allocations() - allocs_before;

    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(len));
    state.counters["allocs_per_ev"] =
            static_cast<double>(allocs) / static_cast<double>(state.iterations());
}

// Task 402's handler sends to task 902 and blocks until 902's answer is
// queued for 402 (evfw_task_send_recv_event); after the handler returns, the
// answer is delivered to it.  Each round trip is started by a trigger event
// from task 903, a few queued ahead, so that 402 goes from one round trip to
// the next as the data manager's main task does with queued AT commands.
void send_and_wait(benchmark::State &state) {
    Threaded t;
    t.entity().round_trip_on_trigger = true;
    Peer &responder = t.rt().add_task(TASK_RB_SIM0);
    responder.on_receive([](Peer &self, const Received &in) {
        self.reply(in.event, TASK_DATAMNGR, kAnswerId, in.data.data(), in.data.size());
    });
    Peer &trigger = t.rt().add_task(TASK_RB_SIM1);
    constexpr uint64_t kTriggersAhead = 4;
    uint64_t sent = 0;
    auto start_one = [&] {
        while (sent - t.entity().round_trips.load(std::memory_order_acquire) >= kTriggersAhead) {
            std::this_thread::yield();
        }
        trigger.send(TASK_DATAMNGR, kTriggerId, nullptr, 0);
        ++sent;
    };
    auto drain = [&] {
        while (t.entity().round_trips.load(std::memory_order_acquire) < sent) {
            std::this_thread::yield();
        }
        t.wait_for(2 * sent);  // the triggers and the answers
    };
    for (int i = 0; i < 100; ++i) start_one();
    drain();

    const uint64_t allocs_before = allocations();
    for (auto _ : state) start_one();
    drain();
    const uint64_t allocs = allocations() - allocs_before;

    if (t.entity().failures.load() != 0) state.SkipWithError("a send-and-wait timed out");
    state.SetItemsProcessed(state.iterations());
    state.counters["allocs_per_rt"] =
            static_cast<double>(allocs) / static_cast<double>(state.iterations());
}

// The floor of a round trip between two threads: two threads handing a turn
// to each other with a mutex and a condition variable, no runtime.
void thread_ping_pong(benchmark::State &state) {
    std::mutex mu;
    std::condition_variable cv;
    int turn = 0;
    bool stop = false;
    std::thread other([&] {
        std::unique_lock lk(mu);
        for (;;) {
            cv.wait(lk, [&] { return turn == 1 || stop; });
            if (stop) return;
            turn = 0;
            cv.notify_all();
        }
    });
    for (auto _ : state) {
        std::unique_lock lk(mu);
        turn = 1;
        cv.notify_all();
        cv.wait(lk, [&] { return turn == 0; });
    }
    {
        std::lock_guard lk(mu);
        stop = true;
    }
    cv.notify_all();
    other.join();
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

void register_runtime_cases() {
    benchmark::RegisterBenchmark("runtime/threaded_task_to_task", task_to_task)
            ->Arg(8)
            ->Arg(47880)
            ->UseRealTime()
            ->Unit(benchmark::kNanosecond);
    benchmark::RegisterBenchmark("runtime/threaded_send_and_wait", send_and_wait)
            ->UseRealTime()
            ->Unit(benchmark::kNanosecond);
    benchmark::RegisterBenchmark("runtime/floor_thread_ping_pong", thread_ping_pong)
            ->UseRealTime()
            ->Unit(benchmark::kNanosecond);
    runtime_benchmarks() = {"runtime/threaded_task_to_task/8/real_time",
                            "runtime/threaded_task_to_task/47880/real_time",
                            "runtime/threaded_send_and_wait/real_time",
                            "runtime/floor_thread_ping_pong/real_time"};
}

}  // namespace bench
