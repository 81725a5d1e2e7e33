#include "tests/support/alloc_counter.h"

#include <atomic>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SORN_ALLOC_COUNTING 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define SORN_ALLOC_COUNTING 0
#endif
#endif
#ifndef SORN_ALLOC_COUNTING
#define SORN_ALLOC_COUNTING 1
#endif

namespace {
// g_fail_at: the number of the first allocation that fails, -1 for none.
std::atomic<long long> g_allocations{0}, g_live{0}, g_fail_at{-1};
}  // namespace

#if SORN_ALLOC_COUNTING
namespace {
// Counts one allocation: null when it is to fail, else what `allocate` gives, counted as live.
template <typename Allocate>
void *counted(Allocate allocate) {
    const long long n = g_allocations++, fail_at = g_fail_at.load();
    void *p = fail_at >= 0 && n >= fail_at ? nullptr : allocate();
    if (p != nullptr) ++g_live;
    return p;
}
}  // namespace

// glibc's own entry points; the replacements below count and forward to them.
extern "C" {
void *__libc_malloc(std::size_t);
void *__libc_calloc(std::size_t, std::size_t);
void *__libc_realloc(void *, std::size_t);
void *__libc_memalign(std::size_t, std::size_t);
void __libc_free(void *);

void *malloc(std::size_t size) { return counted([=] { return __libc_malloc(size); }); }
void *calloc(std::size_t n, std::size_t size) { return counted([=] { return __libc_calloc(n, size); }); }
void *memalign(std::size_t align, std::size_t size) { return counted([=] { return __libc_memalign(align, size); }); }
void *aligned_alloc(std::size_t align, std::size_t size) { return memalign(align, size); }
void free(void *p) { if (p != nullptr) --g_live; __libc_free(p); }
void *realloc(void *p, std::size_t size) {
    if (p != nullptr && size == 0) return free(p), nullptr;  // what glibc's realloc does
    void *q = counted([=] { return __libc_realloc(p, size); });
    if (p != nullptr && q != nullptr) --g_live;  // the old block is gone, the new one counted
    return q;
}
int posix_memalign(void **out, std::size_t align, std::size_t size) {
    if (align < sizeof(void *) || (align & (align - 1)) != 0) return 22;  // EINVAL
    void *p = memalign(align, size);
    return p == nullptr ? 12 : (*out = p, 0);  // ENOMEM, or done
}
}
#endif

namespace sorn_test {
long long allocations_so_far() { return g_allocations.load(); }
bool AllocCounter::available() { return SORN_ALLOC_COUNTING != 0; }
long long AllocCounter::live() { return g_live.load(); }
void AllocCounter::fail_after(long long n) { g_fail_at = n < 0 ? -1 : g_allocations.load() + n; }
}  // namespace sorn_test
