/*
 * Parameter block handling of the wrapper: chain choice and state move, surround switch,
 * copying the block into the wrapper record, loading the FIR record into the target chain,
 * and the status record.
 */
#include "wrapper/sorn_hp_params.h"

#include <cstring>

#include "dsp/sorn_hp_effect.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

constexpr int kSurroundFrequency = 5000;  // Hz
constexpr int kSurroundDepth = 20;
constexpr int kSwitchBlocks = 4;  // three warm-up blocks, the fourth cross-fades

// Picks the chain that takes the new parameters and moves the state: the first block goes
// straight into the active chain; later ones into the standby chain, which the wrapper warms up
// and cross-fades in (a block arriving during a switch starts the count again).
void* choose_target(sorn_hp_wrapper_t* w) {
    if (w->state == 1) {
        w->state = 2;
        return w->effect_active;
    }
    w->state = 3;
    w->switch_count = kSwitchBlocks;
    return w->effect_standby;
}

// The surround is on only when both lc and ss are non-zero. When it goes off, the chain gets
// the frequency and depth it had (0 before it was ever on).
void apply_surround(sorn_hp_wrapper_t* w, const sorn_hp_params_t* p, void* target) {
    if (p->lc != 0) {
        const int on = p->ss != 0 ? 1 : 0;
        w->ss = on;
        w->ss_status = on;
        if (on) {
            w->ss_frequency = kSurroundFrequency;
            w->ss_depth = kSurroundDepth;
        }
    } else {
        w->ss = 0;
        w->ss_status = 0;
    }
    sorn_hp_effect_ss_setparameter(target, w->ss_status, w->ss_frequency, w->ss_depth);
}

template <std::size_t N>
void copy_points(int32_t (&freq)[N], int32_t (&gain)[N], const uint32_t (&src_freq)[N],
                 const int32_t (&src_gain)[N]) {
    for (std::size_t i = 0; i < N; ++i) {
        freq[i] = static_cast<int32_t>(src_freq[i]);
        gain[i] = src_gain[i];
    }
}

// Stores the switches and, for every group in use, its point table. A group that is off keeps
// the tables an earlier block left in the record.
void copy_groups(sorn_hp_wrapper_t* w, const sorn_hp_params_t* p) {
    w->lc = p->lc;
    if (w->lc >= 1) copy_points(w->lc_freq, w->lc_gain, p->lc_freq, p->lc_gain);
    w->hp = p->hp;
    if (w->hp >= 1) copy_points(w->hp_freq, w->hp_gain, p->hp_freq, p->hp_gain);
    w->ea = p->ea;
    if (w->ea >= 1) copy_points(w->ea_freq, w->ea_gain, p->ea_freq, p->ea_gain);
}

}  // namespace

void sorn_hp_wrapper_set_parameters(void* handle, void* params) {
    auto* w = static_cast<sorn_hp_wrapper_t*>(handle);
    if (w == nullptr || params == nullptr || w->state == 0) return;
    const auto* p = static_cast<const sorn_hp_params_t*>(params);

    void* target = choose_target(w);
    apply_surround(w, p, target);
    copy_groups(w, p);

    // Taps: the record still holds the default FIR table it was created with. Validating the
    // point frequencies and designing the taps from the tables is added by the tuning work;
    // until then every block is treated as valid and the default taps are loaded.
    w->frc.enable = (w->lc != 0 || w->hp != 0 || w->ea != 0) ? 1 : 0;
    sorn_hp_effect_frc_setparameter(target, &w->frc);
}

void sorn_hp_wrapper_get_parameters(void* handle, void* out) {
    const auto* w = static_cast<const sorn_hp_wrapper_t*>(handle);
    if (w == nullptr || out == nullptr || w->state == 0) return;
    const sorn_hp_status_t status = {w->lc, w->hp, w->ea, w->ss, w->state};
    std::memcpy(out, &status, sizeof status);
}
