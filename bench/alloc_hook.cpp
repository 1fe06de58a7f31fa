// Counts heap allocations by standing in for malloc and its relatives in
// front of the C library's own (glibc exports them as __libc_*).  Nothing here
// may allocate, take a lock or touch thread-local storage: the counters are
// plain atomics.
#include "bench/alloc_hook.h"

#include <cerrno>
#include <cstddef>

#include <atomic>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *ptr, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *ptr);
}

namespace {

std::atomic<uint64_t> g_total{0};
std::atomic<uint64_t> g_in_handlers{0};
std::atomic<int> g_scope_depth{0};

inline void count() {
    g_total.fetch_add(1, std::memory_order_relaxed);
    if (g_scope_depth.load(std::memory_order_relaxed) > 0) {
        g_in_handlers.fetch_add(1, std::memory_order_relaxed);
    }
}

}  // namespace

extern "C" {

void *malloc(size_t size) {
    count();
    return __libc_malloc(size);
}

void *calloc(size_t count_, size_t size) {
    count();
    return __libc_calloc(count_, size);
}

void *realloc(void *ptr, size_t size) {
    count();
    return __libc_realloc(ptr, size);
}

void *memalign(size_t alignment, size_t size) {
    count();
    return __libc_memalign(alignment, size);
}

void *aligned_alloc(size_t alignment, size_t size) {
    count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void **out, size_t alignment, size_t size) {
    if (alignment < sizeof(void *) || (alignment & (alignment - 1)) != 0) return EINVAL;
    count();
    void *p = __libc_memalign(alignment, size);
    if (p == nullptr) return ENOMEM;
    *out = p;
    return 0;
}

void free(void *ptr) {
    __libc_free(ptr);
}

}  // extern "C"

namespace bench {

uint64_t allocations() {
    return g_total.load(std::memory_order_relaxed);
}

uint64_t allocations_in_handlers() {
    return g_in_handlers.load(std::memory_order_relaxed);
}

HandlerScope::HandlerScope() {
    g_scope_depth.fetch_add(1, std::memory_order_relaxed);
}

HandlerScope::~HandlerScope() {
    g_scope_depth.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace bench
