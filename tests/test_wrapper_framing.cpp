// The wrapper's file-local pieces: the sample ring buffer and the output conversions beyond
// their range. The wrapper source is compiled into this test so that they can be reached.
#include "wrapper/sorn_hp_wrapper.cpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Ring {
    std::vector<uint32_t> storage;
    sorn_ringbuf_t rb{};
    Ring(int kind, int capacity) : storage(capacity, 0) {
        rb.sample_bits = kind;
        rb.capacity = capacity;
        rb.data = storage.data();
    }
    void write(std::vector<int32_t> v) { sorn_ringbuf_write(&rb, v.data(), static_cast<int>(v.size())); }
    std::vector<int32_t> read(int n) {
        std::vector<int32_t> v(n, -7);
        sorn_ringbuf_read(&rb, v.data(), n);
        return v;
    }
};

using V = std::vector<int32_t>;

TEST(RingBuffer, KeepsOrderDropsTheOldestWhenFullAndReadsZeroWhenEmpty) {
    Ring r(32, 4);
    EXPECT_EQ(r.read(1), V{0});
    r.write({1, 2, 3});
    EXPECT_EQ(r.read(2), (V{1, 2}));
    r.write({4, 5, 6});  // wraps
    EXPECT_EQ(r.read(5), (V{3, 4, 5, 6, 0}));
    EXPECT_EQ(r.rb.fill, 0);
    for (const auto& writes : {std::vector<V>{{1, 2, 3, 4, 5, 6, 7}}, {{1, 2}, {3, 4, 5, 6, 7}},
                               {{1, 2, 3}, {4}, {5, 6}, {7}}}) {
        for (const auto& w : writes) r.write(w);
        EXPECT_EQ(r.rb.fill, 4);
        EXPECT_EQ(r.rb.read_pos, r.rb.write_pos);
        EXPECT_EQ(r.read(5), (V{4, 5, 6, 7, 0}));
    }
    Ring r16(16, 3);  // 16-bit elements, moved whole
    int16_t in16[3] = {-1, 32767, -32768}, out16[4] = {5, 5, 5, 5};
    sorn_ringbuf_write(&r16.rb, in16, 3);
    sorn_ringbuf_read(&r16.rb, out16, 3);
    EXPECT_EQ(std::vector<int16_t>(out16, out16 + 4), (std::vector<int16_t>{-1, 32767, -32768, 5}));
}

// Chain output beyond the 24-bit scale (which process cannot feed in) saturates on the way out.
TEST(WrapperConversions, SaturateBeyondThe24BitScale) {
    int32_t out[] = {8388607, 8388608, -8388608, -8388609, INT32_MAX, INT32_MIN};
    scale_up_23_to_31(out, 6);
    EXPECT_EQ(V(out, out + 6), (V{INT32_MAX - 255, INT32_MAX, INT32_MIN, INT32_MIN, INT32_MAX, INT32_MIN}));
    EXPECT_EQ(narrow_to_16(8388479), 32767);
    EXPECT_EQ(narrow_to_16(8388480), 32767);  // rounds past the 24-bit range
    EXPECT_EQ(narrow_to_16(-8388737), -32768);
    EXPECT_EQ(narrow_to_16(-129), -1);
    EXPECT_EQ(narrow_to_16(INT32_MAX), 32767);  // no wrap into the negative range
}

}  // namespace
