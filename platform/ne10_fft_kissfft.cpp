/*
 * Ne10's complex float32 FFT names on top of KissFFT (the default backend on this host).
 *
 * A plan is one malloc block: this record, KissFFT's forward and inverse configurations placed
 * in the block by kiss_fft_alloc, and N points of scratch. So destroying a plan is a plain
 * free(), exactly as with Ne10. KissFFT allocates a temporary buffer when handed the same
 * array as input and output, so an in-place call (allowed at the sizes Ne10 computes in place
 * correctly) goes through the plan's scratch instead.
 */
#include <NE10.h>
#include <kiss_fft.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "platform/ne10_fft_size.h"

static_assert(sizeof(kiss_fft_cpx) == sizeof(ne10_fft_cpx_float32_t) &&
                  alignof(kiss_fft_cpx) == alignof(ne10_fft_cpx_float32_t),
              "KissFFT must be built for float with Ne10's complex layout");

namespace {

struct KissPlan {
    ne10_fft_state_float32_t head; /* first, so the plan is usable as an Ne10 cfg */
    kiss_fft_cfg forward;
    kiss_fft_cfg inverse;
    kiss_fft_cpx *scratch;
    float inverse_scale; /* 1/N, applied after the unscaled inverse */
};

constexpr size_t kAlign = alignof(std::max_align_t);

constexpr size_t round_up(size_t bytes) { return (bytes + kAlign - 1) / kAlign * kAlign; }

KissPlan *plan_of(ne10_fft_cfg_float32_t cfg) { return reinterpret_cast<KissPlan *>(cfg); }

}  // namespace

extern "C" ne10_fft_cfg_float32_t ne10_fft_alloc_c2c_float32_neon(ne10_int32_t nfft) {
    if (!sorn::fft_size_supported(nfft)) return nullptr;

    size_t cfg_bytes = 0;
    kiss_fft_alloc(nfft, 0, nullptr, &cfg_bytes); /* size query: returns NULL, sets the size */
    if (cfg_bytes == 0) return nullptr;
    const size_t head_bytes = round_up(sizeof(KissPlan));
    const size_t cfg_slot = round_up(cfg_bytes);
    const size_t scratch_bytes = sizeof(kiss_fft_cpx) * static_cast<size_t>(nfft);

    auto *block = static_cast<unsigned char *>(
        std::malloc(head_bytes + 2 * cfg_slot + scratch_bytes));
    if (block == nullptr) return nullptr;

    auto *plan = reinterpret_cast<KissPlan *>(block);
    size_t forward_bytes = cfg_bytes;
    size_t inverse_bytes = cfg_bytes;
    plan->head.nfft = nfft;
    plan->forward = kiss_fft_alloc(nfft, 0, block + head_bytes, &forward_bytes);
    plan->inverse = kiss_fft_alloc(nfft, 1, block + head_bytes + cfg_slot, &inverse_bytes);
    plan->scratch = reinterpret_cast<kiss_fft_cpx *>(block + head_bytes + 2 * cfg_slot);
    plan->inverse_scale = 1.0f / static_cast<float>(nfft);
    if (plan->forward == nullptr || plan->inverse == nullptr) {
        std::free(block);
        return nullptr;
    }
    return &plan->head;
}

extern "C" void ne10_fft_c2c_1d_float32_neon(ne10_fft_cpx_float32_t *fout,
                                             ne10_fft_cpx_float32_t *fin,
                                             ne10_fft_cfg_float32_t cfg,
                                             ne10_int32_t inverse_fft) {
    sorn::fft_check_call(fout, fin, cfg);
    KissPlan *plan = plan_of(cfg);
    const int32_t n = plan->head.nfft;
    const kiss_fft_cpx *src = reinterpret_cast<const kiss_fft_cpx *>(fin);
    if (fin == fout) {
        std::memcpy(plan->scratch, fin, static_cast<size_t>(n) * sizeof(kiss_fft_cpx));
        src = plan->scratch;
    }
    kiss_fft(inverse_fft != 0 ? plan->inverse : plan->forward, src,
             reinterpret_cast<kiss_fft_cpx *>(fout));
    if (inverse_fft != 0) sorn::fft_scale_complex(fout, n, plan->inverse_scale);
}

extern "C" void ne10_fft_destroy_c2c_float32(ne10_fft_cfg_float32_t cfg) { std::free(cfg); }
