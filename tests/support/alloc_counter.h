// Test helper: counts the process's heap allocations (malloc, calloc, realloc, the aligned
// variants, and through them operator new, on every thread), so a test can prove that a stretch
// of code allocates nothing:
//
//     sorn_test::AllocCounter allocs;
//     ...code under test...
//     EXPECT_EQ(allocs.count(), 0);
//
// It can also make allocations fail, to drive the clean-up paths of creation functions.
// The counter replaces the C allocation functions of the executable that links it and forwards
// them to the C library's own. Under AddressSanitizer or ThreadSanitizer, which own the
// allocator, counting is unavailable: available() is false and the test should skip.
#ifndef SORN_TESTS_ALLOC_COUNTER_H
#define SORN_TESTS_ALLOC_COUNTER_H

namespace sorn_test {

class AllocCounter {
public:
    AllocCounter();
    long long count() const;      // allocations since construction
    static bool available();
    static long long live();      // blocks allocated and not yet freed, for leak checks
    // n >= 0: the next n allocations succeed, all later ones return null; n < 0: none fail.
    static void fail_after(long long n);

private:
    long long start_;
};

}  // namespace sorn_test

#endif
