#include "tools/host/demo_program.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace sorn_tool {

namespace {

constexpr double kTwoPi = 2.0 * M_PI;
constexpr double kFade = 0.01; /* seconds of fade at each section edge */

double db(double v) { return std::pow(10.0, v / 20.0); }

/* Small deterministic generator (xorshift64*), uniform in [-1, 1). */
struct Noise {
    uint64_t s;
    double next() {
        s ^= s >> 12;
        s ^= s << 25;
        s ^= s >> 27;
        return double((s * 0x2545F4914F6CDD1DULL) >> 11) / double(1ULL << 52) - 1.0;
    }
};

/* Pink noise by Paul Kellet's refined filter of white noise. */
struct Pink {
    Noise white;
    double b[7] = {};
    double next() {
        double w = white.next();
        b[0] = 0.99886 * b[0] + w * 0.0555179;
        b[1] = 0.99332 * b[1] + w * 0.0750759;
        b[2] = 0.96900 * b[2] + w * 0.1538520;
        b[3] = 0.86650 * b[3] + w * 0.3104856;
        b[4] = 0.55000 * b[4] + w * 0.5329522;
        b[5] = -0.7616 * b[5] - w * 0.0168980;
        double out = b[0] + b[1] + b[2] + b[3] + b[4] + b[5] + b[6] + w * 0.5362;
        b[6] = w * 0.115926;
        return out * 0.11;
    }
};

double edge_gain(double t, double length) {
    if (t < kFade) return t / kFade;
    if (t > length - kFade) return std::max(0.0, (length - t) / kFade);
    return 1.0;
}

/* A major chord (A3, C#4, E4, A4) whose notes are plucked every `period` seconds. */
double chord(double t, double period, double level) {
    static const double kNotes[] = {220.0, 277.18, 329.63, 440.0};
    const double since = std::fmod(t, period);
    double v = 0.0;
    for (int i = 0; i < 4; ++i) {
        double f = kNotes[i];
        // Harmonics give the attack its bite; they decay faster than the fundamental.
        v += std::sin(kTwoPi * f * t) * std::exp(-since * 3.0);
        v += 0.3 * std::sin(kTwoPi * 3.0 * f * t) * std::exp(-since * 9.0);
    }
    const double attack = since < 0.004 ? since / 0.004 : 1.0;
    return level * attack * v / 4.0;
}

}  // namespace

const std::vector<DemoSection> &demo_sections() {
    static const std::vector<DemoSection> kSections = {
        {0.0, 3.0, "sine sweep 20 Hz to 20 kHz, -12 dBFS"},
        {3.0, 2.0, "pink noise, -20 dBFS RMS"},
        {5.0, 3.0, "plucked chord with transients"},
        {8.0, 2.0, "loud passage for the limiter"},
        {10.0, 1.5, "digital silence for the gate"},
        {11.5, 1.0, "chord after the silence"},
    };
    return kSections;
}

AudioBuffer demo_program(int rate) {
    const auto &sections = demo_sections();
    const double total = sections.back().start_s + sections.back().length_s;
    AudioBuffer buf;
    audio_allocate(buf, rate, 2, static_cast<int64_t>(std::llround(total * rate)), SampleFormat::f32);
    Pink pink_l{{0x9E3779B97F4A7C15ULL}}, pink_r{{0xD1B54A32D192ED03ULL}};
    Noise hiss{0x2545F4914F6CDD1DULL};
    const double f0 = 20.0, f1 = 20000.0, sweep_len = sections[0].length_s;
    const double k = std::log(f1 / f0);
    for (int64_t n = 0; n < buf.frames; ++n) {
        const double t = double(n) / rate;
        double l = 0.0, r = 0.0;
        for (size_t s = 0; s < sections.size(); ++s) {
            const double u = t - sections[s].start_s;
            if (u < 0.0 || u >= sections[s].length_s) continue;
            const double g = edge_gain(u, sections[s].length_s);
            switch (s) {
            case 0: {  // exponential sweep: phase = 2 pi f0 T / k (e^(k t / T) - 1)
                double v = db(-12.0) * std::sin(kTwoPi * f0 * sweep_len / k * (std::exp(k * u / sweep_len) - 1.0));
                l = r = g * v;
                break;
            }
            case 1:
                l = g * db(-20.0) * 2.0 * pink_l.next();
                r = g * db(-20.0) * 2.0 * pink_r.next();
                break;
            case 2:
                l = g * chord(u, 0.5, db(-10.0));
                r = g * chord(u + 0.25, 0.5, db(-12.0));
                break;
            case 3: {
                double c = chord(u, 0.25, db(-1.0)) * 2.2;
                l = g * std::clamp(c + 0.15 * hiss.next(), -0.97, 0.97);
                r = g * std::clamp(c + 0.15 * hiss.next(), -0.97, 0.97);
                break;
            }
            case 4:
                break;  // exact zeros
            case 5:
                l = r = g * chord(u, 1.0, db(-10.0));
                break;
            }
        }
        buf.f32[2 * n] = static_cast<float>(l);
        buf.f32[2 * n + 1] = static_cast<float>(r);
    }
    return buf;
}

}  // namespace sorn_tool
