#include "dsp/compressor.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/sat_math.h"

namespace {

using sorn::kQ13One;
using sorn::kQ17One;
using sorn::sat_i32;

/* Frames in one 5 ms block per SampleRateType; unlisted classes use the 48 kHz entry. */
constexpr int32_t kFramesPerBlock[] = {220, 240, 480, 960};
constexpr int32_t kMaxFramesPerBlock = 960;

/* Settings the compressor gives its two DRCs. */
constexpr int32_t kCompressorThreshold = 30720; /* 0.9375 of full scale */
constexpr int32_t kCompressorReleaseOrder = 7;
constexpr int32_t kCompressorDenoiseRequest = 1; /* raised to the floor of 2 */

/* DRC defaults. */
constexpr int32_t kDefaultThreshold = 32767;
constexpr int32_t kDefaultReleaseOrder = 5;
constexpr int32_t kDefaultDenoiseThreshold = 256;
constexpr int32_t kAvgEnvStart = 32767;
constexpr int32_t kGateGainStart = 8192; /* Q17, 1/16: the gate opens over the first samples */
constexpr int32_t kDenoiseFloor = 2;

constexpr int32_t kGateFloor = 1536;        /* Q13, -14.5 dB */
constexpr int32_t kReductionMargin = 7936;  /* Q13, 0.96875 below the threshold ratio */

int32_t frames_for_rate(SampleRateType rate) {
    if (rate < 0 || rate > 3) return kFramesPerBlock[SAMPLE_RATE_TYPE_48K];
    return kFramesPerBlock[rate];
}

/* Shift for a rising gain, by the distance d = B - gain (d > 64). */
constexpr int release_shift(int64_t d) {
    if (d > 16384) return 11;
    if (d > 8192) return 10;
    if (d > 4096) return 9;
    if (d > 2048) return 8;
    if (d > 1024) return 7;
    return 6;
}

/* Shift for a falling gain, by the distance a = gain - B (a > 32). There is no shift of 7. */
constexpr int attack_shift(int64_t a) {
    if (a > 8192) return 10;
    if (a > 4096) return 9;
    if (a > 2048) return 8;
    if (a > 1024) return 6;
    return 5;
}

/* A shift order as applied to a 64-bit difference: never negative, never past the width. */
constexpr int order_shift(int32_t order) { return std::clamp<int32_t>(order, 0, 63); }

inline uint32_t unsigned_magnitude(int32_t x) {
    return x < 0 ? 0u - static_cast<uint32_t>(x) : static_cast<uint32_t>(x);
}

struct BlockLevel {
    int32_t peak; /* largest magnitude >> 8 */
    int32_t mean; /* mean magnitude */
};

/* Samples per partial sum: 65536 halves of at most 65535 each still fit in 32 bits. */
constexpr int kSumChunk = 65536;

BlockLevel measure_block(const int *samples, int frames) {
    if (frames <= 0) return {0, 0};
    int32_t peak = 0;
    uint64_t sum = 0;
    /* The magnitudes are summed as their upper and lower 16-bit halves in 32-bit sums, which
       keeps the loop in 32-bit lanes for the vectorizer; the total is the same exact integer. */
    for (int start = 0; start < frames; start += kSumChunk) {
        const int end = frames - start > kSumChunk ? start + kSumChunk : frames;
        uint32_t upper = 0;
        uint32_t lower = 0;
        for (int i = start; i < end; ++i) {
            const uint32_t m = unsigned_magnitude(samples[i]);
            /* For the peak, -2^31 keeps its negative value and so never wins. */
            const int32_t signed_m = static_cast<int32_t>(m);
            peak = peak > signed_m ? peak : signed_m;
            upper += m >> 16;
            lower += m & 0xffffu;
        }
        sum += (static_cast<uint64_t>(upper) << 16) + lower;
    }
    const int64_t mean = static_cast<int64_t>(sum) / frames;
    return {peak >> 8, sat_i32(mean)};
}

/* The delay line's running state, held in locals for a run of samples and stored back after. */
struct DelayCursor {
    int32_t *buffer;
    int32_t length; /* 0 when the line passes samples through */
    int32_t position;

    explicit DelayCursor(const audio_delay *delay)
        : buffer(delay->buffer),
          length(delay->buffer != nullptr ? std::max(0, std::min(delay->length, delay->capacity))
                                          : 0),
          /* A shortened delay keeps its position, which still lies inside the buffer; anything
             else (a record written by hand) restarts at slot 0 rather than reading outside. */
          position(delay->position >= 0 && delay->position < delay->capacity ? delay->position
                                                                             : 0) {}

    /* Returns the oldest sample and stores the new one in its slot. */
    int32_t step(int32_t sample) {
        if (length == 0) return sample;
        const int32_t out = buffer[position];
        buffer[position] = sample;
        position = (position + 1 >= length) ? 0 : position + 1;
        return out;
    }

    /* step() for every sample of in, results to out (which may be in), in runs between the
       wraps of the line so that each run is a plain loop over consecutive slots. */
    void run(const int32_t *in, int32_t *out, int frames) {
        if (length == 0) {
            if (in != out) std::memmove(out, in, sizeof(int32_t) * static_cast<size_t>(frames));
            return;
        }
        for (int i = 0; i < frames;) {
            /* A shortened line whose position lies past its end takes one step, then wraps. */
            const int k = std::min(std::max(length - position, 1), frames - i);
            int32_t *slot = buffer + position;
            if (in == out) {
                int32_t *io = out + i;
                for (int j = 0; j < k; ++j) std::swap(slot[j], io[j]);
            } else {
                const int32_t *src = in + i;
                int32_t *dst = out + i;
                for (int j = 0; j < k; ++j) {
                    dst[j] = slot[j];
                    slot[j] = src[j];
                }
            }
            i += k;
            position = position + k >= length ? 0 : position + k;
        }
    }

    void store(audio_delay *delay) const {
        if (length != 0) delay->position = position;
    }
};

bool drc_complete(const dynamic_range_control_t *drc) {
    return drc != nullptr && drc->gain_history != nullptr && drc->delay != nullptr;
}

/* A delayed sample times the total gain (Q17). */
inline int32_t apply_gain(int32_t x, int32_t total) {
    const int64_t p = (static_cast<int64_t>(x) * total) >> 17;
    return (p == -1) ? 0 : sat_i32(p);
}

/* apply_gain() for a total of 0..1 (Q17) over a run, in doubles so that it vectorizes. With
   v = x * total / 2^17 (exact in a double: at most 2^48 in magnitude, the scaling by 2^-17 is
   exact), v has at most 17 fraction bits, so v - 0.5 + 2^-18 (also exact) lies strictly within
   half a unit of floor(v), which is the arithmetic shift's result. Adding 1.5 * 2^52 rounds it
   to that integer, which then sits in the low 32 bits of the double's encoding. The result lies
   in -2^31..2^31-1, so nothing saturates. */
void apply_reducing_gain(int32_t *samples, int count, int32_t total) {
    const double scale = static_cast<double>(total) * (1.0 / 131072.0);
    constexpr double kToFloor = -0.5 + 1.0 / 262144.0;
    constexpr double kRound = 6755399441055744.0; /* 1.5 * 2^52 */
    for (int i = 0; i < count; ++i) {
        const double v = static_cast<double>(samples[i]) * scale;
        const double rounded = (v + kToFloor) + kRound;
        uint64_t bits;
        std::memcpy(&bits, &rounded, sizeof bits);
        const int32_t p = static_cast<int32_t>(static_cast<uint32_t>(bits));
        samples[i] = (p == -1) ? 0 : p;
    }
}

inline int32_t total_gain(int32_t gate, int32_t gain) {
    return (gate == kQ17One) ? gain : sorn::mul_shift_sat(gate, gain, 17);
}

/* One per-sample step of the smoothed gain toward the block target b. */
inline int32_t smooth_gain(int32_t gain, int32_t b) {
    const int64_t g = gain;
    const int64_t d = static_cast<int64_t>(b) - g;
    if (d > -8 && d < 8) return b;
    if (d >= 8 && d <= 64) return static_cast<int32_t>(g + (d >> 3));
    if (d > 64) return static_cast<int32_t>(std::min(g + std::max(g >> 12, d >> release_shift(d)),
                                                     static_cast<int64_t>(b)));
    if (d >= -32) return static_cast<int32_t>(g - ((-d) >> 3));
    const int64_t step = std::max((g + (g >> 1)) >> 11, (-d) >> attack_shift(-d));
    return static_cast<int32_t>(std::max(g - step, static_cast<int64_t>(b)));
}

/* One per-sample step of the gate gain toward its target: fast up, slow down. */
inline int32_t smooth_gate(int32_t gate, int32_t target) {
    const int64_t e = static_cast<int64_t>(target) - gate;
    if (e >= 8) return static_cast<int32_t>(gate + (e >> 3));
    if (e >= 1) return target;
    return static_cast<int32_t>(gate + (e >> 5));
}

/* Block gain in Q13 for a peak envelope already updated; may clamp the envelope. */
int32_t block_gain(dynamic_range_control_t *drc) {
    const int32_t threshold = std::max(drc->threshold, 0);
    if (drc->peak_env > threshold) {
        const int32_t q = static_cast<int32_t>(static_cast<int64_t>(threshold) * drc->volume /
                                               drc->peak_env);
        drc->peak_env = threshold;
        return static_cast<int32_t>((static_cast<int64_t>(q) * kReductionMargin) >> 13);
    }
    const int64_t h = drc->gain >> 4;
    const int64_t volume = drc->volume;
    if (volume > h) return static_cast<int32_t>(h + ((volume - h) >> 1));
    return drc->volume;
}

/* Gate target in Q13 from the mean envelope. */
int32_t gate_target(const dynamic_range_control_t *drc) {
    const int32_t threshold = drc->denoise_threshold;
    if (threshold <= 0 || drc->avg_env >= threshold) return kQ13One;
    const int64_t ratio = static_cast<int64_t>(drc->avg_env) * kQ13One / threshold;
    return static_cast<int32_t>(std::max<int64_t>(ratio, kGateFloor));
}

void drc_reset_fields(dynamic_range_control_t *drc) {
    drc->avg_env = kAvgEnvStart;
    drc->peak_env = 0;
    drc->gate_gain = kGateGainStart;
    if (drc->gain_history != nullptr) {
        std::memset(drc->gain_history, 0,
                    sizeof(int32_t) * (static_cast<size_t>(drc->lookahead_blocks) + 1));
    }
    audio_delay_reset(drc->delay);
}

void drc_free(dynamic_range_control_t *drc) {
    if (drc == nullptr) return;
    dynamic_range_control_end(drc);
    std::free(drc);
}

/* Makes and sets up one of the compressor's DRCs; null when anything in it failed. */
dynamic_range_control_t *compressor_make_drc(int volume, int lookahead_blocks) {
    auto *drc = static_cast<dynamic_range_control_t *>(
        std::calloc(1, sizeof(dynamic_range_control_t)));
    if (drc == nullptr) return nullptr;
    dynamic_range_control_init(drc, lookahead_blocks, kMaxFramesPerBlock);
    if (!drc_complete(drc)) {
        drc_free(drc);
        return nullptr;
    }
    drc->threshold = kCompressorThreshold;
    dynamic_range_control_set_denoise_threshold(drc, kCompressorDenoiseRequest);
    dynamic_range_control_set_volume(drc, volume);
    drc->attack_order = 0;
    drc->release_order = kCompressorReleaseOrder;
    return drc;
}

}  // namespace

/* ---- Compressor ------------------------------------------------------------------------- */

void compressor_init(compressor_t *comp, int volume, int lookahead_blocks) {
    if (comp == nullptr) return;
    comp->status = 0;
    comp->volume = volume;
    comp->drc_left = compressor_make_drc(volume, lookahead_blocks);
    comp->drc_right = compressor_make_drc(volume, lookahead_blocks);
    if (comp->drc_left == nullptr || comp->drc_right == nullptr) {
        drc_free(comp->drc_left);
        drc_free(comp->drc_right);
        comp->drc_left = nullptr;
        comp->drc_right = nullptr;
    }
}

void compressor_set_sample_rate(compressor_t *comp, SampleRateType rate) {
    if (comp == nullptr) return;
    const int32_t frames = frames_for_rate(rate);
    dynamic_range_control_reinit(comp->drc_left, frames);
    dynamic_range_control_reinit(comp->drc_right, frames);
}

void compressor_setstatus(compressor_t *comp, int status) {
    if (comp != nullptr) comp->status = status;
}

void compressor_getstatus(compressor_t *comp, int *out) {
    if (comp != nullptr && out != nullptr) *out = comp->status;
}

void compressor_set_volume(compressor_t *comp, int volume) {
    if (comp == nullptr) return;
    comp->volume = volume;
    dynamic_range_control_set_volume(comp->drc_left, volume);
    dynamic_range_control_set_volume(comp->drc_right, volume);
}

void compressor_get_volume(compressor_t *comp, int *out) {
    if (comp != nullptr && out != nullptr) *out = comp->volume;
}

void compressor_reset(compressor_t *comp) {
    if (comp == nullptr) return;
    dynamic_range_control_reset(comp->drc_left);
    dynamic_range_control_reset(comp->drc_right);
}

void compressor_end(compressor_t *comp) {
    if (comp == nullptr) return;
    drc_free(comp->drc_left);
    comp->drc_left = nullptr;
    drc_free(comp->drc_right);
    comp->drc_right = nullptr;
}

void compressor_process(compressor_t *comp, int *in1, int *in2, int *out1, int *out2,
                        int frames) {
    if (comp == nullptr || comp->status == 0) return;
    if (!drc_complete(comp->drc_left) || !drc_complete(comp->drc_right)) return;
    dynamic_range_control_process(comp->drc_left, in1, out1, frames);
    dynamic_range_control_process(comp->drc_right, in2, out2, frames);
}

/* ---- Dynamic range control ---------------------------------------------------------------- */

void dynamic_range_control_init(dynamic_range_control_t *drc, int lookahead_blocks,
                                int max_frames) {
    if (drc == nullptr) return;
    const int32_t blocks = std::max(lookahead_blocks, 0);
    drc->threshold = kDefaultThreshold;
    drc->attack_order = 0;
    drc->release_order = kDefaultReleaseOrder;
    drc->volume = kQ13One;
    drc->gain = kQ17One;
    drc->peak_env = 0;
    drc->gate_gain = kGateGainStart;
    drc->avg_env = kAvgEnvStart;
    drc->denoise_threshold = kDefaultDenoiseThreshold;
    drc->lookahead_blocks = blocks;
    drc->gain_history = nullptr;
    drc->delay = nullptr;

    const int64_t capacity = static_cast<int64_t>(blocks) * std::max(max_frames, 0);
    if (capacity > INT32_MAX) return; /* treated like a failed allocation */
    auto *history = static_cast<int32_t *>(std::calloc(static_cast<size_t>(blocks) + 1,
                                                       sizeof(int32_t)));
    auto *delay = static_cast<audio_delay *>(std::calloc(1, sizeof(audio_delay)));
    if (history != nullptr && delay != nullptr) {
        audio_delay_init(delay, static_cast<int32_t>(capacity));
        if (capacity == 0 || delay->buffer != nullptr) {
            drc->gain_history = history;
            drc->delay = delay;
            return;
        }
    }
    std::free(history);
    std::free(delay);
}

void dynamic_range_control_reinit(dynamic_range_control_t *drc, int frames) {
    if (drc == nullptr) return;
    const int64_t length = static_cast<int64_t>(drc->lookahead_blocks) * frames;
    audio_delay_reinit(drc->delay, sat_i32(length));
}

void dynamic_range_control_reset(dynamic_range_control_t *drc) {
    if (drc == nullptr) return;
    drc_reset_fields(drc);
}

void dynamic_range_control_end(dynamic_range_control_t *drc) {
    if (drc == nullptr) return;
    drc_reset_fields(drc);
    std::free(drc->gain_history);
    drc->gain_history = nullptr;
    audio_delay_end(drc->delay);
    std::free(drc->delay);
    drc->delay = nullptr;
}

int find_current_max_drc(int *samples, int *average, int frames) {
    const BlockLevel level = (samples != nullptr) ? measure_block(samples, frames)
                                                  : BlockLevel{0, 0};
    if (average != nullptr) *average = level.mean;
    return level.peak;
}

void dynamic_range_control_process(dynamic_range_control_t *drc, int *in, int *out, int frames) {
    if (!drc_complete(drc)) return;
    if (in == nullptr || out == nullptr) frames = 0;
    const BlockLevel level = measure_block(in, frames);

    /* Mean envelope: rises by 1/16, falls by 1/32 (at least 1) of the distance per block. */
    const int64_t avg_step = static_cast<int64_t>(level.mean) - drc->avg_env;
    drc->avg_env = static_cast<int32_t>(drc->avg_env + (avg_step > 0 ? avg_step >> 4
                                                                     : avg_step >> 5));
    const int32_t gate_q13 = gate_target(drc);

    /* Peak envelope of the volume-scaled level. */
    const int32_t scaled = sorn::mul_shift_sat(level.peak, drc->volume, 13);
    const int64_t peak_step = static_cast<int64_t>(scaled) - drc->peak_env;
    const int shift = order_shift(peak_step > 0 ? drc->attack_order : drc->release_order);
    drc->peak_env = static_cast<int32_t>(drc->peak_env + (peak_step >> shift));

    const int32_t target = sat_i32(static_cast<int64_t>(block_gain(drc)) * 16);

    /* Look-ahead: the smallest target over this block and the L blocks before it. */
    const int32_t lookahead = drc->lookahead_blocks;
    int32_t *history = drc->gain_history;
    history[lookahead] = target;
    const int32_t b = *std::min_element(history, history + lookahead + 1);
    std::memmove(history, history + 1, sizeof(int32_t) * static_cast<size_t>(lookahead));

    const int32_t gate_q17 = gate_q13 * 16;
    int32_t gain = drc->gain;
    int32_t gate = drc->gate_gain;
    DelayCursor delay(drc->delay);
    delay.run(in, out, frames); /* out now holds the delayed samples */
    delay.store(drc->delay);
    int i = 0;
    for (; i < frames && (gain != b || gate != gate_q17); ++i) {
        gain = smooth_gain(gain, b);
        gate = smooth_gate(gate, gate_q17);
        out[i] = apply_gain(out[i], total_gain(gate, gain));
    }
    /* Both gains sit on their targets, where a smoothing step leaves them: one total for the
       rest of the block. At unity the product only maps -1 to 0. */
    const int32_t total = total_gain(gate, gain);
    if (total == kQ17One) {
        for (; i < frames; ++i) out[i] = (out[i] == -1) ? 0 : out[i];
    } else if (total >= 0 && total <= kQ17One) {
        apply_reducing_gain(out + i, frames - i, total);
    } else {
        for (; i < frames; ++i) out[i] = apply_gain(out[i], total);
    }
    drc->gain = gain;
    drc->gate_gain = gate;
}

void dynamic_range_control_set_threshold(dynamic_range_control_t *drc, int value) {
    if (drc != nullptr) drc->threshold = value;
}

void dynamic_range_control_get_threshold(dynamic_range_control_t *drc, int *out) {
    if (drc != nullptr && out != nullptr) *out = drc->threshold;
}

void dynamic_range_control_set_denoise_threshold(dynamic_range_control_t *drc, int value) {
    if (drc == nullptr) return;
    drc->denoise_threshold = std::max(value, kDenoiseFloor);
    drc->avg_env = 0;
}

void dynamic_range_control_get_denoise_threshold(dynamic_range_control_t *drc, int *out) {
    if (drc != nullptr && out != nullptr) *out = drc->denoise_threshold;
}

void dynamic_range_control_set_volume(dynamic_range_control_t *drc, int value) {
    if (drc == nullptr) return;
    drc->volume = value;
    drc->gain = sat_i32(static_cast<int64_t>(value) * 8);
}

void dynamic_range_control_get_volume(dynamic_range_control_t *drc, int *out) {
    if (drc != nullptr && out != nullptr) *out = drc->volume;
}

void dynamic_range_control_set_attact_order(dynamic_range_control_t *drc, int value) {
    if (drc != nullptr) drc->attack_order = value;
}

void dynamic_range_control_get_attact_order(dynamic_range_control_t *drc, int *out) {
    if (drc != nullptr && out != nullptr) *out = drc->attack_order;
}

void dynamic_range_control_set_release_order(dynamic_range_control_t *drc, int value) {
    if (drc != nullptr) drc->release_order = value;
}

void dynamic_range_control_get_release_order(dynamic_range_control_t *drc, int *out) {
    if (drc != nullptr && out != nullptr) *out = drc->release_order;
}

/* ---- Delay line --------------------------------------------------------------------------- */

void audio_delay_init(audio_delay *delay, int capacity) {
    if (delay == nullptr) return;
    delay->buffer = nullptr;
    delay->capacity = 0;
    delay->length = 0;
    delay->position = 0;
    if (capacity <= 0) return;
    delay->buffer = static_cast<int32_t *>(std::calloc(static_cast<size_t>(capacity),
                                                       sizeof(int32_t)));
    if (delay->buffer == nullptr) return; /* stays a pass-through of capacity 0 */
    delay->capacity = capacity;
    delay->length = capacity;
}

void audio_delay_reinit(audio_delay *delay, int length) {
    if (delay == nullptr) return;
    delay->length = std::max(0, std::min(length, delay->capacity));
    if (delay->length > 0) {
        std::memset(delay->buffer, 0, sizeof(int32_t) * static_cast<size_t>(delay->length));
    }
}

void audio_delay_reset(audio_delay *delay) {
    if (delay == nullptr) return;
    delay->position = 0;
    if (delay->buffer != nullptr && delay->capacity > 0) {
        std::memset(delay->buffer, 0, sizeof(int32_t) * static_cast<size_t>(delay->capacity));
    }
}

void audio_delay_end(audio_delay *delay) {
    if (delay == nullptr) return;
    std::free(delay->buffer);
    delay->buffer = nullptr;
    delay->capacity = 0;
    delay->length = 0;
    delay->position = 0;
}

void audio_delay_set_delay(audio_delay *delay, int length) {
    if (delay != nullptr) delay->length = std::max(0, std::min(length, delay->capacity));
}

void audio_delay_get_delay(audio_delay *delay, int *out) {
    if (delay != nullptr && out != nullptr) *out = delay->length;
}

int audio_delay_process(audio_delay *delay, int sample) {
    if (delay == nullptr) return sample;
    DelayCursor cursor(delay);
    const int32_t out = cursor.step(sample);
    cursor.store(delay);
    return out;
}
