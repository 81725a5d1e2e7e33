// The client parameter block alone: one to four blocks of raw bytes handed to
// sorn_hp_wrapper_set_parameters on a fresh wrapper (each through an exact 292-byte buffer), so
// the tables reach the validation and the response design in every degenerate shape: unordered,
// repeated, at and beyond the frequency limits, extreme gains. Then a few blocks of loud audio
// through the wrapper, and the same table's points as raw knots through clac_frc_curve.
//
// Input: byte 0 picks the sample rate and the wrapper's format type, byte 1 the number of
// blocks, then the blocks (short ones are zero-filled).
//
// Checked: the block is only read; the status record mirrors the block (switches, the
// effective surround switch, a running state); both tap sets are identical; a block with an
// invalid frequency in a group in use gets the default taps with the FIR off; designed taps stay
// below 3.0 in Q23 and their energy within the +7 dB the curve is limited to.
#include <array>
#include <functional>
#include <numeric>

#include "design/frc_curve.h"
#include "dsp/sorn_hp_effect.h"
#include "fuzz/fuzz_common.h"
#include "wrapper/sorn_hp_wrapper.h"

namespace {

using sorn_fuzz::ExactBuffer;

double tap_energy(const int32_t *t) { return std::inner_product(t, t + ORLA_FIR_TAPS, t, 0.0, std::plus<>(), std::multiplies<double>()); }

void check_block(void *handle, const sorn_hp_params_t &p, const orla_earadapt_params_t &defaults) {
    ExactBuffer out(sizeof(sorn_hp_status_t));
    sorn_hp_wrapper_get_parameters(handle, out.data());
    sorn_hp_status_t s;
    std::memcpy(&s, out.data(), sizeof s);
    FUZZ_CHECK(s.lc == p.lc && s.hp == p.hp && s.ea == p.ea, "status switches differ from the block");
    FUZZ_CHECK(s.ss == (p.lc != 0 && p.ss != 0), "surround switch %d for lc %d ss %d", s.ss, p.lc, p.ss);
    FUZZ_CHECK(s.state == 2 || s.state == 3, "state %d after a parameter block", s.state);

    const orla_earadapt_params_t &frc = static_cast<sorn_hp_wrapper_t *>(handle)->frc;
    const size_t bytes = sizeof frc.coef_left;
    FUZZ_CHECK(std::memcmp(frc.coef_left, frc.coef_right, bytes) == 0, "left and right taps differ");
    int invalid = 0;  // frequencies of the groups in use that must be refused (above 22000 Hz, unsigned)
    for (int i = 0; i < SORN_HP_LC_POINTS; ++i) invalid += (p.lc >= 1 && p.lc_freq[i] > 22000u) + (p.hp >= 1 && p.hp_freq[i] > 22000u);
    for (int i = 0; i < SORN_HP_EA_POINTS; ++i) invalid += p.ea >= 1 && p.ea_freq[i] > 22000u;
    if (invalid != 0) {
        FUZZ_CHECK(frc.enable == 0 && std::memcmp(frc.coef_left, defaults.coef_left, bytes) == 0,
                   "a refused block did not get the default taps with the FIR off");
        return;
    }
    FUZZ_CHECK(frc.enable == (p.lc != 0 || p.hp != 0 || p.ea != 0), "FIR switch %d for switches %d %d %d",
               frc.enable, p.lc, p.hp, p.ea);
    for (int k = 0; k < ORLA_FIR_TAPS; ++k) FUZZ_CHECK(std::abs(frc.coef_left[k]) < 3 * (1 << 23), "tap %d is %d", k, frc.coef_left[k]);
    // The summed curve is limited to +7 dB in every bin, so the filter's energy (the mean of
    // its power response) is at most 7 dB above the flat design's; cutting the minimum-phase
    // response to 513 taps only removes energy. A wrong scale in the design shows here. (No
    // lower bound: a curve that swings between its limits from bin to bin leaves much of its
    // energy beyond the 513 taps, and DC may then end up anywhere.)
    const double energy_db = 10.0 * std::log10(tap_energy(frc.coef_left) / tap_energy(defaults.coef_left));
    FUZZ_CHECK(energy_db < 7.5, "energy of the design is %.2f dB above the flat one", energy_db);
}

// The table's points as raw knots for the general curve routine: any count up to the table's,
// any order, coincident or not.
void run_curve(const sorn_hp_params_t &p) {
    const int knots = static_cast<int>(static_cast<uint32_t>(p.reserved[0]) % (SORN_HP_LC_POINTS + 1));
    const int points = 1 + static_cast<int>(static_cast<uint32_t>(p.reserved[1]) % 512);
    ExactBuffer x(knots * sizeof(float)), y(knots * sizeof(float)), freq(points * sizeof(float)), curve(points * sizeof(float));
    auto *xf = reinterpret_cast<float *>(x.data()), *yf = reinterpret_cast<float *>(y.data());
    for (int i = 0; i < knots; ++i) xf[i] = float(int32_t(p.lc_freq[i])), yf[i] = float(p.lc_gain[i]);
    clac_frc_curve(xf, yf, reinterpret_cast<float *>(freq.data()), reinterpret_cast<float *>(curve.data()), knots, points,
                   p.reserved[2]);
}

}  // namespace

SORN_FUZZ_INITIALIZE

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr std::array<int, 8> kRates = {48000, 44100, 44050, 48050, 47999, 96000, 48000, 44100};
    constexpr std::array<int, 4> kFormatTypes = {3, 3, 1, 2};
    constexpr std::array<uint32_t, 4> kFormats = {0, AUDIO_FORMAT_PCM_16_BIT, AUDIO_FORMAT_PCM_8_24_BIT, AUDIO_FORMAT_PCM_32_BIT};
    if (size < 2) return 0;
    const int rate = kRates[data[0] % kRates.size()], format_type = kFormatTypes[(data[0] >> 3) % kFormatTypes.size()];
    const int blocks = 1 + data[1] % 4;
    data += 2, size -= 2;
    static const orla_earadapt_params_t defaults = [] { orla_earadapt_params_t d{}; return earadapt_params_fill_bypass(&d), d; }();

    void *handle = sorn_hp_wrapper_init(rate, format_type, 2);
    FUZZ_CHECK(handle != nullptr, "wrapper not made");
    const bool usable = static_cast<sorn_hp_wrapper_t *>(handle)->state == 1;
    for (int b = 0; b < blocks; ++b) {
        ExactBuffer block(sizeof(sorn_hp_params_t), 0);
        const size_t take = std::min(size, block.size());
        if (take > 0) std::memcpy(block.data(), data, take);
        data += take, size -= take;
        sorn_hp_params_t p;
        std::memcpy(&p, block.data(), sizeof p);
        sorn_hp_wrapper_set_parameters(handle, block.data());
        FUZZ_CHECK(std::memcmp(block.data(), &p, sizeof p) == 0, "the block was written to");
        if (usable) check_block(handle, p, defaults);
        else FUZZ_CHECK(static_cast<sorn_hp_wrapper_t *>(handle)->state == 0, "a wrapper in bypass changed state");
        run_curve(p);
    }
    // A loud two-tone signal with full-scale spikes, three calls of 1000 frames.
    const uint32_t format = kFormats[format_type];
    ExactBuffer buf(1000 * 2 * sorn_fuzz::bytes_per_sample(format));
    for (int pass = 0; pass < 3; ++pass) {
        for (size_t i = 0; i < 2000; ++i) {
            const double t = static_cast<double>(pass * 1000 + i / 2) / 48000.0;
            const double v = 0.7 * std::sin(2 * M_PI * 997.0 * t) + 0.3 * std::sin(2 * M_PI * 60.0 * t);
            sorn_fuzz::put_sample(buf.data(), format, i, i % 331 == 0 ? ((i % 2) ? 1.0 : -1.0) : v);
        }
        sorn_hp_wrapper_process(handle, buf.data(), buf.size());
    }
    sorn_hp_wrapper_deinit(handle);
    return 0;
}
