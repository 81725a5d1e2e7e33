/*
 * Processing wrapper: ring buffers, block framing, format conversions, the two-chain switch
 * and the mute detector. See sorn_hp_wrapper.h for the contract.
 *
 * Framing works on runs of frames: between two block completions every frame writes one sample
 * per channel into the input rings and takes one from the output rings, so a whole run is moved
 * with two strided copies per ring instead of four ring calls per frame. The rings end up in
 * exactly the state the frame-by-frame order would leave them in, and so does the buffer.
 */
#include "wrapper/sorn_hp_wrapper.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "platform/sat_math.h"
#include "dsp/sorn_hp_effect.h"
#include "platform/sorn_log.h"

namespace {

constexpr int kMinRate = 44050;
constexpr int kMaxRate = 48050;
constexpr int kBlock44k = 220;
constexpr int kBlockOther = 240;

// Per format type 1..4; any other type is handled as a 32-bit type and stored as 0.
constexpr int32_t kSampleBytes[4] = {2, 4, 4, 4};
constexpr int32_t kSampleBits[4] = {16, 32, 32, 32};
constexpr int kFormatScaled31 = 3;  // int32 with full scale 2^31, converted on entry and exit

constexpr int kMuteBlocks = 15;        // audible-in, silent-out blocks before the trip
constexpr int kActiveCountWrap = 149;  // the input-activity count starts over above this

// --- Ring buffer storage access ------------------------------------------------------------
// T is the storage element: uint16_t for kind 16, uint32_t for kinds 32 and 48 (floats are
// moved bit for bit). Source and destination elements lie `stride` elements apart, so one call
// can gather a channel from an interleaved buffer. A stride fixed at compile time (kStride > 0:
// 1 for the block planes, 2 for the stereo framing) lets the copies vectorize; kStride 0 takes
// the run-time `stride`. `map` is applied to each element on its way (a scale conversion folded
// into the copy); the default moves elements unchanged.

struct Unchanged {
    template <typename T>
    T operator()(T v) const { return v; }
};

template <typename T, int kStride = 0, typename Map = Unchanged>
void ring_put(sorn_ringbuf_t* rb, const T* src, std::ptrdiff_t stride, int count, Map map = {}) {
    if constexpr (kStride > 0) stride = kStride;
    T* data = static_cast<T*>(rb->data);
    const int cap = rb->capacity;
    const int free_slots = rb->fill < cap ? cap - rb->fill : 0;
    int wp = rb->write_pos;
    int skip = 0;
    if (count > cap) {  // only the last `cap` elements survive
        skip = count - cap;
        wp = static_cast<int>((static_cast<int64_t>(wp) + skip) % cap);
    }
    for (int left = count - skip; left > 0;) {
        const int run = left < cap - wp ? left : cap - wp;
        T* to = data + wp;
        const T* from = src + skip * stride;
        if constexpr (kStride == 1 && std::is_same_v<Map, Unchanged>) {
            std::memcpy(to, from, static_cast<std::size_t>(run) * sizeof(T));
        } else {
            for (int i = 0; i < run; ++i) to[i] = map(from[i * stride]);
        }
        skip += run;
        left -= run;
        wp += run;
        if (wp == cap) wp = 0;
    }
    rb->write_pos = wp;
    if (count <= free_slots) {
        rb->fill += count;
    } else {  // the oldest elements were overwritten
        const int lost = (count - free_slots) % cap;
        rb->fill = cap;
        rb->read_pos = (rb->read_pos + lost) % cap;
    }
}

template <typename T, int kStride = 0, typename Map = Unchanged>
void ring_take(sorn_ringbuf_t* rb, T* dst, std::ptrdiff_t stride, int count, Map map = {}) {
    if constexpr (kStride > 0) stride = kStride;
    const T* data = static_cast<const T*>(rb->data);
    const int cap = rb->capacity;
    const int held = rb->fill > 0 ? rb->fill : 0;
    const int n = count < held ? count : held;
    int rp = rb->read_pos;
    for (int done = 0; done < n;) {
        const int run = n - done < cap - rp ? n - done : cap - rp;
        T* to = dst + done * stride;
        const T* from = data + rp;
        if constexpr (kStride == 1 && std::is_same_v<Map, Unchanged>) {
            std::memcpy(to, from, static_cast<std::size_t>(run) * sizeof(T));
        } else {
            for (int i = 0; i < run; ++i) to[i * stride] = map(from[i]);
        }
        done += run;
        rp += run;
        if (rp == cap) rp = 0;
    }
    rb->read_pos = rp;
    rb->fill -= n;
    if (n < count) {  // ran dry: the missing elements read as zero
        for (int i = n; i < count; ++i) dst[i * stride] = map(T{0});
        rb->fill = 0;
        rb->write_pos = rb->read_pos;
    }
}

}  // namespace

/* Appends `count` consecutive elements of kind rb->sample_bits from src; a full buffer drops
   its oldest element for each new one. Unknown kinds and counts below 1 do nothing. */
static void sorn_ringbuf_write(sorn_ringbuf_t* rb, void* src, int count) {
    if (rb == nullptr || src == nullptr || count < 1 || rb->data == nullptr || rb->capacity < 1)
        return;
    switch (rb->sample_bits) {
        case 16: ring_put<uint16_t, 1>(rb, static_cast<const uint16_t*>(src), 1, count); break;
        case 32:
        case 48: ring_put<uint32_t, 1>(rb, static_cast<const uint32_t*>(src), 1, count); break;
        default: break;
    }
}

/* Removes `count` elements into consecutive slots of dst; elements missing from an empty
   buffer read as zero. Unknown kinds and counts below 1 do nothing. */
static void sorn_ringbuf_read(sorn_ringbuf_t* rb, void* dst, int count) {
    if (rb == nullptr || dst == nullptr || count < 1 || rb->data == nullptr || rb->capacity < 1)
        return;
    switch (rb->sample_bits) {
        case 16: ring_take<uint16_t, 1>(rb, static_cast<uint16_t*>(dst), 1, count); break;
        case 32:
        case 48: ring_take<uint32_t, 1>(rb, static_cast<uint32_t*>(dst), 1, count); break;
        default: break;
    }
}

namespace {

// --- Format conversions ---------------------------------------------------------------------

// Full scale 2^31 to the 24-bit scale, rounding to nearest; the top 128 codes saturate. Held
// below INT32_MAX - 127 first, the rounding sum fits in 32 bits and gives what the saturated
// 64-bit sum gives (0x7fffff at the top), in lanes the vectorizer takes.
int32_t down_31_to_23(int32_t v) {
    constexpr int32_t kTop = INT32_MAX - 128;
    return ((v < kTop ? v : kTop) + 128) >> 8;
}

void scale_down_31_to_23(int32_t* s, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) s[i] = down_31_to_23(s[i]);
}

// 24-bit scale back to full scale 2^31; anything beyond the 24-bit range saturates.
void scale_up_23_to_31(int32_t* s, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) s[i] = sorn::sat_shl8(s[i]);
}

// The two scale conversions on ring storage elements (int32 samples held as uint32_t), for
// stereo framing that converts on the way into and out of the rings.
struct Down31To23 {
    uint32_t operator()(uint32_t u) const {
        return static_cast<uint32_t>(down_31_to_23(static_cast<int32_t>(u)));
    }
};
struct Up23To31 {
    uint32_t operator()(uint32_t u) const {
        return static_cast<uint32_t>(sorn::sat_shl8(static_cast<int32_t>(u)));
    }
};

// 24-bit scale to int16, rounding to nearest and saturating. The rounding offset is added in
// 64 bits so that a sample near the int32 limit saturates instead of flipping sign.
int16_t narrow_to_16(int32_t v) {
    const int64_t t = static_cast<int64_t>(v) + 128;
    if (t >= -8388608 && t <= 8388607) return static_cast<int16_t>(t >> 8);
    return t > 0 ? INT16_MAX : INT16_MIN;
}

bool any_nonzero(const int32_t* a, const int32_t* b, int n) {
    int32_t acc = 0;
    for (int i = 0; i < n; ++i) acc |= a[i] | b[i];
    return acc != 0;
}

// Linear cross-fade from `work` (weight 1 at the first sample) towards `xfade`, in place.
void crossfade_into(int32_t* work, const int32_t* xfade, int n) {
    const float step = 1.0f / static_cast<float>(n);
    float g = 1.0f;
    for (int k = 0; k < n; ++k) {
        const float mixed = (1.0f - g) * static_cast<float>(xfade[k]) +
                            g * static_cast<float>(work[k]);
        work[k] = sorn::sat_f2i32(mixed);
        g -= step;
        if (g < 0.0f) g = 0.0f;
    }
}

// --- One block ------------------------------------------------------------------------------

// Runs once the input rings hold a whole block: takes it out, runs the chains, watches for a
// muting chain, finishes a switch, and queues the processed block in the output rings.
void complete_block(sorn_hp_wrapper_t* w) {
    const int n = w->block_size;
    const bool wide = w->sample_bits != 16;

    if (wide) {
        sorn_ringbuf_read(&w->in_l, w->work_l, n);
        sorn_ringbuf_read(&w->in_r, w->work_r, n);
    } else {
        sorn_ringbuf_read(&w->in_l, w->pcm16_l, n);
        sorn_ringbuf_read(&w->in_r, w->pcm16_r, n);
        for (int i = 0; i < n; ++i) {
            w->work_l[i] = static_cast<int32_t>(w->pcm16_l[i]) * 256;
            w->work_r[i] = static_cast<int32_t>(w->pcm16_r[i]) * 256;
        }
    }

    if (w->state == 3) {  // the standby chain warms up on the same input
        std::memcpy(w->xfade_l, w->work_l, static_cast<std::size_t>(n) * sizeof(int32_t));
        std::memcpy(w->xfade_r, w->work_r, static_cast<std::size_t>(n) * sizeof(int32_t));
        sorn_hp_effect_core_process(w->effect_standby, w->xfade_l, w->xfade_r, n);
        --w->switch_count;
    }

    if (wide) {
        if (any_nonzero(w->work_l, w->work_r, n)) {
            w->in_active_blocks = w->in_active_blocks > kActiveCountWrap ? 0 : w->in_active_blocks + 1;
        } else {
            w->in_active_blocks = 0;
            w->out_silent_blocks = 0;
        }
    }

    sorn_hp_effect_core_process(w->effect_active, w->work_l, w->work_r, n);

    if (wide) {
        if (any_nonzero(w->work_l, w->work_r, n)) {
            w->out_silent_blocks = 0;
        } else if (++w->out_silent_blocks >= kMuteBlocks && w->in_active_blocks >= kMuteBlocks) {
            // The one log line of the audio path: it is written once per wrapper at most.
            SORN_LOGE(SORN_LOG_TAG_CORE, "process cause mute, %d %d, need bypass",
                      w->in_active_blocks, w->out_silent_blocks);
            w->enable = 0;
            w->in_active_blocks = 0;
            w->out_silent_blocks = 0;
        }
    }

    if (w->state == 3 && w->switch_count <= 0) {
        crossfade_into(w->work_l, w->xfade_l, n);
        crossfade_into(w->work_r, w->xfade_r, n);
        void* old_active = w->effect_active;
        w->effect_active = w->effect_standby;
        w->effect_standby = old_active;
        w->state = 2;
    }

    if (wide) {
        sorn_ringbuf_write(&w->out_l, w->work_l, n);
        sorn_ringbuf_write(&w->out_r, w->work_r, n);
    } else {
        for (int i = 0; i < n; ++i) {
            w->pcm16_l[i] = narrow_to_16(w->work_l[i]);
            w->pcm16_r[i] = narrow_to_16(w->work_r[i]);
        }
        sorn_ringbuf_write(&w->out_l, w->pcm16_l, n);
        sorn_ringbuf_write(&w->out_r, w->pcm16_r, n);
    }
}

// Frames the interleaved buffer (S: the caller's sample type, T: the ring storage type of the
// same size). Each frame enters the input rings through `in` and is replaced by the next output
// frame through `out`.
template <typename S, typename T, typename In = Unchanged, typename Out = Unchanged>
void frame_loop(sorn_hp_wrapper_t* w, S* buffer, std::size_t frames, In in = {}, Out out = {}) {
    static_assert(sizeof(S) == sizeof(T));
    T* samples = reinterpret_cast<T*>(buffer);
    const std::ptrdiff_t ch = w->chnnum;
    const int block = w->block_size;
    std::size_t pos = 0;
    while (pos < frames) {
        // Frames that can pass before the one that completes the current block.
        const int pending = w->in_l.fill;
        std::size_t run = 0;
        if (pending >= 0 && pending < block) {
            run = static_cast<std::size_t>(block - pending - 1);
            if (run > frames - pos) run = frames - pos;
        }
        if (run > 0) {
            T* f = samples + static_cast<std::ptrdiff_t>(pos) * ch;
            const int n = static_cast<int>(run);
            if (ch == 2) {
                ring_put<T, 2>(&w->in_l, f, 2, n, in);
                ring_put<T, 2>(&w->in_r, f + 1, 2, n, in);
                ring_take<T, 2>(&w->out_l, f, 2, n, out);
                ring_take<T, 2>(&w->out_r, f + 1, 2, n, out);
            } else {
                ring_put(&w->in_l, f, ch, n, in);
                ring_put(&w->in_r, f + 1, ch, n, in);
                ring_take(&w->out_l, f, ch, n, out);
                ring_take(&w->out_r, f + 1, ch, n, out);
            }
            pos += run;
            if (pos == frames) break;
        }
        T* f = samples + static_cast<std::ptrdiff_t>(pos) * ch;
        f[0] = in(f[0]);
        f[1] = in(f[1]);
        sorn_ringbuf_write(&w->in_l, f, 1);
        sorn_ringbuf_write(&w->in_r, f + 1, 1);
        if (w->in_l.fill >= block) complete_block(w);
        sorn_ringbuf_read(&w->out_l, f, 1);
        sorn_ringbuf_read(&w->out_r, f + 1, 1);
        f[0] = out(f[0]);
        f[1] = out(f[1]);
        ++pos;
    }
}

void setup_ring(sorn_ringbuf_t* rb, int32_t kind, int32_t capacity, int32_t element_bytes,
                int* failures) {
    rb->sample_bits = kind;
    rb->capacity = capacity;
    rb->fill = rb->read_pos = rb->write_pos = 0;
    rb->data = std::calloc(static_cast<std::size_t>(capacity), static_cast<std::size_t>(element_bytes));
    if (rb->data == nullptr) ++*failures;
}

template <typename P>
P* alloc_plane(int32_t count, int* failures) {
    P* p = static_cast<P*>(std::calloc(static_cast<std::size_t>(count), sizeof(P)));
    if (p == nullptr) ++*failures;
    return p;
}

template <typename P>
void free_and_clear(P*& p) {
    std::free(p);
    p = nullptr;
}

}  // namespace

void* sorn_hp_wrapper_init(int sample_rate, int format_type, int chnnum) {
    auto* w = static_cast<sorn_hp_wrapper_t*>(std::calloc(1, sizeof(sorn_hp_wrapper_t)));
    if (w == nullptr) return nullptr;
    SORN_LOGD(SORN_LOG_TAG_CORE, "%s: sample_rate %d, format_type %d, chnnum %d", __func__,
              sample_rate, format_type, chnnum);

    w->chnnum = chnnum;
    w->sample_rate = sample_rate;
    w->enable = 1;

    int bypass_reasons = 0;
    const auto rate = static_cast<uint32_t>(sample_rate);
    if (rate < static_cast<uint32_t>(kMinRate) || rate > static_cast<uint32_t>(kMaxRate)) {
        SORN_LOGW(SORN_LOG_TAG_CORE, "%s: sample_rate %zu unmatch, need bypass", __func__,
                  static_cast<std::size_t>(rate));
        ++bypass_reasons;
    }
    if (chnnum != 2) {
        SORN_LOGE(SORN_LOG_TAG_CORE, "%s: chnnum %d unsupported, need bypass", __func__, chnnum);
        ++bypass_reasons;
    }

    if (format_type >= 1 && format_type <= 4) {
        w->format_type = format_type;
        w->sample_bits = kSampleBits[format_type - 1];
        w->sample_bytes = kSampleBytes[format_type - 1];
    } else {
        w->format_type = 0;
        w->sample_bits = 32;
        w->sample_bytes = 4;
    }

    // A chain that cannot be made stays null; the chain operations then do nothing.
    w->effect_active = sorn_hp_effect_init(rate, chnnum);
    w->effect_standby = sorn_hp_effect_init(rate, chnnum);

    w->block_size = sample_rate == 44100 ? kBlock44k : kBlockOther;
    int failures = 0;
    setup_ring(&w->in_l, w->sample_bits, w->block_size, w->sample_bytes, &failures);
    setup_ring(&w->in_r, w->sample_bits, w->block_size, w->sample_bytes, &failures);
    setup_ring(&w->out_l, w->sample_bits, w->block_size, w->sample_bytes, &failures);
    setup_ring(&w->out_r, w->sample_bits, w->block_size, w->sample_bytes, &failures);
    w->pcm16_l = alloc_plane<int16_t>(w->block_size, &failures);
    w->pcm16_r = alloc_plane<int16_t>(w->block_size, &failures);
    w->work_l = alloc_plane<int32_t>(w->block_size, &failures);
    w->work_r = alloc_plane<int32_t>(w->block_size, &failures);
    w->xfade_l = alloc_plane<int32_t>(w->block_size, &failures);
    w->xfade_r = alloc_plane<int32_t>(w->block_size, &failures);

    w->frc.enable = 0;
    earadapt_params_fill_bypass(&w->frc);

    w->switch_count = 0;
    w->in_active_blocks = 0;
    w->out_silent_blocks = 0;
    w->state = (bypass_reasons == 0 && failures == 0) ? 1 : 0;
    return w;
}

void sorn_hp_wrapper_deinit(void* handle) {
    auto* w = static_cast<sorn_hp_wrapper_t*>(handle);
    if (w == nullptr) return;
    w->state = 0;
    SORN_LOGD(SORN_LOG_TAG_CORE, "%s", __func__);
    sorn_hp_effect_end(w->effect_active);
    sorn_hp_effect_end(w->effect_standby);
    w->effect_active = w->effect_standby = nullptr;
    free_and_clear(w->pcm16_l);
    free_and_clear(w->pcm16_r);
    free_and_clear(w->work_l);
    free_and_clear(w->work_r);
    free_and_clear(w->xfade_l);
    free_and_clear(w->xfade_r);
    free_and_clear(w->in_l.data);
    free_and_clear(w->in_r.data);
    free_and_clear(w->out_l.data);
    free_and_clear(w->out_r.data);
    std::free(w);
}

void sorn_hp_wrapper_reset(void* handle) {
    auto* w = static_cast<sorn_hp_wrapper_t*>(handle);
    if (w == nullptr) return;
    SORN_LOGD(SORN_LOG_TAG_CORE, "%s", __func__);
    if (w->state < 1) return;
    // Only the chains' signal state: the rings keep their content, so latency and the framing
    // phase carry on unchanged.
    sorn_hp_effect_reset(w->effect_active);
    sorn_hp_effect_reset(w->effect_standby);
}

void sorn_hp_wrapper_process(void* handle, void* buffer, unsigned long size) {
    auto* w = static_cast<sorn_hp_wrapper_t*>(handle);
    if (w == nullptr || buffer == nullptr || size == 0 || w->state < 2 || w->enable == 0) return;
    if (w->chnnum < 2 || w->sample_bytes < 1) return;  // never processing in such a wrapper

    // Only whole frames are touched; trailing bytes of a partial frame stay as they are.
    const auto frame_bytes = static_cast<unsigned long>(w->chnnum) * static_cast<unsigned long>(w->sample_bytes);
    const std::size_t frames = size / frame_bytes;
    if (frames == 0) return;
    const std::size_t samples = frames * static_cast<std::size_t>(w->chnnum);

    if (w->sample_bits == 16) {
        frame_loop<int16_t, uint16_t>(w, static_cast<int16_t*>(buffer), frames);
        return;
    }
    auto* s = static_cast<int32_t*>(buffer);
    if (w->format_type != kFormatScaled31) {
        frame_loop<int32_t, uint32_t>(w, s, frames);
    } else if (w->chnnum == 2) {
        // Every sample is written into a ring and replaced by one taken from a ring, so the
        // conversions are done on the way, in the same copies.
        frame_loop<int32_t, uint32_t>(w, s, frames, Down31To23{}, Up23To31{});
    } else {
        scale_down_31_to_23(s, samples);
        frame_loop<int32_t, uint32_t>(w, s, frames);
        scale_up_23_to_31(s, samples);
    }
}
