/*
 * FFT FIR filter by overlap-save: each call shifts the new block into an N-sample frame,
 * multiplies the frame's spectrum by the taps' spectrum and keeps the last block of the
 * circular result, where it equals the linear convolution.
 */
#include "dsp/fir.h"

#include <cstdlib>
#include <cstring>

#include "platform/sat_math.h"

namespace {

/* Arrays start on a cache line, which also meets every FFT backend's SIMD alignment. */
constexpr size_t kArrayAlign = 64;

/* A zeroed, aligned array of `count` elements of T (released with std::free), or null. */
template <typename T>
T *alloc_array(size_t count) {
    const size_t bytes = (count * sizeof(T) + kArrayAlign - 1) / kArrayAlign * kArrayAlign;
    void *p = std::aligned_alloc(kArrayAlign, bytes);
    if (p != nullptr) std::memset(p, 0, bytes);
    return static_cast<T *>(p);
}

/* The filter holds a plan and all five arrays, sized consistently. */
bool usable(const orla_fir_t *fir) {
    return fir != nullptr && fir->fft_cfg != nullptr && fir->fft_size > 0 &&
           fir->fft_cfg->nfft == fir->fft_size && fir->param != nullptr &&
           fir->history != nullptr && fir->filter_spec != nullptr && fir->time_buf != nullptr &&
           fir->freq_buf != nullptr;
}

int32_t clamp_offset(int32_t fft_size, int64_t offset) {
    if (fft_size < 1 || offset < 0) return 0;
    return offset > fft_size - 1 ? fft_size - 1 : static_cast<int32_t>(offset);
}

int clamp_count(const orla_fir_t *fir, int n) { return n < fir->fft_size ? n : fir->fft_size; }

int block_length(SampleRateType rate) {
    switch (rate) {
        case SAMPLE_RATE_TYPE_44K: return 220;
        case SAMPLE_RATE_TYPE_96K: return 480;
        default: return 240;
    }
}

/* A silent frame at the start of the history. */
void clear_frame(orla_fir_t *fir) {
    std::memset(fir->history, 0, 2 * static_cast<size_t>(fir->fft_size) * sizeof(*fir->history));
    fir->frame_pos = 0;
}

/* Moves the frame on by n samples (1..N) and returns its new start. The new frame's first N - n
   samples are the old frame's last N - n, and its last n samples hold what the old frame held
   there until the caller writes the new block (which, when block_fills_tail, covers them all).
   Mostly the frame just starts n values later, where its samples already are; only when it
   would run past the end of the history is it copied back to the start. */
ne10_fft_cpx_float32_t *advance_frame(orla_fir_t *fir, int n, bool block_fills_tail) {
    const size_t size = static_cast<size_t>(fir->fft_size);
    const size_t step = static_cast<size_t>(n);
    ne10_fft_cpx_float32_t *history = fir->history;
    const size_t pos = static_cast<size_t>(fir->frame_pos);
    size_t next = pos + step;
    if (next <= size) {
        /* The old frame's last n samples stay the last n of the new one. */
        if (!block_fills_tail) {
            std::memcpy(history + pos + size, history + pos + size - step, step * sizeof(*history));
        }
    } else {
        std::memmove(history, history + next, (size - step) * sizeof(*history));
        if (!block_fills_tail) {
            std::memmove(history + size - step, history + pos + size - step,
                         step * sizeof(*history));
        }
        next = 0;
    }
    fir->frame_pos = static_cast<int32_t>(next);
    return history + next;
}

void release(orla_fir_t *fir) {
    ne10_fft_destroy_c2c_float32(fir->fft_cfg);
    std::free(fir->param);
    std::free(fir->history);
    std::free(fir->filter_spec);
    std::free(fir->time_buf);
    std::free(fir->freq_buf);
    fir->fft_cfg = nullptr;
    fir->param = nullptr;
    fir->history = nullptr;
    fir->filter_spec = nullptr;
    fir->time_buf = nullptr;
    fir->freq_buf = nullptr;
    fir->status = 0;
    fir->frame_pos = 0;
}

}  // namespace

extern "C" void fir_init(orla_fir_t *fir, int fft_size, int offset) {
    if (fir == nullptr) return;
    *fir = orla_fir_t{};
    fir->fft_cfg = ne10_fft_alloc_c2c_float32_neon(fft_size);
    if (fir->fft_cfg == nullptr) return;

    const size_t n = static_cast<size_t>(fft_size);
    fir->param = alloc_array<int32_t>(n);
    fir->history = alloc_array<ne10_fft_cpx_float32_t>(2 * n);
    fir->filter_spec = alloc_array<ne10_fft_cpx_float32_t>(n);
    fir->time_buf = alloc_array<ne10_fft_cpx_float32_t>(n);
    fir->freq_buf = alloc_array<ne10_fft_cpx_float32_t>(n);
    fir->fft_size = fft_size;
    if (!usable(fir)) {
        release(fir);
        *fir = orla_fir_t{};
        return;
    }
    fir->in_offset = clamp_offset(fft_size, offset);
}

extern "C" void fir_end(orla_fir_t *fir) {
    if (fir != nullptr) release(fir);
}

extern "C" void fir_set_sample_rate(orla_fir_t *fir, SampleRateType rate) {
    if (fir == nullptr) return;
    fir->in_offset = clamp_offset(fir->fft_size, int64_t{fir->fft_size} - block_length(rate));
}

extern "C" void fir_set_status(orla_fir_t *fir, int value) {
    if (fir != nullptr) fir->status = value;
}

extern "C" void fir_get_status(orla_fir_t *fir, int *out) {
    if (fir != nullptr && out != nullptr) *out = fir->status;
}

extern "C" int fir_set_param(orla_fir_t *fir, int n, int *taps) {
    if (!usable(fir) || taps == nullptr || n < 1) return 0;
    n = clamp_count(fir, n);
    int changed = 0;
    for (int i = 0; i < n; ++i) {
        if (fir->param[i] != taps[i]) {
            fir->param[i] = taps[i];
            changed = 1;
        }
    }
    return changed;
}

extern "C" void fir_update_param(orla_fir_t *fir, int n) {
    if (!usable(fir)) return;
    n = n < 1 ? 0 : clamp_count(fir, n);
    const size_t size = static_cast<size_t>(fir->fft_size);

    /* time_buf is free between blocks: it holds the zero-padded taps for the transform. */
    ne10_fft_cpx_float32_t *work = fir->time_buf;
    std::memset(work, 0, size * sizeof(*work));
    for (int i = 0; i < n; ++i) {
        work[i].r = static_cast<float>(fir->param[i]) * sorn::kQ23ToFloat;
    }
    /* The spectrum is stored split: the N real parts, then the N imaginary parts, so the
       per-block product reads them as two plain runs. freq_buf is free between blocks. */
    ne10_fft_c2c_1d_float32_neon(fir->freq_buf, work, fir->fft_cfg, 0);
    float *spec_r = reinterpret_cast<float *>(fir->filter_spec);
    float *spec_i = spec_r + size;
    for (size_t k = 0; k < size; ++k) {
        spec_r[k] = fir->freq_buf[k].r;
        spec_i[k] = fir->freq_buf[k].i;
    }
    clear_frame(fir);
}

extern "C" void fir_get_param(orla_fir_t *fir, int n, int *out) {
    if (!usable(fir) || out == nullptr || n < 1) return;
    n = clamp_count(fir, n);
    std::memcpy(out, fir->param, static_cast<size_t>(n) * sizeof(*out));
}

extern "C" void fir_reset(orla_fir_t *fir) {
    if (!usable(fir)) return;
    clear_frame(fir);
}

extern "C" void fir_process(orla_fir_t *fir, int *in, int *out, int n) {
    if (fir == nullptr || fir->status == 0 || !usable(fir) || in == nullptr || out == nullptr) {
        return;
    }
    const int size = fir->fft_size;
    const int offset = fir->in_offset;
    if (offset < 0 || offset >= size || n < 1 || n > size - offset) return;

    ne10_fft_cpx_float32_t *time_buf = fir->time_buf;
    ne10_fft_cpx_float32_t *freq_buf = fir->freq_buf;
    const float *taps_r = reinterpret_cast<const float *>(fir->filter_spec);
    const float *taps_i = taps_r + size;

    /* Slide the frame and append the new block, converted once; all of in is read before out
       is written. */
    ne10_fft_cpx_float32_t *frame = advance_frame(fir, n, offset + n == size);
    ne10_fft_cpx_float32_t *block = frame + offset;
    for (int i = 0; i < n; ++i) {
        block[i].r = static_cast<float>(in[i]);
        block[i].i = 0.0f;
    }
    /* The transform gets a copy of the frame: Ne10 does not promise to leave its input alone,
       and the frame must survive until the next block. */
    std::memcpy(time_buf, frame, static_cast<size_t>(size) * sizeof(*time_buf));
    ne10_fft_c2c_1d_float32_neon(freq_buf, time_buf, fir->fft_cfg, 0);
    for (int k = 0; k < size; ++k) {
        const float xr = freq_buf[k].r;
        const float xi = freq_buf[k].i;
        const float hr = taps_r[k];
        const float hi = taps_i[k];
        freq_buf[k].r = hr * xr - hi * xi;
        freq_buf[k].i = hi * xr + hr * xi;
    }
    ne10_fft_c2c_1d_float32_neon(time_buf, freq_buf, fir->fft_cfg, 1);
    const ne10_fft_cpx_float32_t *result = time_buf + offset;
    for (int i = 0; i < n; ++i) out[i] = sorn::sat_f2i32(result[i].r);
}
