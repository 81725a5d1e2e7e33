// The wrapper's file-local pieces: the sample ring buffer and the output conversions beyond
// their range. The wrapper source is compiled into this test so that they can be reached.
#include "wrapper/sorn_hp_wrapper.cpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

using V = std::vector<int32_t>;

// A full ring drops its oldest elements however the writes are split (process never fills one;
// order, wrap, empty reads and 16-bit elements are decided by the output checksum).
TEST(RingBuffer, DropsTheOldestWhenFull) {
    V storage(4);
    sorn_ringbuf_t rb{32, 4, 0, 0, 0, storage.data()};
    for (const auto& writes : {std::vector<V>{{1, 2, 3, 4, 5, 6, 7}}, {{1, 2}, {3, 4, 5, 6, 7}}, {{1, 2, 3}, {4}, {5, 6}, {7}}}) {
        for (V w : writes) sorn_ringbuf_write(&rb, w.data(), int(w.size()));
        EXPECT_TRUE(rb.fill == 4 && rb.read_pos == rb.write_pos);
        V got(5, -7);
        sorn_ringbuf_read(&rb, got.data(), 5);
        EXPECT_EQ(got, (V{4, 5, 6, 7, 0}));
    }
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
