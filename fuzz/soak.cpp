// Soak run: long stretches of audio through two instances at once, as a phone's audio server
// would drive them for hours: callbacks of changing sizes, parameter blocks, device, mode and
// bypass changes, enable and disable, status queries, occasional reconfiguration, and audio that
// alternates between music-like tones, noise, loud square waves and long digital silence.
//
// It proves that memory stays flat (heap blocks, heap bytes and resident size before and after),
// that process allocates nothing for a frame count it has seen before, and that every result and every
// output sample stays valid. Prints its measurements; exits 1 on any violation.
//
//   sorn_soak [--seconds N] [--seed S]     N seconds of 48 kHz audio per instance (default 3600)
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <random>

#include "fuzz/fuzz_common.h"
#include "tests/support/alloc_counter.h"

namespace {

using namespace sorn_fuzz;
constexpr uint32_t kRate = 48000;
std::atomic<long> g_log_lines{0}, g_mute_trips{0};
// g_active_queries: status answers showing the chain heard and no silence gate.
long g_failures = 0, g_callbacks = 0, g_events = 0, g_queries = 0, g_active_queries = 0;
long long g_steady_allocs = 0;

void fail(const char *what, long detail) {
    if (++g_failures <= 20) std::fprintf(stderr, "soak: %s (%ld)\n", what, detail);
}

// Live heap blocks (allocation counter), bytes in use by the C library's allocator, resident size.
struct Heap { long long blocks; size_t bytes; long rss_kib; };

Heap heap_now() {
    malloc_trim(0);
    const struct mallinfo2 mi = mallinfo2();
    long pages = 0, resident = -1;
    if (!(std::ifstream("/proc/self/statm") >> pages >> resident)) resident = -1;
    return {sorn_test::AllocCounter::live(), mi.uordblks + mi.hblkhd, resident * (sysconf(_SC_PAGESIZE) / 1024)};
}

class Instance {
public:
    Instance(uint32_t seed, uint32_t format, bool accumulate) : rng_(seed) {
        if (AELI.create_effect(&kUuid, 0, 0, &h_) != 0) fail("create", 0);
        configure(format, kRate, accumulate);
        set_block();
        const uint32_t device = AUDIO_DEVICE_OUT_WIRED_HEADPHONE;
        if (send(h_, EFFECT_CMD_SET_DEVICE, 4, &device) != 0 || send(h_, EFFECT_CMD_ENABLE) != 0) fail("device or enable", 0);
    }
    ~Instance() { AELI.release_effect(h_); }

    // One callback: events first (command path), then the buffer (audio path).
    void step() {
        events();
        for (size_t i = 0; i < 2 * frames_; ++i) put_sample(in_.data(), format_, i, next_sample(i % 2));
        audio_buffer_t ib{frames_, {in_.data()}}, ob{frames_, {out_.data()}};
        sorn_test::AllocCounter allocs;
        const int32_t r = (*h_)->process(h_, &ib, &ob);
        if (frames_ <= largest_frames_ && allocs.count() != 0 && sorn_test::AllocCounter::available()) {
            fail("allocation in process at a frame count seen before", static_cast<long>(allocs.count()));
            ++g_steady_allocs;
        }
        largest_frames_ = std::max(largest_frames_, frames_);
        // Disabled, 0 while the fade back to dry runs, then -61 until enabled again.
        fading_ = !enabled_ && fading_ && r == 0;
        if (r != (enabled_ || fading_ ? 0 : -61)) fail("process result", r);
        if (format_ == AUDIO_FORMAT_PCM_FLOAT && bad_output(format_, false, nullptr, out_.data(), 2 * frames_) >= 0)
            fail("float output out of range", bad_output(format_, false, nullptr, out_.data(), 2 * frames_));
        seconds += static_cast<double>(frames_) / rate_;
        ++g_callbacks;
    }

    double seconds = 0.0;

private:
    bool coin(double p) { return std::bernoulli_distribution(p)(rng_); }
    template <typename T>
    T any(T lo, T hi) { return std::uniform_int_distribution<T>(lo, hi)(rng_); }
    double real(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng_); }

    // Audio in segments of a few seconds each: music-like tones with slow level changes, noise,
    // full-scale squares (the rails), or silence long enough to reach the silence gate.
    double next_sample(int ch) {
        if (ch == 0 && left_-- == 0) {
            const int k = any(0, 9);
            kind_ = k < 5 ? 0 : k < 7 ? 1 : k < 8 ? 2 : 3;
            left_ = any<long>(kRate / 4, 6 * kRate), amp_ = real(0.01, 1.0), f1_ = real(30.0, 12000.0), f2_ = real(30.0, 12000.0);
        }
        const double ph = 2 * M_PI * static_cast<double>(t_ += ch) / kRate;
        if (kind_ == 0) return amp_ * (0.6 * std::sin((ch ? f2_ : f1_) * ph) + 0.3 * std::sin((ch ? 1.5 * f1_ : f2_) * ph + ch));
        if (kind_ == 1) return amp_ * real(-1.0, 1.0);
        return kind_ == 2 ? ((std::sin(f1_ * ph) >= 0) != (ch == 1) ? 1.0 : -1.0) : 0.0;
    }

    void configure(uint32_t format, uint32_t rate, bool accumulate) {
        const effect_config_t c = stereo_config(rate, format, accumulate);
        if (send(h_, EFFECT_CMD_SET_CONFIG, sizeof c, &c) != 0) fail("configure", format);
        format_ = format, rate_ = rate;
    }
    // A random block of the kind a tuning client sends; one in ten has a frequency out of range.
    void set_block() {
        sorn_hp_params_t p{};
        p.lc = coin(0.8), p.hp = coin(0.5), p.ea = coin(0.5), p.ss = coin(0.5);
        for (int i = 0; i < SORN_HP_LC_POINTS; ++i)
            p.lc_freq[i] = 40 + 1800 * i, p.lc_gain[i] = any(-12, 12), p.hp_freq[i] = 100 + 1700 * i, p.hp_gain[i] = any(-12, 12);
        for (int i = 0; i < SORN_HP_EA_POINTS; ++i) p.ea_freq[i] = 200 + 2500 * i, p.ea_gain[i] = any(-12, 12);
        if (coin(0.1)) p.hp_freq[4] = 30000;
        if (set_param(h_, SORN_HP_PARAM_BLOCK, &p, sizeof p) != 0) fail("parameter block", 0);
    }

    // The mixer's buffer size, parameter blocks, the device, the mode, enable, bypass, status
    // queries and the stream format change at random. Each switch that silences the processing
    // is rare and switched back soon, so the chain is heard most of the time and every
    // transition still happens often.
    void events() {
        static constexpr std::array<size_t, 8> sizes = {240, 480, 960, 192, 256, 1024, 441, 240};
        static constexpr std::array<uint32_t, 4> devices = {AUDIO_DEVICE_OUT_WIRED_HEADPHONE, AUDIO_DEVICE_OUT_BLUETOOTH_A2DP,
                                                            AUDIO_DEVICE_OUT_USB_HEADSET, AUDIO_DEVICE_OUT_SPEAKER};
        static constexpr std::array<uint32_t, 4> formats = {AUDIO_FORMAT_PCM_FLOAT, AUDIO_FORMAT_PCM_16_BIT,
                                                            AUDIO_FORMAT_PCM_32_BIT, AUDIO_FORMAT_PCM_8_24_BIT};
        if (coin(1.0 / 400)) frames_ = coin(0.3) ? any<size_t>(1, 4096) : sizes[any<size_t>(0, 7)], ++g_events;
        if (coin(1.0 / 3000)) set_block(), ++g_events;
        if (coin(on_speaker_ ? 1.0 / 300 : 1.0 / 3000)) {
            const uint32_t d = devices[any<size_t>(0, on_speaker_ ? 2 : 3)];
            on_speaker_ = d == AUDIO_DEVICE_OUT_SPEAKER, ++g_events;
            if (send(h_, EFFECT_CMD_SET_DEVICE, 4, &d) != 0) fail("device command", d);
        }
        if (coin(in_call_ ? 1.0 / 300 : 1.0 / 10000)) {
            const uint32_t mode = (in_call_ = !in_call_) ? 2 : 0;
            if (++g_events, send(h_, EFFECT_CMD_SET_AUDIO_MODE, 4, &mode) != 0) fail("mode command", mode);
        }
        if (coin(enabled_ ? 1.0 / 8000 : 1.0 / 300)) {
            if (++g_events, send(h_, (enabled_ = !enabled_) ? EFFECT_CMD_ENABLE : EFFECT_CMD_DISABLE) != 0) fail("enable", enabled_);
            fading_ = !enabled_;
        }
        if (coin(bypass_ ? 1.0 / 300 : 1.0 / 10000)) {
            const uint32_t on = (bypass_ = !bypass_) ? 1 : 0;
            if (++g_events, set_param(h_, SORN_HP_PARAM_BYPASS, &on, 4) != 0) fail("bypass", 0);
        }
        if (coin(1.0 / 1000)) {  // the status query of a tuning tool
            uint32_t query[4] = {0, 4, 1024, 201}, size = 1040;
            std::vector<char> reply(1040);
            if ((*h_)->command(h_, EFFECT_CMD_GET_PARAM, 16, query, &size, reply.data()) != 0 || size != 1040) fail("status query", size);
            ++g_queries, g_active_queries += std::strstr(reply.data() + 16, "state: 1  mute: 0") != nullptr;
        }
        if (coin(1.0 / 30000)) {  // a new stream format, sometimes at 44.1 kHz for a while
            const uint32_t format = formats[any<size_t>(0, 3)], rate = coin(0.2) ? 44100 : kRate;
            configure(format, rate, coin(0.5)), ++g_events;
        }
    }

    std::mt19937 rng_;
    effect_handle_t h_ = nullptr;
    uint32_t format_ = 0, rate_ = kRate;
    bool enabled_ = true, fading_ = false, on_speaker_ = false, in_call_ = false, bypass_ = false;
    size_t frames_ = 240, largest_frames_ = 0;
    std::vector<uint8_t> in_ = std::vector<uint8_t>(8 * 4096), out_ = std::vector<uint8_t>(8 * 4096);
    int kind_ = 0;
    long left_ = 0, t_ = 0;
    double amp_ = 0.5, f1_ = 440.0, f2_ = 1000.0;
};

}  // namespace

int main(int argc, char **argv) {
    // The allocator's per-thread cache keeps freed blocks counted as in use; without it the heap
    // statistics show exactly what the library holds. The setting only takes effect at start-up.
    if (std::getenv("SORN_SOAK_CHILD") == nullptr) {
        setenv("SORN_SOAK_CHILD", "1", 1);
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
        execv("/proc/self/exe", argv);
        std::perror("soak: re-exec");  // run on with the cache in place
    }
    double seconds = 3600.0;
    uint32_t seed = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::atof(argv[i + 1]);
        else if (std::strcmp(argv[i], "--seed") == 0) seed = static_cast<uint32_t>(std::atol(argv[i + 1]));
        else return std::fprintf(stderr, "usage: %s [--seconds N] [--seed S]\n", argv[0]), 2;
    }
    // Log lines are formatted but only counted; the mute trip of a chain is worth knowing.
    __android_log_set_logger([](const struct __android_logger_data *, const char *msg) {
        ++g_log_lines;
        if (msg != nullptr && std::strstr(msg, "process cause mute") != nullptr) ++g_mute_trips;
    });
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    // One short run first, so that what the C library and the platform layer allocate once
    // per process (stdio buffers, the property map) is not counted against the instances.
    std::printf("soak: %.0f s of audio per instance, seed %u\n", seconds, seed);
    {
        Instance prime(seed + 7, AUDIO_FORMAT_PCM_FLOAT, false);
        for (int i = 0; i < 50; ++i) prime.step();
    }
    g_callbacks = g_events = g_queries = g_active_queries = g_steady_allocs = 0;
    const auto t0 = std::chrono::steady_clock::now();
    const Heap before = heap_now();
    Heap warm{}, end{};
    double audio[2] = {};
    {
        Instance a(seed, AUDIO_FORMAT_PCM_FLOAT, false), b(seed + 1000, AUDIO_FORMAT_PCM_16_BIT, true);
        for (double next_report = seconds / 10; a.seconds < seconds || b.seconds < seconds;) {
            if (a.seconds < seconds) a.step();
            if (b.seconds < seconds) b.step();
            const double done = std::min(a.seconds, b.seconds);
            if (warm.rss_kib == 0 && done >= std::min(60.0, seconds / 10)) warm = heap_now();
            if (done >= next_report) {
                const Heap h = heap_now();
                std::printf("soak: %6.0f s of audio, resident %ld KiB, heap %zu bytes in %lld blocks\n", done, h.rss_kib, h.bytes, h.blocks);
                next_report += seconds / 10;
            }
        }
        end = heap_now();
        if (warm.rss_kib == 0) warm = end;
        audio[0] = a.seconds, audio[1] = b.seconds;
    }
    const Heap after = heap_now();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    std::printf("soak: audio %.0f s + %.0f s at 48 kHz, wall %.1f s (%.0fx real time per instance)\n", audio[0], audio[1], wall,
                (audio[0] + audio[1]) / wall / 2);
    std::printf("soak: %ld callbacks, %ld events, %ld log lines, %ld mute trips\n", g_callbacks, g_events, g_log_lines.load(),
                g_mute_trips.load());
    std::printf("soak: %ld of %ld status queries found the processed output on and sounding\n", g_active_queries, g_queries);
    std::printf("soak: heap blocks before %lld, after warm-up %lld, at the end %lld, after release %lld\n", before.blocks,
                warm.blocks, end.blocks, after.blocks);
    std::printf("soak: heap bytes before %zu, after warm-up %zu, at the end %zu, after release %zu\n", before.bytes, warm.bytes,
                end.bytes, after.bytes);
    std::printf("soak: resident KiB before %ld, after warm-up %ld, at the end %ld, after release %ld\n", before.rss_kib,
                warm.rss_kib, end.rss_kib, after.rss_kib);
    if (sorn_test::AllocCounter::available()) {
        std::printf("soak: allocations in process at a steady frame count: %lld\n", g_steady_allocs);
        if (after.blocks != before.blocks) fail("heap blocks lost", static_cast<long>(after.blocks - before.blocks));
        if (after.bytes != before.bytes) fail("heap bytes lost", static_cast<long>(after.bytes - before.bytes));
        // Resident size may wobble with the buffer sizes of the moment, but must not grow with time.
        if (end.rss_kib > warm.rss_kib + 2048) fail("resident size grew (KiB)", end.rss_kib - warm.rss_kib);
    } else {
        // A sanitizer owns the allocator (and holds freed memory back on purpose): it checks
        // leaks itself at exit, and the memory figures above say nothing.
        std::printf("soak: memory checks skipped under this sanitizer\n");
    }
    std::printf("soak: %s\n", g_failures == 0 ? "PASS" : "FAIL");
    return g_failures == 0 ? 0 : 1;
}
