// The wrapper's file-local pieces: the sample ring buffer, the sample conversions at their
// limits, and the run-based framing checked bit for bit against the plain frame-by-frame order.
// The wrapper source is compiled into this test so its file-local functions can be reached.
#include "wrapper/sorn_hp_wrapper.cpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
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
}

TEST(RingBuffer, MovesElementsOfTheirKindBitForBitAndIgnoresUnknownKinds) {
    Ring r16(16, 3), r48(48, 2), r24(24, 4);
    int16_t in16[4] = {-1, 32767, -32768, 99}, out16[4] = {5, 5, 5, 5};
    sorn_ringbuf_write(&r16.rb, in16, 3);
    sorn_ringbuf_read(&r16.rb, out16, 3);
    EXPECT_EQ(std::vector<int16_t>(out16, out16 + 4), (std::vector<int16_t>{-1, 32767, -32768, 5}));
    float inf[2] = {-0.0f, std::nanf("0x123")}, outf[2] = {1.0f, 1.0f};
    sorn_ringbuf_write(&r48.rb, inf, 2);
    sorn_ringbuf_read(&r48.rb, outf, 2);
    EXPECT_EQ(std::memcmp(inf, outf, sizeof inf), 0);
    r24.write({1, 2});
    EXPECT_EQ(r24.read(1), V{-7});
    EXPECT_EQ(r24.rb.fill, 0);
    r48.write({});
    EXPECT_EQ(r48.rb.fill, 0);
}

TEST(WrapperConversions, RoundAndSaturateAtTheLimits) {
    int32_t in[] = {INT32_MAX, INT32_MIN, 127, 128, -129, INT32_MAX - 128};
    scale_down_31_to_23(in, 6);
    EXPECT_EQ(V(in, in + 6), (V{8388607, -8388608, 0, 1, -1, 8388607}));
    int32_t out[] = {8388607, 8388608, -8388608, -8388609, INT32_MAX, INT32_MIN};
    scale_up_23_to_31(out, 6);
    EXPECT_EQ(V(out, out + 6), (V{INT32_MAX - 255, INT32_MAX, INT32_MIN, INT32_MIN, INT32_MAX, INT32_MIN}));
    EXPECT_EQ(narrow_to_16(8388479), 32767);
    EXPECT_EQ(narrow_to_16(8388480), 32767);  // rounds past the 24-bit range: saturates
    EXPECT_EQ(narrow_to_16(-8388608), -32768);
    EXPECT_EQ(narrow_to_16(-8388737), -32768);
    EXPECT_EQ(narrow_to_16(-129), -1);
    EXPECT_EQ(narrow_to_16(INT32_MAX), 32767);  // no wrap into the negative range
}

// The frame loop exactly as documented: per frame one ring write and one ring read per channel.
void process_frame_by_frame(sorn_hp_wrapper_t* w, uint8_t* buf, unsigned long size) {
    if (w->state < 2 || w->enable == 0) return;
    const std::size_t bytes = w->sample_bytes, frames = size / (2 * bytes);
    auto* s = reinterpret_cast<int32_t*>(buf);
    if (w->format_type == 3) scale_down_31_to_23(s, 2 * frames);
    for (std::size_t f = 0; f < frames; ++f) {
        uint8_t* p = buf + f * 2 * bytes;
        sorn_ringbuf_write(&w->in_l, p, 1);
        sorn_ringbuf_write(&w->in_r, p + bytes, 1);
        if (w->in_l.fill >= w->block_size) complete_block(w);
        sorn_ringbuf_read(&w->out_l, p, 1);
        sorn_ringbuf_read(&w->out_r, p + bytes, 1);
    }
    if (w->format_type == 3) scale_up_23_to_31(s, 2 * frames);
}

void expect_same_ring(const sorn_ringbuf_t& a, const sorn_ringbuf_t& b) {
    EXPECT_EQ(a.fill, b.fill);
    EXPECT_EQ(a.read_pos, b.read_pos);
    EXPECT_EQ(a.write_pos, b.write_pos);
    EXPECT_EQ(std::memcmp(a.data, b.data, static_cast<std::size_t>(a.capacity) * (a.sample_bits == 16 ? 2 : 4)), 0);
}

TEST(WrapperFraming, RunsOfFramesMatchTheFrameByFrameOrderBitForBit) {
    for (const int format : {1, 3}) {
        auto* fast = static_cast<sorn_hp_wrapper_t*>(sorn_hp_wrapper_init(44100, format, 2));
        auto* slow = static_cast<sorn_hp_wrapper_t*>(sorn_hp_wrapper_init(44100, format, 2));
        sorn_hp_params_t p{};
        p.lc = p.ss = 1;
        for (int i = 0; i < SORN_HP_LC_POINTS; ++i) p.lc_freq[i] = 1500u * (i + 1);
        std::mt19937 rng(static_cast<unsigned>(format));
        orla_earadapt_params_t silent{};
        silent.enable = 1;
        for (int call = 0; call < 180; ++call) {
            if (call % 40 == 5) {  // parameter changes, some of them during a switch
                p.ss = call % 80 == 5;
                sorn_hp_wrapper_set_parameters(fast, &p);
                sorn_hp_wrapper_set_parameters(slow, &p);
            }
            if (call == 70) {
                sorn_hp_wrapper_reset(fast);
                sorn_hp_wrapper_reset(slow);
            }
            if (format == 3 && call == 140) {  // let the mute detector trip in the middle of a call
                sorn_hp_effect_frc_setparameter(fast->effect_active, &silent);
                sorn_hp_effect_frc_setparameter(slow->effect_active, &silent);
            }
            std::vector<uint8_t> a(rng() % 3000 + 1);  // not always whole frames
            for (auto& byte : a) byte = static_cast<uint8_t>(rng());
            std::vector<uint8_t> b = a;
            sorn_hp_wrapper_process(fast, a.data(), a.size());
            process_frame_by_frame(slow, b.data(), b.size());
            ASSERT_EQ(a, b) << "format " << format << ", call " << call;
        }
        EXPECT_EQ(fast->enable, format == 3 ? 0 : 1);
        for (auto ring : {&sorn_hp_wrapper_t::in_l, &sorn_hp_wrapper_t::in_r,
                          &sorn_hp_wrapper_t::out_l, &sorn_hp_wrapper_t::out_r})
            expect_same_ring(fast->*ring, slow->*ring);
        sorn_hp_wrapper_deinit(fast);
        sorn_hp_wrapper_deinit(slow);
    }
}

}  // namespace
