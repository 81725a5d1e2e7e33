/*
 * Stereo FFT FIR filter by overlap-save on one complex frame per block: left samples as real
 * parts, right samples as imaginary parts. See stereo_fir.h for the two products and the
 * contract.
 */
#include "dsp/stereo_fir.h"

#include <cstdlib>
#include <cstring>

#include "platform/sat_math.h"

namespace {

/* Every array starts on a cache line, which also meets every FFT backend's SIMD alignment. */
constexpr size_t kAlign = 64;

/* Bytes of one array of n complex values, rounded up to keep the next array aligned. */
size_t array_bytes(size_t n) {
    return (n * sizeof(ne10_fft_cpx_float32_t) + kAlign - 1) / kAlign * kAlign;
}

bool usable(const stereo_fir_t *fir) {
    return fir != nullptr && fir->fft_cfg != nullptr && fir->fft_size > 0 &&
           fir->fft_cfg->nfft == fir->fft_size && fir->history != nullptr &&
           fir->spectra != nullptr && fir->time_buf != nullptr && fir->freq_buf != nullptr;
}

/* Spectrum of n Q23 taps (none when taps is NULL), zero-padded to N, into freq_buf. time_buf
   is free between blocks and holds the taps for the transform. */
void tap_spectrum(stereo_fir_t *fir, int n, const int *taps) {
    ne10_fft_cpx_float32_t *work = fir->time_buf;
    std::memset(work, 0, static_cast<size_t>(fir->fft_size) * sizeof(*work));
    for (int i = 0; taps != nullptr && i < n; ++i) {
        work[i].r = static_cast<float>(taps[i]) * sorn::kQ23ToFloat;
    }
    ne10_fft_c2c_1d_float32_neon(fir->freq_buf, work, fir->fft_cfg, 0);
}

/* The frame's spectrum z times one spectrum (h_r, h_i), into y. */
void same_taps_product(ne10_fft_cpx_float32_t *y, const ne10_fft_cpx_float32_t *z,
                       const float *h_r, const float *h_i, int size) {
    for (int k = 0; k < size; ++k) {
        const float zr = z[k].r;
        const float zi = z[k].i;
        y[k].r = h_r[k] * zr - h_i[k] * zi;
        y[k].i = h_i[k] * zr + h_r[k] * zi;
    }
}

/* y[k] = a[k] z[k] + b[k] conj z[N-k] (index taken modulo N), into y, which is not z. */
void separated_product(ne10_fft_cpx_float32_t *y, const ne10_fft_cpx_float32_t *z,
                       const float *spectra, int size) {
    const float *a_r = spectra;
    const float *a_i = a_r + size;
    const float *b_r = a_i + size;
    const float *b_i = b_r + size;
    auto bin = [&](int k, int mirror) {
        const float zr = z[k].r;
        const float zi = z[k].i;
        const float wr = z[mirror].r;
        const float wi = z[mirror].i;
        y[k].r = (a_r[k] * zr - a_i[k] * zi) + (b_r[k] * wr + b_i[k] * wi);
        y[k].i = (a_i[k] * zr + a_r[k] * zi) + (b_i[k] * wr - b_r[k] * wi);
    };
    bin(0, 0);
    for (int k = 1; k < size; ++k) bin(k, size - k);
}

/* A silent frame: the next block starts from silence. */
void clear_history(stereo_fir_t *fir) {
    std::memset(fir->history, 0, static_cast<size_t>(fir->fft_size) * sizeof(*fir->history));
}

void release(stereo_fir_t *fir) {
    ne10_fft_destroy_c2c_float32(fir->fft_cfg);
    std::free(fir->history); /* the one block that holds every array */
    *fir = stereo_fir_t{};
}

}  // namespace

extern "C" void stereo_fir_init(stereo_fir_t *fir, int fft_size, int offset) {
    if (fir == nullptr) return;
    *fir = stereo_fir_t{};
    fir->fft_cfg = ne10_fft_alloc_c2c_float32_neon(fft_size);
    if (fir->fft_cfg == nullptr) return;

    /* One block: history, time_buf, freq_buf (N values each), then the spectra (2N values). */
    const size_t n = static_cast<size_t>(fft_size);
    const size_t one = array_bytes(n);
    const size_t bytes = 3 * one + array_bytes(2 * n);
    auto *block = static_cast<unsigned char *>(std::aligned_alloc(kAlign, bytes));
    if (block == nullptr) {
        release(fir);
        return;
    }
    std::memset(block, 0, bytes);
    fir->history = reinterpret_cast<ne10_fft_cpx_float32_t *>(block);
    fir->time_buf = reinterpret_cast<ne10_fft_cpx_float32_t *>(block + one);
    fir->freq_buf = reinterpret_cast<ne10_fft_cpx_float32_t *>(block + 2 * one);
    fir->spectra = reinterpret_cast<float *>(block + 3 * one);
    fir->fft_size = fft_size;
    fir->same_taps = 1;
    fir->in_offset = offset < 0 ? 0 : (offset < fft_size ? offset : fft_size - 1);
}

extern "C" void stereo_fir_end(stereo_fir_t *fir) {
    if (fir != nullptr) release(fir);
}

extern "C" void stereo_fir_set_sample_rate(stereo_fir_t *fir, SampleRateType rate) {
    if (fir == nullptr) return;
    /* The single-channel filter owns the rule from rate class to offset; apply it to our size. */
    orla_fir_t probe{};
    probe.fft_size = fir->fft_size;
    fir_set_sample_rate(&probe, rate);
    fir->in_offset = probe.in_offset;
}

extern "C" void stereo_fir_set_taps(stereo_fir_t *fir, int n, const int *left, const int *right) {
    if (!usable(fir)) return;
    const size_t size = static_cast<size_t>(fir->fft_size);
    n = n < 1 ? 0 : (n < fir->fft_size ? n : fir->fft_size);
    auto tap = [](const int *taps, int i) { return taps != nullptr ? taps[i] : 0; };
    bool same = true;
    int reach = 0;
    for (int i = 0; i < n; ++i) {
        same = same && tap(left, i) == tap(right, i);
        if (tap(left, i) != 0 || tap(right, i) != 0) reach = i + 1;
    }

    /* The left spectrum, split into real and imaginary runs so the products read plain runs. */
    float *sum_r = fir->spectra;
    float *sum_i = sum_r + size;
    tap_spectrum(fir, n, left);
    for (size_t k = 0; k < size; ++k) {
        sum_r[k] = fir->freq_buf[k].r;
        sum_i[k] = fir->freq_buf[k].i;
    }
    if (!same) {
        /* Half the sum and half the difference of the two spectra. */
        float *diff_r = sum_i + size;
        float *diff_i = diff_r + size;
        tap_spectrum(fir, n, right);
        for (size_t k = 0; k < size; ++k) {
            const float l_r = sum_r[k];
            const float l_i = sum_i[k];
            const float r_r = fir->freq_buf[k].r;
            const float r_i = fir->freq_buf[k].i;
            sum_r[k] = (l_r + r_r) * 0.5f;
            sum_i[k] = (l_i + r_i) * 0.5f;
            diff_r[k] = (l_r - r_r) * 0.5f;
            diff_i[k] = (l_i - r_i) * 0.5f;
        }
    }
    fir->same_taps = same ? 1 : 0;
    fir->reach = reach;
    clear_history(fir);
}

extern "C" void stereo_fir_reset(stereo_fir_t *fir) {
    if (usable(fir)) clear_history(fir);
}

extern "C" void stereo_fir_process(stereo_fir_t *fir, int *left, int *right, int n) {
    if (fir == nullptr || fir->status == 0 || !usable(fir) || left == nullptr ||
        right == nullptr || left == right) {
        return;
    }
    const int size = fir->fft_size;
    const int offset = fir->in_offset;
    if (offset < 0 || offset >= size || n < 1 || n > size - offset) return;

    /* Shift the frame left by a block and append the new one, both channels in one value. */
    ne10_fft_cpx_float32_t *history = fir->history;
    std::memmove(history, history + n, static_cast<size_t>(size - n) * sizeof(*history));
    ne10_fft_cpx_float32_t *block = history + offset;
    for (int i = 0; i < n; ++i) {
        block[i].r = static_cast<float>(left[i]);
        block[i].i = static_cast<float>(right[i]);
    }
    /* Ne10 does not promise to leave a transform's input alone: the transform gets a copy. */
    ne10_fft_cpx_float32_t *time_buf = fir->time_buf;
    ne10_fft_cpx_float32_t *freq_buf = fir->freq_buf;
    /* The oldest samples reach no output that is kept (output i needs the reach - 1 samples
       before it): the transform gets zeros there, which lowers its rounding noise. */
    const int stale = offset - (fir->reach - 1) > 0 ? offset - (fir->reach - 1) : 0;
    std::memset(time_buf, 0, static_cast<size_t>(stale) * sizeof(*time_buf));
    std::memcpy(time_buf + stale, history + stale,
                static_cast<size_t>(size - stale) * sizeof(*time_buf));
    ne10_fft_c2c_1d_float32_neon(freq_buf, time_buf, fir->fft_cfg, 0);
    if (fir->same_taps != 0) {
        same_taps_product(time_buf, freq_buf, fir->spectra, fir->spectra + size, size);
    } else {
        separated_product(time_buf, freq_buf, fir->spectra, size);
    }
    ne10_fft_c2c_1d_float32_neon(freq_buf, time_buf, fir->fft_cfg, 1);
    const ne10_fft_cpx_float32_t *result = freq_buf + offset;
    for (int i = 0; i < n; ++i) {
        left[i] = sorn::sat_f2i32(result[i].r);
        right[i] = sorn::sat_f2i32(result[i].i);
    }
}
