/*
 * Ne10's complex float32 FFT names on top of FFTW's single-precision library (the backend
 * chosen with -DSORN_FFT_BACKEND=fftw).
 *
 * A plan holds two out-of-place FFTW plans (forward, backward) made on an input and an output
 * array that the plan owns, both allocated by fftwf_malloc and so aligned as FFTW's SIMD code
 * wants. When a caller's arrays are aligned the same way and distinct, the FFTW plan runs on
 * them directly; otherwise (and for an in-place call at the sizes Ne10 computes in place
 * correctly) the data goes through the owned arrays. Execution allocates nothing.
 *
 * FFTW's planner is not thread-safe: planning and plan destruction are serialised by one
 * process-wide mutex, so two effect instances may be created or released from two threads.
 * Execution takes no lock. Plans are made with FFTW_ESTIMATE, so the algorithm (and thus the
 * last bit of every result) does not depend on timing measurements made at run time.
 */
#include <NE10.h>
#include <fftw3.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/ne10_fft_size.h"

static_assert(sizeof(fftwf_complex) == sizeof(ne10_fft_cpx_float32_t),
              "FFTW's complex float must have Ne10's layout");

namespace {

struct FftwPlan {
    ne10_fft_state_float32_t head; /* first, so the plan is usable as an Ne10 cfg */
    fftwf_plan forward;
    fftwf_plan backward;
    fftwf_complex *in;  /* owned, FFTW-aligned */
    fftwf_complex *out; /* owned, FFTW-aligned */
    float inverse_scale; /* 1/N, applied after the unscaled backward transform */
};

std::mutex &planner_mutex() {
    static std::mutex m;
    return m;
}

FftwPlan *plan_of(ne10_fft_cfg_float32_t cfg) { return reinterpret_cast<FftwPlan *>(cfg); }

bool fftw_aligned(const void *p) {
    return fftwf_alignment_of(static_cast<float *>(const_cast<void *>(p))) == 0;
}

void release(FftwPlan *plan) {
    {
        std::lock_guard<std::mutex> lock(planner_mutex());
        if (plan->forward != nullptr) fftwf_destroy_plan(plan->forward);
        if (plan->backward != nullptr) fftwf_destroy_plan(plan->backward);
    }
    fftwf_free(plan->in);
    fftwf_free(plan->out);
    std::free(plan);
}

}  // namespace

extern "C" ne10_fft_cfg_float32_t ne10_fft_alloc_c2c_float32_neon(ne10_int32_t nfft) {
    if (!sorn::fft_size_supported(nfft)) return nullptr;
    auto *plan = static_cast<FftwPlan *>(std::calloc(1, sizeof(FftwPlan)));
    if (plan == nullptr) return nullptr;
    plan->head.nfft = nfft;
    plan->inverse_scale = 1.0f / static_cast<float>(nfft);
    plan->in = fftwf_alloc_complex(static_cast<size_t>(nfft));
    plan->out = fftwf_alloc_complex(static_cast<size_t>(nfft));
    if (plan->in != nullptr && plan->out != nullptr) {
        std::lock_guard<std::mutex> lock(planner_mutex());
        plan->forward = fftwf_plan_dft_1d(nfft, plan->in, plan->out, FFTW_FORWARD, FFTW_ESTIMATE);
        plan->backward =
            fftwf_plan_dft_1d(nfft, plan->in, plan->out, FFTW_BACKWARD, FFTW_ESTIMATE);
    }
    if (plan->forward == nullptr || plan->backward == nullptr) {
        release(plan);
        return nullptr;
    }
    return &plan->head;
}

extern "C" void ne10_fft_c2c_1d_float32_neon(ne10_fft_cpx_float32_t *fout,
                                             ne10_fft_cpx_float32_t *fin,
                                             ne10_fft_cfg_float32_t cfg,
                                             ne10_int32_t inverse_fft) {
    sorn::fft_check_call(fout, fin, cfg);
    FftwPlan *plan = plan_of(cfg);
    const int32_t n = plan->head.nfft;
    fftwf_plan p = inverse_fft != 0 ? plan->backward : plan->forward;
    if (fin != fout && fftw_aligned(fin) && fftw_aligned(fout)) {
        fftwf_execute_dft(p, reinterpret_cast<fftwf_complex *>(fin),
                          reinterpret_cast<fftwf_complex *>(fout));
    } else {
        const size_t bytes = static_cast<size_t>(n) * sizeof(fftwf_complex);
        std::memcpy(plan->in, fin, bytes);
        fftwf_execute(p);
        std::memcpy(fout, plan->out, bytes);
    }
    if (inverse_fft != 0) sorn::fft_scale_complex(fout, n, plan->inverse_scale);
}

extern "C" void ne10_fft_destroy_c2c_float32(ne10_fft_cfg_float32_t cfg) {
    if (cfg != nullptr) release(plan_of(cfg));
}
