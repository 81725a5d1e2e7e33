#include "dsp/rms_limiter.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/sat_math.h"
#include "platform/sorn_log.h"

namespace {

constexpr float kLevelFloor = 1e-6f; /* -120 dB: what silence is detected as */
constexpr float kLevelCeiling = 20.0f;
constexpr float kSamplesPerMs = 48.0f;
constexpr float kSnapDistance = 0.002f; /* targets this close are taken at once */
constexpr double kChainToFloat = 1.192092895507813e-7;
constexpr float kFloatToChain = 8388607.0f;

enum : int32_t { kRampNone = 0, kRampFalling = 1, kRampRising = 2 };

/* The settings the chain's limiter runs with. */
constexpr sa6_dynamic_processor_param_t kLimiterParam = {
    1,      /* enable_flag */
    3,      /* type: RMS compressor */
    -13.0f, /* threshold */
    10.0f,  /* ratio */
    2000.0f, 2000.0f,      /* det_attack, det_release */
    1000.0f, 100.0f,       /* gain_attack, gain_hold_attack */
    1000.0f, 100.0f,       /* gain_release, gain_hold_release */
    -9.0f, 0.0f, 0.0f,     /* gain_min, gain_max, gain_makeup */
    0.2f,                  /* knee */
};

struct Levels {
    float peak;
    float rms;
};

/* One smoothing coefficient per block; t milliseconds close 90% of a step in t / 5 blocks. */
float detector_coef(float time_ms) {
    if (!(time_ms > 0.0f)) return 1.0f;
    return 1.0f - expf(-1.0f / (time_ms * 0.086859f));
}

/* NaN counts as silence so it cannot stick in the detector. */
float clamp_level(float v) {
    if (!(v >= kLevelFloor)) return kLevelFloor;
    if (v > kLevelCeiling) return kLevelCeiling;
    return v;
}

Levels finish_levels(float peak, float sum, int frames) {
    if (frames < 1) return {kLevelFloor, kLevelFloor};
    const float rms = sqrtf(sum / static_cast<float>(static_cast<unsigned>(frames)));
    return {clamp_level(peak), clamp_level(rms)};
}

Levels detect_mono(const float *x, int frames) {
    float peak = 0.0f;
    float sum = 0.0f;
    for (int i = 0; i < frames; ++i) {
        const float a = fabsf(x[i]);
        if (a > peak) peak = a;
        sum += x[i] * x[i];
    }
    return finish_levels(peak, sum, frames);
}

Levels detect_mid(const float *in1, const float *in2, int frames) {
    float peak = 0.0f;
    float sum = 0.0f;
    for (int i = 0; i < frames; ++i) {
        const float m = (in1[i] + in2[i]) * 0.5f;
        const float a = fabsf(m);
        if (a > peak) peak = a;
        sum += m * m;
    }
    return finish_levels(peak, sum, frames);
}

bool uses_rms(int32_t type) { return type == 1 || type == 3; }

/* Gain in dB for a detected level, on the curve of the processor's kind. */
float curve_gain_db(const sa6_dynamic_processor_t &st, float level) {
    const float L = 20.0f * log10f(level);
    const float T = st.threshold;
    const float R = st.ratio;
    const float W = st.knee_width;
    const float u = L - T;
    const float u2 = 2.0f * u;
    switch (st.type) {
        case 3:
        case 4:  // compressor
            if (u2 > W) return T + u / R - L;
            if (u2 > -W) {
                const float d = u + W / 2.0f;
                return (1.0f / R - 1.0f) * (d * d) / (2.0f * W);
            }
            return 0.0f;
        case 1:
        case 2:  // expander
            if (u2 <= -W) return T + u / R - L;
            if (u2 <= W) {
                const float d = u - W / 2.0f;
                return (1.0f - 1.0f / R) * (d * d) / (2.0f * W);
            }
            return 0.0f;
        default:  // limiter
            if (u2 > W) return T - L;
            if (u2 > -W) {
                const float d = u + W / 2.0f;
                return -(d * d) / (2.0f * W);
            }
            return 0.0f;
    }
}

int32_t hold_samples(float hold_ms) {
    // 48 samples per millisecond, rounded down to a whole group of four.
    return sorn::sat_i32(4 * static_cast<int64_t>(sorn::sat_f2i32(hold_ms * 12.0f)));
}

/* The per-sample step that ramps the gain by `diff` over `ramp_ms` (a ramp shorter than one
   sample jumps: *instant), arming the hold when the ramp changes direction. */
float start_ramp(sa6_dynamic_processor_t *st, float diff, float ramp_ms, float hold_ms,
                 int32_t direction, bool *instant) {
    float span = ramp_ms * kSamplesPerMs;
    *instant = !(span >= 1.0f);
    if (*instant) span = 1.0f;
    if (st->ramp_state != direction) {
        st->ramp_state = direction;
        st->hold_count = hold_samples(hold_ms);
    }
    return diff / span;
}

int32_t hold_after(int32_t hold, int frames) {
    const int64_t left = static_cast<int64_t>(hold) - frames;
    return left > 0 ? static_cast<int32_t>(left) : 0;
}

/*
 * Everything after detection: volume, detector smoothing, the gain computer and the gain
 * smoother. `emit(i, g)` writes sample i with gain g; it is called once for each of the
 * `frames` samples, in order.
 */
template <typename Emit>
void run_gain(sa6_dynamic_processor_t *st, Levels lv, int frames, Emit emit) {
    if (st->volume != 0.0f) {
        lv.peak /= st->volume;
        lv.rms /= st->volume;
    }
    const float x = uses_rms(st->type) ? lv.rms : lv.peak;
    const float k = x > st->det_level ? st->det_attack_coef : st->det_release_coef;
    st->det_level = st->det_level + (x - st->det_level) * k;

    float G = curve_gain_db(*st, st->det_level);
    if (G > st->gain_max) G = st->gain_max;
    if (G < st->gain_min) G = st->gain_min;  // after the upper limit: gain_min wins
    G = G + st->gain_makeup;

    const float target = powf(10.0f, G / 20.0f);
    float g = st->gain_current;
    const float diff = target - g;
    float step = 0.0f;
    bool instant = false;
    if (diff < 0.0f) {
        step = start_ramp(st, diff, st->gain_attack, st->gain_hold_attack, kRampFalling, &instant);
    } else if (diff > 0.0f) {
        step = start_ramp(st, diff, st->gain_release, st->gain_hold_release, kRampRising, &instant);
    } else {
        st->ramp_state = kRampNone;  // on target, or a NaN target: the gain stays
    }

    auto ramp = [&](float gain) {
        if (!instant && ((step < 0.0f && target < gain) || (step > 0.0f && target > gain))) {
            return gain + step;
        }
        return target;
    };

    const int32_t hold = st->hold_count;
    if (fabsf(diff) < kSnapDistance) {
        g = target;
        for (int i = 0; i < frames; ++i) emit(i, g);
        st->hold_count = hold_after(hold, frames);
    } else if (step == 0.0f || hold >= frames) {
        for (int i = 0; i < frames; ++i) emit(i, g);
        st->hold_count = hold_after(hold, frames);
    } else if (hold >= 1) {
        int i = 0;
        for (; i < hold; ++i) emit(i, g);
        for (; i < frames; ++i) {
            g = ramp(g);
            emit(i, g);
        }
        st->hold_count = 0;
    } else {
        for (int i = 0; i < frames; ++i) {
            g = ramp(g);
            emit(i, g);
        }
    }
    st->gain_current = g;
}

/* Copies and derives the settings; refuses a record whose ratio cannot divide. */
bool configure(sa6_dynamic_processor_t *st, const sa6_dynamic_processor_param_t &p,
               const char *caller) {
    if (!(p.ratio > 0.0f)) {
        SORN_LOGW(SORN_LOG_TAG_CORE, "%s: ratio %f unsupported, parameters unchanged", caller,
                  static_cast<double>(p.ratio));
        return false;
    }
    st->enable_flag = p.enable_flag;
    st->type = p.type;
    st->threshold = p.threshold;
    st->ratio = p.ratio;
    st->det_attack = p.det_attack;
    st->det_release = p.det_release;
    st->gain_attack = p.gain_attack;
    st->gain_hold_attack = p.gain_hold_attack;
    st->gain_release = p.gain_release;
    st->gain_hold_release = p.gain_hold_release;
    st->gain_min = p.gain_min;
    st->gain_max = p.gain_max;
    st->gain_makeup = p.gain_makeup;
    st->knee = p.knee;

    st->det_attack_coef = detector_coef(st->det_attack);
    st->det_release_coef = detector_coef(st->det_release);
    const double magnitude = fabs(static_cast<double>(st->threshold));
    const float width = static_cast<float>((magnitude + magnitude) * static_cast<double>(st->knee));
    st->knee_width = width > 0.0f ? width : 0.0f;
    return true;
}

float from_q(int32_t v, double scale) { return static_cast<float>(static_cast<double>(v) * scale); }

void to_float_plane(int *plane, int frames) {
    for (int i = 0; i < frames; ++i) {
        const float f = static_cast<float>(static_cast<double>(plane[i]) * kChainToFloat);
        memcpy(&plane[i], &f, sizeof f);
    }
}

void to_chain_plane(int *plane, int frames) {
    for (int i = 0; i < frames; ++i) {
        float f;
        memcpy(&f, &plane[i], sizeof f);
        plane[i] = sorn::sat_f2i32(f * kFloatToChain);
    }
}

/* to_float_plane() of two chain planes and detect_mono() of the results, in one pass: each
   channel's peak and sum take the same samples in the same order, the two independent sums run
   side by side instead of one after the other, and the conversions fill the time the sums wait
   on each other. */
void to_float_and_detect(int *left, int *right, int frames, Levels *out_left,
                         Levels *out_right) {
    float peak_l = 0.0f, sum_l = 0.0f, peak_r = 0.0f, sum_r = 0.0f;
    for (int i = 0; i < frames; ++i) {
        const float l = static_cast<float>(static_cast<double>(left[i]) * kChainToFloat);
        const float r = static_cast<float>(static_cast<double>(right[i]) * kChainToFloat);
        memcpy(&left[i], &l, sizeof l);
        memcpy(&right[i], &r, sizeof r);
        const float al = fabsf(l);
        const float ar = fabsf(r);
        if (al > peak_l) peak_l = al;
        if (ar > peak_r) peak_r = ar;
        sum_l += l * l;
        sum_r += r * r;
    }
    *out_left = finish_levels(peak_l, sum_l, frames);
    *out_right = finish_levels(peak_r, sum_r, frames);
}

/* sa6_dynamic_processor_process_f in place on a float plane (int storage) with the conversion
   back to the chain scale folded into the gain loop: the float product is the one that would be
   stored and converted afterwards. */
void limit_to_chain(sa6_dynamic_processor_t *st, Levels lv, int *plane, int frames) {
    run_gain(st, lv, frames, [plane](int i, float g) {
        float f;
        memcpy(&f, &plane[i], sizeof f);
        plane[i] = sorn::sat_f2i32((f * g) * kFloatToChain);
    });
}

}  // namespace

/* ---- dynamic processor ------------------------------------------------------------------ */

void sa6_dynamic_processor_init_f(sa6_dynamic_processor_t *state) {
    if (state == nullptr) return;
    state->enable_flag = 1;
    state->type = 1;
    state->volume = 1.0f;
    state->threshold = -15.0f;
    state->ratio = 2.0f;
    state->det_attack = 100.0f;
    state->det_release = 200.0f;
    state->det_attack_coef = detector_coef(100.0f);
    state->det_release_coef = detector_coef(200.0f);
    state->gain_attack = 100.0f;
    state->gain_hold_attack = 1.0f;
    state->gain_release = 100.0f;
    state->gain_hold_release = 1.0f;
    state->gain_min = -6.0f;
    state->gain_max = 6.0f;
    state->gain_makeup = 0.0f;
    state->knee = 0.2f;
    state->knee_width = 6.0f;
    sa6_dynamic_processor_reset_f(state);
}

void sa6_dynamic_processor_set_param_f(sa6_dynamic_processor_t *state,
                                       sa6_dynamic_processor_param_t *param) {
    if (state == nullptr || param == nullptr) return;
    if (!configure(state, *param, __func__)) return;
    printf("[SA6_SBS]sa6_dynamic_processor_set_param_f:enable_flag is %d\n", state->enable_flag);
}

void sa6_dynamic_processor_get_param_f(sa6_dynamic_processor_t *state,
                                       sa6_dynamic_processor_param_t *param) {
    if (state == nullptr || param == nullptr) return;
    param->enable_flag = state->enable_flag;
    param->type = state->type;
    param->threshold = state->threshold;
    param->ratio = state->ratio;
    param->det_attack = state->det_attack;
    param->det_release = state->det_release;
    param->gain_attack = state->gain_attack;
    param->gain_hold_attack = state->gain_hold_attack;
    param->gain_release = state->gain_release;
    param->gain_hold_release = state->gain_hold_release;
    param->gain_min = state->gain_min;
    param->gain_max = state->gain_max;
    param->gain_makeup = state->gain_makeup;
    param->knee = state->knee;
}

void sa6_dynamic_processor_reset_f(sa6_dynamic_processor_t *state) {
    if (state == nullptr) return;
    state->det_level = 0.001f;
    state->gain_current = 1.0f;
    state->hold_count = 0;
    state->ramp_state = kRampNone;
}

void sa6_dynamic_processor_end_f(sa6_dynamic_processor_t *state) {
    sa6_dynamic_processor_reset_f(state);
}

void sa6_dynamic_processor_setstatus_f(sa6_dynamic_processor_t *state, int status) {
    if (state == nullptr) return;
    state->enable_flag = status;
    printf("[SA6_SBS]sa6_dynamic_processor_setstatus_f:enable_flag is %d\n", state->enable_flag);
}

void sa6_dynamic_processor_getstatus_f(sa6_dynamic_processor_t *state, int *status) {
    if (state == nullptr || status == nullptr) return;
    *status = state->enable_flag;
}

void sa6_dynamic_processor_set_volume_f(sa6_dynamic_processor_t *state, float volume) {
    if (state == nullptr) return;
    state->volume = volume;
}

void sa6_dynamic_processor_get_volume_f(sa6_dynamic_processor_t *state, float *volume) {
    if (state == nullptr || volume == nullptr) return;
    *volume = state->volume;
}

void sa6_dynamic_processor_find_current_max_f(float *samples, float *peak, float *rms,
                                              int frames) {
    const Levels lv = samples != nullptr ? detect_mono(samples, frames)
                                         : Levels{kLevelFloor, kLevelFloor};
    if (peak != nullptr) *peak = lv.peak;
    if (rms != nullptr) *rms = lv.rms;
}

void sa6_dynamic_processor_find_current_max_stereo_f(float *in1, float *in2, float *peak,
                                                     float *rms, int frames) {
    const Levels lv = in1 != nullptr && in2 != nullptr ? detect_mid(in1, in2, frames)
                                                       : Levels{kLevelFloor, kLevelFloor};
    if (peak != nullptr) *peak = lv.peak;
    if (rms != nullptr) *rms = lv.rms;
}

void sa6_dynamic_processor_process_f(sa6_dynamic_processor_t *state, float *in, float *out,
                                     int frames) {
    if (state == nullptr) return;
    const int n = frames > 0 ? frames : 0;
    if (n > 0 && (in == nullptr || out == nullptr)) return;
    run_gain(state, detect_mono(in, n), n, [in, out](int i, float g) { out[i] = in[i] * g; });
}

void sa6_dynamic_processor_process_stereo_f(sa6_dynamic_processor_t *state, float *in1,
                                            float *in2, float *out1, float *out2, int frames) {
    if (state == nullptr) return;
    const int n = frames > 0 ? frames : 0;
    if (n > 0 && (in1 == nullptr || in2 == nullptr || out1 == nullptr || out2 == nullptr)) {
        return;
    }
    run_gain(state, detect_mid(in1, in2, n), n, [=](int i, float g) {
        out1[i] = in1[i] * g;
        out2[i] = in2[i] * g;
    });
}

void sa6_dynamic_processor_set_param_acdb_f(sa6_dynamic_processor_t *state, int32_t *params) {
    if (state == nullptr || params == nullptr) return;
    constexpr double kQ15 = 1.0 / 32768.0;
    constexpr double kQ13 = 1.0 / 8192.0;
    sa6_dynamic_processor_param_t p;
    p.enable_flag = params[0];
    p.type = params[1];
    p.threshold = from_q(params[2], kQ15);
    p.ratio = from_q(params[3], kQ15);
    p.det_attack = from_q(params[4], kQ15);
    p.det_release = from_q(params[5], kQ15);
    p.gain_attack = from_q(params[6], kQ15);
    p.gain_hold_attack = from_q(params[7], kQ15);
    p.gain_release = from_q(params[8], kQ15);
    p.gain_hold_release = from_q(params[9], kQ15);
    p.gain_min = from_q(params[10], kQ13);
    p.gain_max = from_q(params[11], kQ13);
    p.gain_makeup = from_q(params[12], kQ13);
    p.knee = from_q(params[13], kQ15);
    if (!configure(state, p, __func__)) return;

    printf("[SA6_SBS]sa6_dynamic_processor_set_param_acdb_f:enable_flag is %d\n",
           state->enable_flag);
    printf("[SA6_SBS]type:%d threshold:%f ratio:%f det_attack:%f det_release:%f gain_attack:%f "
           "gain_hold_attack:%f\n",
           state->type, static_cast<double>(state->threshold), static_cast<double>(state->ratio),
           static_cast<double>(state->det_attack), static_cast<double>(state->det_release),
           static_cast<double>(state->gain_attack), static_cast<double>(state->gain_hold_attack));
    printf("[SA6_SBS]gain_release:%f gain_hold_release:%f knee:%f gain_min:%f gain_max:%f "
           "gain_makeup:%f\n",
           static_cast<double>(state->gain_release), static_cast<double>(state->gain_hold_release),
           static_cast<double>(state->knee), static_cast<double>(state->gain_min),
           static_cast<double>(state->gain_max), static_cast<double>(state->gain_makeup));
}

void sa6_dynamic_processor_get_param_acdb_f(sa6_dynamic_processor_t *state, int32_t *params) {
    if (state == nullptr || params == nullptr) return;
    auto q15 = [](float v) { return sorn::sat_f2i32(v * 32768.0f); };
    auto q13 = [](float v) { return sorn::sat_f2i32(v * 8192.0f); };
    params[0] = state->enable_flag;
    params[1] = state->type;
    params[2] = q15(state->threshold);
    params[3] = q15(state->ratio);
    params[4] = q15(state->det_attack);
    params[5] = q15(state->det_release);
    params[6] = q15(state->gain_attack);
    params[7] = q15(state->gain_hold_attack);
    params[8] = q15(state->gain_release);
    params[9] = q15(state->gain_hold_release);
    params[10] = q13(state->gain_min);
    params[11] = q13(state->gain_max);
    params[12] = q13(state->gain_makeup);
    params[13] = q15(state->knee);
}

/* ---- stereo limiter ---------------------------------------------------------------------- */

void *rms_limiter_init(int sample_rate, int channels) {
    (void)sample_rate;  // the processors count 48 samples per millisecond at every rate
    if (channels < 2) {
        SORN_LOGE(SORN_LOG_TAG_CORE, "%s: chnnum %d unsupported, need to be stereo", __func__,
                  channels);
        return nullptr;
    }
    auto *lim = static_cast<rms_limiter_t *>(calloc(1, sizeof(rms_limiter_t)));
    if (lim == nullptr) return nullptr;
    lim->proc_left = static_cast<sa6_dynamic_processor_t *>(calloc(1, sizeof(sa6_dynamic_processor_t)));
    lim->param_left =
        static_cast<sa6_dynamic_processor_param_t *>(calloc(1, sizeof(sa6_dynamic_processor_param_t)));
    lim->proc_right =
        static_cast<sa6_dynamic_processor_t *>(calloc(1, sizeof(sa6_dynamic_processor_t)));
    lim->param_right =
        static_cast<sa6_dynamic_processor_param_t *>(calloc(1, sizeof(sa6_dynamic_processor_param_t)));
    if (lim->proc_left == nullptr || lim->param_left == nullptr || lim->proc_right == nullptr ||
        lim->param_right == nullptr) {
        rms_limiter_deinit(lim);
        return nullptr;
    }
    *lim->param_left = kLimiterParam;
    sa6_dynamic_processor_init_f(lim->proc_left);
    sa6_dynamic_processor_set_param_f(lim->proc_left, lim->param_left);
    *lim->param_right = kLimiterParam;
    sa6_dynamic_processor_init_f(lim->proc_right);
    sa6_dynamic_processor_set_param_f(lim->proc_right, lim->param_right);
    return lim;
}

void rms_limiter_reset(void *handle) {
    auto *lim = static_cast<rms_limiter_t *>(handle);
    if (lim == nullptr) return;
    sa6_dynamic_processor_reset_f(lim->proc_left);
    sa6_dynamic_processor_reset_f(lim->proc_right);
}

void rms_limiter_process(void *handle, int *left, int *right, int frames) {
    auto *lim = static_cast<rms_limiter_t *>(handle);
    if (lim == nullptr || left == nullptr || right == nullptr || frames < 1) return;
    // The float samples live in the planes' own memory between the two conversions. Each
    // channel has its own processor; this is their process_f, both detections in one pass.
    if (lim->proc_left == nullptr || lim->proc_right == nullptr) {  // a record filled by hand
        to_float_plane(left, frames);
        to_float_plane(right, frames);
        auto *fl = reinterpret_cast<float *>(left);
        auto *fr = reinterpret_cast<float *>(right);
        sa6_dynamic_processor_process_f(lim->proc_left, fl, fl, frames);
        sa6_dynamic_processor_process_f(lim->proc_right, fr, fr, frames);
        to_chain_plane(left, frames);
        to_chain_plane(right, frames);
        return;
    }
    Levels level_left, level_right;
    to_float_and_detect(left, right, frames, &level_left, &level_right);
    limit_to_chain(lim->proc_left, level_left, left, frames);
    limit_to_chain(lim->proc_right, level_right, right, frames);
}

void rms_limiter_deinit(void *handle) {
    auto *lim = static_cast<rms_limiter_t *>(handle);
    if (lim == nullptr) return;
    free(lim->proc_left);
    free(lim->param_left);
    free(lim->proc_right);
    free(lim->param_right);
    free(lim);
}
