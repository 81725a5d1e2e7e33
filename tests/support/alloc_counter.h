// Test helper: counts the process's heap allocations (malloc and its relatives, and through them
// operator new, on every thread), so a test can prove that a stretch of code allocates nothing:
//
//     sorn_test::AllocCounter allocs;
//     ...code under test...
//     EXPECT_EQ(allocs.count(), 0);
//
// fail_after(n) lets the next n allocations succeed and fails every later one (n < 0: none
// fail), to drive the clean-up paths of creation functions; live() is the number of blocks
// allocated and not yet freed, for leak checks. The C allocation functions of the executable are
// replaced and forwarded to the C library's own. Under a sanitizer, which owns the allocator,
// nothing is counted: available() is false and the test should skip.
#ifndef SORN_TESTS_ALLOC_COUNTER_H
#define SORN_TESTS_ALLOC_COUNTER_H

namespace sorn_test {

long long allocations_so_far();

struct AllocCounter {
    long long start = allocations_so_far();
    long long count() const { return allocations_so_far() - start; }  // since construction
    static bool available();
    static long long live();
    static void fail_after(long long n);
};

}  // namespace sorn_test

#endif
