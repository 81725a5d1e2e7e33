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
}

}  // namespace

extern "C" void fir_init(orla_fir_t *fir, int fft_size, int offset) {
    if (fir == nullptr) return;
    *fir = orla_fir_t{};
    fir->fft_cfg = ne10_fft_alloc_c2c_float32_neon(fft_size);
    if (fir->fft_cfg == nullptr) return;

    const size_t n = static_cast<size_t>(fft_size);
    fir->param = static_cast<int32_t *>(std::calloc(n, sizeof(int32_t)));
    fir->history = static_cast<int32_t *>(std::calloc(n, sizeof(int32_t)));
    fir->filter_spec =
        static_cast<ne10_fft_cpx_float32_t *>(std::calloc(n, sizeof(ne10_fft_cpx_float32_t)));
    fir->time_buf =
        static_cast<ne10_fft_cpx_float32_t *>(std::calloc(n, sizeof(ne10_fft_cpx_float32_t)));
    fir->freq_buf =
        static_cast<ne10_fft_cpx_float32_t *>(std::calloc(n, sizeof(ne10_fft_cpx_float32_t)));
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
    ne10_fft_c2c_1d_float32_neon(fir->filter_spec, work, fir->fft_cfg, 0);
    std::memset(fir->history, 0, size * sizeof(*fir->history));
}

extern "C" void fir_get_param(orla_fir_t *fir, int n, int *out) {
    if (!usable(fir) || out == nullptr || n < 1) return;
    n = clamp_count(fir, n);
    std::memcpy(out, fir->param, static_cast<size_t>(n) * sizeof(*out));
}

extern "C" void fir_reset(orla_fir_t *fir) {
    if (!usable(fir)) return;
    std::memset(fir->history, 0, static_cast<size_t>(fir->fft_size) * sizeof(*fir->history));
}

extern "C" void fir_process(orla_fir_t *fir, int *in, int *out, int n) {
    if (fir == nullptr || fir->status == 0 || !usable(fir) || in == nullptr || out == nullptr) {
        return;
    }
    const int size = fir->fft_size;
    const int offset = fir->in_offset;
    if (offset < 0 || offset >= size || n < 1 || n > size - offset) return;

    int32_t *history = fir->history;
    ne10_fft_cpx_float32_t *time_buf = fir->time_buf;
    ne10_fft_cpx_float32_t *freq_buf = fir->freq_buf;
    const ne10_fft_cpx_float32_t *taps_spectrum = fir->filter_spec;

    /* Slide the frame and append the new block; all of in is read before out is written. */
    std::memmove(history, history + n, static_cast<size_t>(size - n) * sizeof(*history));
    std::memcpy(history + offset, in, static_cast<size_t>(n) * sizeof(*history));

    for (int t = 0; t < size; ++t) {
        time_buf[t].r = static_cast<float>(history[t]);
        time_buf[t].i = 0.0f;
    }
    ne10_fft_c2c_1d_float32_neon(freq_buf, time_buf, fir->fft_cfg, 0);
    for (int k = 0; k < size; ++k) {
        const float xr = freq_buf[k].r;
        const float xi = freq_buf[k].i;
        freq_buf[k].r = taps_spectrum[k].r * xr - taps_spectrum[k].i * xi;
        freq_buf[k].i = taps_spectrum[k].i * xr + taps_spectrum[k].r * xi;
    }
    ne10_fft_c2c_1d_float32_neon(time_buf, freq_buf, fir->fft_cfg, 1);

    for (int i = 0; i < n; ++i) out[i] = sorn::sat_f2i32(time_buf[offset + i].r);
}
