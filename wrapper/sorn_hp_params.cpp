/*
 * Parameter block handling of the wrapper: chain choice and state move, surround switch,
 * validation and copy of the point tables into the wrapper record, the tap design (or the
 * default taps for a block with an invalid frequency), loading the FIR record into the target
 * chain, and the status record.
 *
 * Runs on the command path only: it logs every point it reads and the tap design allocates.
 * A null block is ignored like a null handle: no state move, nothing logged.
 */
#include "wrapper/sorn_hp_params.h"

#include <cstring>

#include "dsp/sorn_hp_effect.h"
#include "platform/sorn_log.h"
#include "wrapper/sorn_hp_frc.h"
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

constexpr uint32_t kFirstInvalidFrequency = 22001;  // Hz; compared unsigned, so negatives fail too

// Copies one group's points into the record, logging each one, and returns how many of them
// have an invalid frequency. Every point is copied and logged, valid or not.
template <std::size_t N>
int copy_points(const char* name, int32_t (&freq)[N], int32_t (&gain)[N],
                const uint32_t (&src_freq)[N], const int32_t (&src_gain)[N]) {
    int invalid = 0;
    for (std::size_t i = 0; i < N; ++i) {
        freq[i] = static_cast<int32_t>(src_freq[i]);
        gain[i] = src_gain[i];
        SORN_LOGD(SORN_LOG_TAG_CORE, "(%d)%s_freq %d: %s_gain %d", static_cast<int>(i + 1), name,
                  freq[i], name, gain[i]);
        if (src_freq[i] >= kFirstInvalidFrequency) {
            SORN_LOGW(SORN_LOG_TAG_CORE, "%s_freq %d invalid, need bypass", name, freq[i]);
            ++invalid;
        }
    }
    return invalid;
}

// Stores the switches and, for every group in use, its point table; returns the number of
// invalid frequencies read. A group that is off keeps the tables an earlier block left in the
// record, and its frequencies are neither read nor checked.
int copy_groups(sorn_hp_wrapper_t* w, const sorn_hp_params_t* p) {
    int check = 0;
    w->lc = p->lc;
    if (w->lc >= 1) check += copy_points("lc", w->lc_freq, w->lc_gain, p->lc_freq, p->lc_gain);
    w->hp = p->hp;
    if (w->hp >= 1) check += copy_points("hp", w->hp_freq, w->hp_gain, p->hp_freq, p->hp_gain);
    w->ea = p->ea;
    if (w->ea >= 1) check += copy_points("ea", w->ea_freq, w->ea_gain, p->ea_freq, p->ea_gain);
    return check;
}

}  // namespace

void sorn_hp_wrapper_set_parameters(void* handle, void* params) {
    auto* w = static_cast<sorn_hp_wrapper_t*>(handle);
    if (w == nullptr || params == nullptr || w->state == 0) return;
    // Read through a copy: the caller's bytes need no particular alignment.
    sorn_hp_params_t block;
    std::memcpy(&block, params, sizeof block);
    const sorn_hp_params_t* p = &block;

    void* target = choose_target(w);
    apply_surround(w, p, target);
    const int check = copy_groups(w, p);
    SORN_LOGD(SORN_LOG_TAG_CORE, "%s: lc %d, ss %d, hp %d, ea %d, check %d",
              "sorn_hp_wrapper_set_parameters", w->lc, w->ss, w->hp, w->ea, check);

    // A block with an invalid frequency plays without compensation: the default taps, FIR off.
    if (check != 0) {
        earadapt_params_fill_bypass(&w->frc);
    } else {
        update_frc_params(w);
    }
    w->frc.enable = ((w->lc != 0 || w->hp != 0 || w->ea != 0) && check == 0) ? 1 : 0;
    sorn_hp_effect_frc_setparameter(target, &w->frc);
}

void sorn_hp_wrapper_get_parameters(void* handle, void* out) {
    const auto* w = static_cast<const sorn_hp_wrapper_t*>(handle);
    if (w == nullptr || out == nullptr || w->state == 0) return;
    const sorn_hp_status_t status = {w->lc, w->hp, w->ea, w->ss, w->state};
    std::memcpy(out, &status, sizeof status);
}
