// The client parameter block alone: one to four blocks of raw bytes handed to
// sorn_hp_wrapper_set_parameters on a fresh wrapper (each through an exact 292-byte buffer), so
// the tables reach the validation and the response design in every degenerate shape: unordered,
// repeated, at and beyond the frequency limits, extreme gains. Then a few blocks of loud audio
// through the wrapper, and the same table's points as raw knots through clac_frc_curve.
//
// Input: byte 0 picks the sample rate and the wrapper's format type, byte 1 the number of
// blocks, then the blocks (short ones are zero-filled).
//
// Checked: the status record mirrors the block (switches, the effective surround switch, a
// running state); both tap sets are identical; a block with an invalid frequency in a group in
// use gets the default taps with the FIR off; designed taps stay below 3.0 in Q23 and their
// energy within the +7 dB the curve is limited to.
#include <array>
#include <cmath>

#include "fuzz/fuzz_common.h"
#include "design/frc_curve.h"
#include "dsp/sorn_hp_effect.h"
#include "wrapper/sorn_hp_params.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

using sorn_fuzz::ExactBuffer;

constexpr std::array<int, 8> kRates = {48000, 44100, 44050, 48050, 47999, 96000, 48000, 44100};
constexpr std::array<int, 4> kFormatTypes = {3, 3, 1, 2};
constexpr size_t kBlockBytes = sizeof(sorn_hp_params_t);

// Frequencies of the groups in use that the wrapper must refuse (above 22000 Hz, unsigned).
int invalid_points(const sorn_hp_params_t &p) {
    int n = 0;
    auto count = [&](int32_t sw, const uint32_t *f, int points) {
        if (sw < 1) return;
        for (int i = 0; i < points; ++i) n += f[i] > 22000u;
    };
    count(p.lc, p.lc_freq, SORN_HP_LC_POINTS);
    count(p.hp, p.hp_freq, SORN_HP_HP_POINTS);
    count(p.ea, p.ea_freq, SORN_HP_EA_POINTS);
    return n;
}

double tap_energy(const int32_t *taps) {
    double e = 0.0;
    for (int k = 0; k < ORLA_FIR_TAPS; ++k) e += static_cast<double>(taps[k]) * taps[k];
    return e;
}

void check_taps(const sorn_hp_wrapper_t *w, const sorn_hp_params_t &p,
                const orla_earadapt_params_t &defaults) {
    const orla_earadapt_params_t &frc = w->frc;
    FUZZ_CHECK(std::memcmp(frc.coef_left, frc.coef_right, sizeof frc.coef_left) == 0,
               "left and right taps differ");
    if (invalid_points(p) != 0) {
        FUZZ_CHECK(frc.enable == 0, "FIR on for a block with an invalid frequency");
        FUZZ_CHECK(std::memcmp(frc.coef_left, defaults.coef_left, sizeof frc.coef_left) == 0,
                   "a refused block did not get the default taps");
        return;
    }
    FUZZ_CHECK(frc.enable == ((p.lc != 0 || p.hp != 0 || p.ea != 0) ? 1 : 0),
               "FIR switch %d for switches %d %d %d", frc.enable, p.lc, p.hp, p.ea);
    for (int k = 0; k < ORLA_FIR_TAPS; ++k) {
        FUZZ_CHECK(std::abs(frc.coef_left[k]) < 3 * (1 << 23), "tap %d is %d", k, frc.coef_left[k]);
    }
    // The summed curve is limited to +7 dB in every bin, so the filter's energy (the mean of
    // its power response) is at most 7 dB above the flat design's; cutting the minimum-phase
    // response to 513 taps only removes energy. A wrong scale in the design shows here. (No
    // lower bound: a curve that swings between its limits from bin to bin leaves much of its
    // energy beyond the 513 taps, and DC may then end up anywhere.)
    const double energy_db = 10.0 * std::log10(tap_energy(frc.coef_left) / tap_energy(defaults.coef_left));
    FUZZ_CHECK(energy_db < 7.5, "energy of the design is %.2f dB above the flat one", energy_db);
}

void check_status(void *w, const sorn_hp_params_t &p) {
    ExactBuffer out(sizeof(sorn_hp_status_t));
    sorn_hp_wrapper_get_parameters(w, out.data());
    sorn_hp_status_t s;
    std::memcpy(&s, out.data(), sizeof s);
    FUZZ_CHECK(s.lc == p.lc && s.hp == p.hp && s.ea == p.ea, "status switches differ from the block");
    FUZZ_CHECK(s.ss == ((p.lc != 0 && p.ss != 0) ? 1 : 0), "surround switch %d for lc %d ss %d",
               s.ss, p.lc, p.ss);
    FUZZ_CHECK(s.state == 2 || s.state == 3, "state %d after a parameter block", s.state);
}

// A loud two-tone signal with full-scale spikes, on the 2^31 scale.
void run_audio(void *w, int format_type) {
    constexpr size_t kFrames = 1000;
    const size_t sample_bytes = format_type == 1 ? 2 : 4;
    ExactBuffer buf(kFrames * 2 * sample_bytes);
    for (int pass = 0; pass < 3; ++pass) {
        for (size_t i = 0; i < kFrames * 2; ++i) {
            const double t = static_cast<double>(pass * kFrames + i / 2) / 48000.0;
            double v = 0.7 * std::sin(2 * M_PI * 997.0 * t) + 0.3 * std::sin(2 * M_PI * 60.0 * t);
            if (i % 331 == 0) v = (i % 2) ? 1.0 : -1.0;
            if (sample_bytes == 2) {
                const auto s = static_cast<int16_t>(std::lround(v * 32767.0));
                std::memcpy(buf.data() + 2 * i, &s, 2);
            } else {
                const int32_t s = format_type == 3 ? static_cast<int32_t>(std::lround(v * 2147483647.0))
                                                   : static_cast<int32_t>(std::lround(v * 8388607.0));
                std::memcpy(buf.data() + 4 * i, &s, 4);
            }
        }
        sorn_hp_wrapper_process(w, buf.data(), buf.size());
    }
}

// The table's points as raw knots for the general curve routine: any count up to the table's,
// any order, coincident or not.
void run_curve(const sorn_hp_params_t &p) {
    const int knots = static_cast<int>(static_cast<uint32_t>(p.reserved[0]) % (SORN_HP_LC_POINTS + 1));
    const int points = 1 + static_cast<int>(static_cast<uint32_t>(p.reserved[1]) % 512);
    ExactBuffer x(knots * sizeof(float)), y(knots * sizeof(float));
    for (int i = 0; i < knots; ++i) {
        const float fx = static_cast<float>(static_cast<int32_t>(p.lc_freq[i]));
        const float fy = static_cast<float>(p.lc_gain[i]);
        std::memcpy(x.data() + i * sizeof(float), &fx, sizeof fx);
        std::memcpy(y.data() + i * sizeof(float), &fy, sizeof fy);
    }
    ExactBuffer freq(points * sizeof(float)), curve(points * sizeof(float));
    clac_frc_curve(reinterpret_cast<float *>(x.data()), reinterpret_cast<float *>(y.data()),
                   reinterpret_cast<float *>(freq.data()), reinterpret_cast<float *>(curve.data()),
                   knots, points, p.reserved[2]);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sorn_fuzz::quiet_logs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const int rate = kRates[data[0] % kRates.size()];
    const int format_type = kFormatTypes[(data[0] >> 3) % kFormatTypes.size()];
    const int blocks = 1 + data[1] % 4;
    data += 2;
    size -= 2;

    static orla_earadapt_params_t defaults = [] {
        orla_earadapt_params_t d{};
        earadapt_params_fill_bypass(&d);
        return d;
    }();

    void *handle = sorn_hp_wrapper_init(rate, format_type, 2);
    FUZZ_CHECK(handle != nullptr, "wrapper not made");
    auto *w = static_cast<sorn_hp_wrapper_t *>(handle);
    const bool usable = w->state == 1;
    for (int b = 0; b < blocks; ++b) {
        ExactBuffer block(kBlockBytes);
        std::memset(block.data(), 0, kBlockBytes);
        const size_t take = size < kBlockBytes ? size : kBlockBytes;
        if (take > 0) std::memcpy(block.data(), data, take);
        data += take;
        size -= take;
        sorn_hp_params_t p;
        std::memcpy(&p, block.data(), kBlockBytes);

        sorn_hp_wrapper_set_parameters(handle, block.data());
        FUZZ_CHECK(std::memcmp(block.data(), &p, kBlockBytes) == 0, "the block was written to");
        if (usable) {
            check_status(handle, p);
            check_taps(w, p, defaults);
        } else {
            FUZZ_CHECK(w->state == 0, "a wrapper in bypass changed state");
        }
        run_curve(p);
    }
    run_audio(handle, format_type);
    sorn_hp_wrapper_deinit(handle);
    return 0;
}
