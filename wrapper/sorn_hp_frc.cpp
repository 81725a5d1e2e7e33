#include "wrapper/sorn_hp_frc.h"

#include <algorithm>
#include <iterator>

#include "design/frc_curve.h"
#include "dsp/sorn_hp_effect.h"
#include "platform/sorn_log.h"

static_assert(FRC_DESIGN_TAPS == ORLA_FIR_TAPS, "the design writes one FIR filter's taps");
static_assert(FRC_DESIGN_LC_POINTS == SORN_HP_LC_POINTS && FRC_DESIGN_HP_POINTS == SORN_HP_HP_POINTS &&
                  FRC_DESIGN_EA_POINTS == SORN_HP_EA_POINTS,
              "the design takes the parameter block's tables as they are");

extern "C" void update_frc_params(sorn_hp_wrapper_t *w) {
    if (w == nullptr) return;
    frc_design_input_t in{};
    in.sample_rate = w->sample_rate;
    in.lc = w->lc;
    in.hp = w->hp;
    in.ea = w->ea;
    std::copy(std::begin(w->lc_freq), std::end(w->lc_freq), in.lc_freq);
    std::copy(std::begin(w->lc_gain), std::end(w->lc_gain), in.lc_gain);
    std::copy(std::begin(w->hp_freq), std::end(w->hp_freq), in.hp_freq);
    std::copy(std::begin(w->hp_gain), std::end(w->hp_gain), in.hp_gain);
    std::copy(std::begin(w->ea_freq), std::end(w->ea_freq), in.ea_freq);
    std::copy(std::begin(w->ea_gain), std::end(w->ea_gain), in.ea_gain);

    frc_design_report_t report;
    const bool designed = frc_design(&in, w->frc.coef_left, &report) != 0;
    static const char *const kNames[FRC_GROUPS] = {"lc", "hp", "ea"};
    for (int g = 0; g < FRC_GROUPS; ++g) {
        if (!report.repaired[g]) continue;
        SORN_LOGW(SORN_LOG_TAG_CORE,
                  "%s: %s table unordered or with coincident frequencies, designed from %d knots",
                  "update_frc_params", kNames[g], report.knots[g]);
        if (report.knots[g] < 3)
            SORN_LOGW(SORN_LOG_TAG_CORE, "%s: %s table has too few knots, group contributes 0 dB",
                      "update_frc_params", kNames[g]);
    }
    if (!designed) {
        SORN_LOGW(SORN_LOG_TAG_CORE, "%s: design failed, default taps used", "update_frc_params");
        earadapt_params_fill_bypass(&w->frc);
        return;
    }
    std::copy(std::begin(w->frc.coef_left), std::end(w->frc.coef_left), w->frc.coef_right);
}
