/*
 * Processing chain: creates the blocks with their fixed settings, forwards settings to them and
 * runs them in a fixed order on one block. See sorn_hp_effect.h for the contract.
 */
#include "dsp/sorn_hp_effect.h"

#include <cstdlib>

#include "dsp/rms_limiter.h"
#include "platform/sat_math.h"
#include "dsp/stereo_surround.h"
#include "platform/sorn_log.h"

namespace {

constexpr int kFftSize = 1024;
constexpr int kFirOffset = 784;  // 1024 - 240; the rate class then sets its own
constexpr int kLookaheadBlocks = 2;
constexpr int kChainChannels = 2;  // the surround always works on a left and a right plane

SampleRateType rate_type_of(unsigned int sample_rate) {
    switch (sample_rate) {
        case 44100: return SAMPLE_RATE_TYPE_44K;
        case 96000: return SAMPLE_RATE_TYPE_96K;
        case 192000: return SAMPLE_RATE_TYPE_192K;
        default: return SAMPLE_RATE_TYPE_48K;
    }
}

// The stereo FIR filter with every buffer stereo_fir_init promises, or null (with nothing left
// allocated).
stereo_fir_t* make_fir(SampleRateType rate_type) {
    auto* fir = static_cast<stereo_fir_t*>(std::calloc(1, sizeof(stereo_fir_t)));
    if (fir == nullptr) return nullptr;
    stereo_fir_init(fir, kFftSize, kFirOffset);
    if (fir->fft_cfg == nullptr) {
        std::free(fir);
        return nullptr;
    }
    stereo_fir_set_sample_rate(fir, rate_type);
    return fir;
}

void free_fir(stereo_fir_t*& fir) {
    if (fir == nullptr) return;
    stereo_fir_end(fir);
    std::free(fir);
    fir = nullptr;
}

// The compressor runs from the start at unity volume; null if either channel could not be made.
compressor_t* make_compressor(SampleRateType rate_type) {
    auto* comp = static_cast<compressor_t*>(std::calloc(1, sizeof(compressor_t)));
    if (comp == nullptr) return nullptr;
    compressor_init(comp, sorn::kQ13One, kLookaheadBlocks);
    if (comp->drc_left == nullptr || comp->drc_right == nullptr) {
        compressor_end(comp);
        std::free(comp);
        return nullptr;
    }
    compressor_set_sample_rate(comp, rate_type);
    compressor_set_volume(comp, sorn::kQ13One);
    comp->status = 1;
    return comp;
}

void free_compressor(compressor_t*& comp) {
    if (comp == nullptr) return;
    compressor_end(comp);
    std::free(comp);
    comp = nullptr;
}

// Releases every block the chain holds (any of them may be missing) and the chain itself.
void destroy(sorn_hp_effect_t* chain) {
    rms_limiter_deinit(chain->limiter);
    chain->limiter = nullptr;
    free_compressor(chain->compressor);
    free_fir(chain->fir);
    stereo_surround_deinit(chain->surround);
    chain->surround = nullptr;
    std::free(chain);
}

}  // namespace

void* sorn_hp_effect_init(unsigned int sample_rate, int chnnum) {
    if (chnnum < 2) {
        SORN_LOGE(SORN_LOG_TAG_CORE, "%s: chnnum %d unsupported, need to be stereo", __func__,
                  chnnum);
        return nullptr;
    }
    auto* chain = static_cast<sorn_hp_effect_t*>(std::calloc(1, sizeof(sorn_hp_effect_t)));
    if (chain == nullptr) return nullptr;
    chain->sample_rate = sample_rate;
    chain->sample_rate_type = rate_type_of(sample_rate);

    chain->fir = make_fir(chain->sample_rate_type);
    chain->surround = stereo_surround_init(static_cast<int>(sample_rate), kChainChannels);
    chain->compressor = make_compressor(chain->sample_rate_type);
    chain->limiter = rms_limiter_init(static_cast<int>(sample_rate), chnnum);

    // The filters and the compressor carry the path; a missing surround or limiter is skipped.
    if (chain->fir == nullptr || chain->compressor == nullptr) {
        destroy(chain);
        return nullptr;
    }
    return chain;
}

void sorn_hp_effect_end(void* handle) {
    auto* chain = static_cast<sorn_hp_effect_t*>(handle);
    if (chain == nullptr) return;
    destroy(chain);
}

void sorn_hp_effect_reset(void* handle) {
    auto* chain = static_cast<sorn_hp_effect_t*>(handle);
    if (chain == nullptr) return;
    stereo_fir_reset(chain->fir);
    stereo_surround_reset(chain->surround);
    compressor_reset(chain->compressor);
    rms_limiter_reset(chain->limiter);
}

void sorn_hp_effect_frc_setparameter(void* handle, orla_earadapt_params_t* params) {
    auto* chain = static_cast<sorn_hp_effect_t*>(handle);
    if (chain == nullptr || params == nullptr) return;
    // Both filters switch together, and their spectra are always recomputed, so a filter never
    // runs on taps whose spectrum is stale. The update also clears the filters' history.
    chain->fir->status = params->enable;
    stereo_fir_set_taps(chain->fir, ORLA_FIR_TAPS, params->coef_left, params->coef_right);
}

void sorn_hp_effect_ss_setparameter(void* handle, int status, int frequency, int depth) {
    auto* chain = static_cast<sorn_hp_effect_t*>(handle);
    if (chain == nullptr) return;
    stereo_surround_set_status(chain->surround, status);
    stereo_surround_set_parameters(chain->surround, frequency, depth);
}

void sorn_hp_effect_core_process(void* handle, int* left, int* right, int frames) {
    auto* chain = static_cast<sorn_hp_effect_t*>(handle);
    if (chain == nullptr || left == nullptr || right == nullptr || frames < 1) return;
    stereo_fir_process(chain->fir, left, right, frames);
    stereo_surround_process(chain->surround, left, right, frames);
    compressor_process(chain->compressor, left, right, left, right, frames);
    rms_limiter_process(chain->limiter, left, right, frames);
}
