#include "tests/support/alloc_counter.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SORN_ALLOC_COUNTING 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define SORN_ALLOC_COUNTING 0
#endif
#endif
#ifndef SORN_ALLOC_COUNTING
#define SORN_ALLOC_COUNTING 1
#endif

namespace {
std::atomic<long long> g_allocations{0};
std::atomic<long long> g_live{0};
std::atomic<long long> g_fail_at{-1};  // allocation number from which on allocations fail
}

#if SORN_ALLOC_COUNTING
namespace {
// Counts one allocation; true when it is to fail.
bool count_and_fail() {
    const long long n = g_allocations.fetch_add(1, std::memory_order_relaxed);
    const long long fail_at = g_fail_at.load(std::memory_order_relaxed);
    return fail_at >= 0 && n >= fail_at;
}

void* track(void* p) {
    if (p != nullptr) g_live.fetch_add(1, std::memory_order_relaxed);
    return p;
}
}  // namespace

// glibc's own entry points; the replacements below count and forward to them.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t size) {
    return count_and_fail() ? nullptr : track(__libc_malloc(size));
}
void* calloc(std::size_t n, std::size_t size) {
    return count_and_fail() ? nullptr : track(__libc_calloc(n, size));
}
void* realloc(void* p, std::size_t size) {
    if (count_and_fail()) return nullptr;
    void* q = __libc_realloc(p, size);
    if (p == nullptr) return track(q);
    if (q == nullptr && size == 0) g_live.fetch_sub(1, std::memory_order_relaxed);  // freed
    return q;
}
void free(void* p) {
    if (p != nullptr) g_live.fetch_sub(1, std::memory_order_relaxed);
    __libc_free(p);
}
void* memalign(std::size_t align, std::size_t size) {
    return count_and_fail() ? nullptr : track(__libc_memalign(align, size));
}
void* aligned_alloc(std::size_t align, std::size_t size) { return memalign(align, size); }
int posix_memalign(void** out, std::size_t align, std::size_t size) {
    if (align < sizeof(void*) || (align & (align - 1)) != 0) return 22;  // EINVAL
    void* p = memalign(align, size);
    if (p == nullptr) return 12;  // ENOMEM
    *out = p;
    return 0;
}
}
#endif

namespace sorn_test {

AllocCounter::AllocCounter() : start_(g_allocations.load()) {}
long long AllocCounter::count() const { return g_allocations.load() - start_; }
bool AllocCounter::available() { return SORN_ALLOC_COUNTING != 0; }
long long AllocCounter::live() { return g_live.load(); }
void AllocCounter::fail_after(long long n) {
    g_fail_at.store(n < 0 ? -1 : g_allocations.load() + n);
}

}  // namespace sorn_test
