/*
 * Test helper: counts the process's heap allocations (malloc, calloc, realloc, the aligned
 * variants, and through them operator new), so a test can prove that a stretch of code
 * allocates nothing:
 *
 *     sorn_test::AllocCounter allocs;
 *     ...code under test...
 *     EXPECT_EQ(allocs.count(), 0);
 *
 * The counter replaces the C allocation functions of the executable that links it and forwards
 * them to the C library's own. It counts every thread. Under AddressSanitizer or
 * ThreadSanitizer, which own the allocator, counting is unavailable: available() is false and
 * the test should skip.
 */
#ifndef SORN_TESTS_ALLOC_COUNTER_H
#define SORN_TESTS_ALLOC_COUNTER_H

namespace sorn_test {

class AllocCounter {
public:
    AllocCounter();
    /* Allocations since construction (or the last restart()). */
    long long count() const;
    void restart();
    static bool available();

private:
    long long start_;
};

}  // namespace sorn_test

#endif
