// The wrapper's file-local pieces: the sample ring buffer and the output conversions beyond
// their range. The wrapper source is compiled into this test so that they can be reached.
#include "wrapper/sorn_hp_wrapper.cpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

using V = std::vector<int32_t>;

// Order kept across the wrap; reads of an empty ring give zeros; a full ring drops its oldest
// elements however the writes are split; 16-bit elements move whole.
TEST(RingBuffer, KeepsOrderDropsTheOldestWhenFullAndReadsZeroWhenEmpty) {
    V storage(4);
    sorn_ringbuf_t rb{32, 4, 0, 0, 0, storage.data()};
    auto write = [&](V v) { sorn_ringbuf_write(&rb, v.data(), int(v.size())); };
    auto read = [&](int n) { V v(n, -7); sorn_ringbuf_read(&rb, v.data(), n); return v; };
    EXPECT_EQ(read(1), V{0});
    write({1, 2, 3});
    EXPECT_EQ(read(2), (V{1, 2}));
    write({4, 5, 6});  // wraps
    EXPECT_EQ(read(5), (V{3, 4, 5, 6, 0}));
    for (const auto& writes : {std::vector<V>{{1, 2, 3, 4, 5, 6, 7}}, {{1, 2}, {3, 4, 5, 6, 7}}, {{1, 2, 3}, {4}, {5, 6}, {7}}}) {
        for (const auto& w : writes) write(w);
        EXPECT_TRUE(rb.fill == 4 && rb.read_pos == rb.write_pos);
        EXPECT_EQ(read(5), (V{4, 5, 6, 7, 0}));
    }
    int16_t in16[3] = {-1, 32767, -32768}, out16[4] = {5, 5, 5, 5}, storage16[3];
    sorn_ringbuf_t r16{16, 3, 0, 0, 0, storage16};
    sorn_ringbuf_write(&r16, in16, 3);
    sorn_ringbuf_read(&r16, out16, 3);
    EXPECT_EQ(std::vector<int16_t>(out16, out16 + 4), (std::vector<int16_t>{-1, 32767, -32768, 5}));
}

// Chain output beyond the 24-bit scale (which process cannot feed in) saturates on the way out.
TEST(WrapperConversions, SaturateBeyondThe24BitScale) {
    V out = {8388607, 8388608, -8388608, -8388609, INT32_MAX, INT32_MIN};
    scale_up_23_to_31(out.data(), 6);
    EXPECT_EQ(out, (V{INT32_MAX - 255, INT32_MAX, INT32_MIN, INT32_MIN, INT32_MAX, INT32_MIN}));
    const int32_t wide[] = {8388479, 8388480, -8388737, -129, INT32_MAX}, narrow[] = {32767, 32767, -32768, -1, 32767};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(narrow_to_16(wide[i]), narrow[i]) << wide[i];
}

}  // namespace
