#include "dsp/stereo_surround.h"

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "platform/sat_math.h"
#include "platform/sorn_log.h"

namespace {

constexpr double kFourPi = 12.566370614359172;
constexpr int kChunk = 256;  // frames per pass of the sample loop (a stack buffer of floats)

stereo_surround_t *as_surround(void *handle) { return static_cast<stereo_surround_t *>(handle); }

}  // namespace

void *stereo_surround_init(int sample_rate, int channels) {
    if (channels < 2) {
        SORN_LOGE(SORN_LOG_TAG_CORE, "%s: chnnum %d unsupported, need to be stereo", __func__,
                  channels);
        return nullptr;
    }
    auto *ss = static_cast<stereo_surround_t *>(calloc(1, sizeof(stereo_surround_t)));
    if (ss == nullptr) return nullptr;
    ss->sample_rate = sample_rate;
    return ss;
}

void stereo_surround_deinit(void *handle) { free(handle); }

void stereo_surround_set_status(void *handle, int status) {
    stereo_surround_t *ss = as_surround(handle);
    if (ss == nullptr) return;
    ss->status = status;
}

void stereo_surround_set_parameters(void *handle, int frequency, int depth) {
    stereo_surround_t *ss = as_surround(handle);
    if (ss == nullptr || frequency < 1 || depth < 1) return;

    // Past a quarter of the rate the low-pass would turn unstable; keep what we have.
    bool usable = static_cast<int64_t>(frequency) * 4 < static_cast<int64_t>(ss->sample_rate);
    float b0 = 0.0f;
    float a1 = 0.0f;
    if (usable) {
        const float w = static_cast<float>(static_cast<double>(static_cast<float>(frequency)) *
                                           kFourPi /
                                           static_cast<double>(static_cast<float>(ss->sample_rate)));
        const float k = static_cast<float>(tan(static_cast<double>(w) * 0.5));
        const double kd = k;
        b0 = static_cast<float>(kd / (1.0 + kd));
        a1 = static_cast<float>((1.0 - kd) / (1.0 + kd));
        // tan() right at pi/2 can come out huge or negative once w is rounded to float.
        usable = std::isfinite(k) && k > 0.0f && a1 > -1.0f && a1 < 1.0f;
    }
    if (!usable) {
        SORN_LOGW(SORN_LOG_TAG_CORE, "%s: frequency %d unsupported at sample rate %d", __func__,
                  frequency, ss->sample_rate);
        return;
    }

    ss->b0 = b0;
    ss->a1 = a1;
    ss->gain = static_cast<float>(static_cast<double>(depth) * 3.0 / 200.0);
    ss->prev_side = 0.0f;
    ss->prev_out = 0.0f;
    ss->configured = 1;
}

void stereo_surround_reset(void *handle) {
    stereo_surround_t *ss = as_surround(handle);
    if (ss == nullptr) return;
    ss->prev_side = 0.0f;
    ss->prev_out = 0.0f;
}

void stereo_surround_process(void *handle, int *left, int *right, int frames) {
    stereo_surround_t *ss = as_surround(handle);
    if (ss == nullptr || left == nullptr || right == nullptr || frames < 1) return;
    if (ss->status == 0 || ss->configured == 0) return;

    const float b0 = ss->b0;
    const float a1 = ss->a1;
    const float gain = ss->gain;
    float prev_side = ss->prev_side;
    float prev_out = ss->prev_out;
    // In chunks of three passes: the side signal (vectorized), the recursive low-pass (the one
    // serial part), and the correction of both channels (vectorized). Each sample sees the same
    // operations in the same order as in a single pass.
    float side[kChunk];
    for (int start = 0; start < frames; start += kChunk) {
        const int n = frames - start < kChunk ? frames - start : kChunk;
        int *l = left + start;
        int *r = right + start;
        for (int i = 0; i < n; ++i) {
            // The side difference wraps like the 32-bit hardware subtraction it stands for.
            const int32_t diff = static_cast<int32_t>(static_cast<uint32_t>(l[i]) -
                                                      static_cast<uint32_t>(r[i]));
            side[i] = static_cast<float>(diff);
        }
        for (int i = 0; i < n; ++i) {
            const float s = side[i];
            const float y = (s * b0 + prev_side * b0) + prev_out * a1;
            prev_side = s;
            prev_out = y;
            side[i] = y * gain;
        }
        for (int i = 0; i < n; ++i) {
            const float v = side[i];
            l[i] = sorn::sat_f2i32(static_cast<float>(l[i]) + v);
            r[i] = sorn::sat_f2i32(static_cast<float>(r[i]) - v);
        }
    }
    // A tail decaying through silence would otherwise settle on a subnormal value and slow
    // every later sample. Flushing it changes no output: a subnormal correction is lost once
    // it is added to an integer sample. Done once per block to keep the sample loop short.
    if (fabsf(prev_out) < FLT_MIN) prev_out = 0.0f;
    ss->prev_side = prev_side;
    ss->prev_out = prev_out;
}
