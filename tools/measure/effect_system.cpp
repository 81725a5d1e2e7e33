#include "tools/measure/effect_system.h"

#include <cmath>
#include <complex>
#include <memory>

namespace sorn_tool {

SystemFactory effect_system_factory(const EffectLibrary &lib, int rate, const RunSettings &settings,
                                    RunReport *status) {
    return [&lib, rate, settings, status](SampleFormat format, System &sys, std::string &error) {
        auto session = std::shared_ptr<EffectSession>(new EffectSession, [](EffectSession *s) {
            effect_session_stop(*s);
            delete s;
        });
        if (!effect_session_start(lib, rate, format, settings, *session, error)) return false;
        if (status) *status = session->report;
        sys.rate = rate;
        sys.block = static_cast<int>(settings.frames_per_call);
        sys.process = [session, format, in = std::vector<uint8_t>(), out = std::vector<uint8_t>()](
                          const float *x, float *y, int64_t frames, std::string &err) mutable {
            const size_t samples = static_cast<size_t>(frames) * 2, bytes = samples * audio_sample_bytes(format);
            in.resize(bytes), out.resize(bytes);
            convert_from_float(x, in.data(), format, samples);
            if (!effect_session_process(*session, in.data(), out.data(), frames, err)) return false;
            convert_to_float(out.data(), format, y, samples);
            return true;
        };
        return true;
    };
}

double surround_side_lift_db(double freq_hz, int rate, bool surround_on) {
    if (!surround_on) return 0.0;
    const double k = std::tan(2.0 * M_PI * 5000.0 / rate), b0 = k / (1 + k), a1 = (1 - k) / (1 + k), gain = 0.3;
    const std::complex<double> z1 = std::polar(1.0, -2.0 * M_PI * freq_hz / rate);
    const std::complex<double> lp = b0 * (1.0 + z1) / (1.0 - a1 * z1);
    return 20.0 * std::log10(std::abs(1.0 + 2.0 * gain * lp));
}

}  // namespace sorn_tool
