// Soak run: long stretches of audio through two instances at once, as a phone's audio server
// would drive them for hours: callbacks of changing sizes, parameter blocks, device, mode and
// bypass changes, enable and disable, status queries, occasional reconfiguration, and audio that
// alternates between music-like tones, noise, loud square waves and long digital silence.
//
// It proves that memory stays flat (heap blocks, heap bytes and resident size before and after),
// that process allocates nothing once the frame count is steady, and that every result and every
// output sample stays valid. Prints its measurements; exits 1 on any violation.
//
//   sorn_soak [--seconds N] [--seed S]     N seconds of 48 kHz audio per instance (default 3600)
#include <android/log.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "effect/sorn_hp_entry.h"
#include "tests/support/alloc_counter.h"
#include "wrapper/sorn_hp_params.h"

namespace {

constexpr effect_uuid_t kUuid = {0x40050b20, 0x6999, 0x11e0, 0xb0d8,
                                 {0x00, 0x02, 0xa5, 0xd5, 0xc5, 0x34}};
constexpr uint32_t kRate = 48000;

std::atomic<long> g_log_lines{0};
std::atomic<long> g_mute_trips{0};
long g_failures = 0;

void fail(const char *what, long detail) {
    if (++g_failures <= 20) std::fprintf(stderr, "soak: %s (%ld)\n", what, detail);
}

long resident_kib() {
    long pages = 0, resident = 0;
    FILE *f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return -1;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = -1;
    std::fclose(f);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

struct Heap {
    long long blocks;  // live heap blocks (allocation counter)
    size_t bytes;      // bytes in use by the C library's allocator
    long rss_kib;
};

Heap heap_now() {
    malloc_trim(0);
    const struct mallinfo2 mi = mallinfo2();
    return {sorn_test::AllocCounter::live(), mi.uordblks + mi.hblkhd, resident_kib()};
}

// Audio in segments of a few seconds each: tones, noise, loud squares, or silence long enough
// to reach the effect's silence gate.
class Source {
public:
    explicit Source(uint32_t seed) : rng_(seed) {}

    // One interleaved stereo frame in [-1, 1].
    void next(double &l, double &r) {
        if (left_ == 0) start_segment();
        --left_;
        ++t_;
        const double ph = static_cast<double>(t_) / kRate;
        switch (kind_) {
            case 0:  // music-like: two tones with slow level changes
                l = amp_ * (0.6 * std::sin(2 * M_PI * f1_ * ph) + 0.3 * std::sin(2 * M_PI * f2_ * ph));
                r = amp_ * (0.5 * std::sin(2 * M_PI * f2_ * ph + 1.0) + 0.4 * std::sin(2 * M_PI * f1_ * 1.5 * ph));
                break;
            case 1:  // noise
                l = amp_ * noise_(rng_);
                r = amp_ * noise_(rng_);
                break;
            case 2:  // full-scale square, the rails
                l = std::sin(2 * M_PI * f1_ * ph) >= 0 ? 1.0 : -1.0;
                r = -l;
                break;
            default:  // digital silence
                l = r = 0.0;
                break;
        }
    }

private:
    void start_segment() {
        kind_ = std::uniform_int_distribution<int>(0, 9)(rng_);
        kind_ = kind_ < 5 ? 0 : kind_ < 7 ? 1 : kind_ < 8 ? 2 : 3;
        left_ = std::uniform_int_distribution<long>(kRate / 4, 6 * kRate)(rng_);
        amp_ = std::uniform_real_distribution<double>(0.01, 1.0)(rng_);
        f1_ = std::uniform_real_distribution<double>(30.0, 12000.0)(rng_);
        f2_ = std::uniform_real_distribution<double>(30.0, 12000.0)(rng_);
    }

    std::mt19937 rng_;
    std::uniform_real_distribution<double> noise_{-1.0, 1.0};
    int kind_ = 0;
    long left_ = 0;
    long t_ = 0;
    double amp_ = 0.5, f1_ = 440.0, f2_ = 1000.0;
};

class Instance {
public:
    Instance(uint32_t seed, uint32_t format, bool accumulate)
        : rng_(seed), source_(seed * 7 + 1), format_(format), accumulate_(accumulate) {
        if (AELI.create_effect(&kUuid, 0, 0, &h_) != 0) fail("create", 0);
        configure(format_, kRate, accumulate_);
        set_block();
        set_word(EFFECT_CMD_SET_DEVICE, AUDIO_DEVICE_OUT_WIRED_HEADPHONE);
        if (status(EFFECT_CMD_ENABLE, 0, nullptr) != 0) fail("enable", 0);
        enabled_ = true;
        in_.resize(8 * 4096);
        out_.resize(8 * 4096);
    }
    ~Instance() { AELI.release_effect(h_); }

    // One callback: events first (command path), then the buffer (audio path).
    void step() {
        events();
        for (size_t i = 0; i < frames_; ++i) {
            double l, r;
            source_.next(l, r);
            put(in_.data(), 2 * i, l);
            put(in_.data(), 2 * i + 1, r);
        }
        audio_buffer_t ib{frames_, {in_.data()}}, ob{frames_, {out_.data()}};
        sorn_test::AllocCounter allocs;
        const int32_t r = (*h_)->process(h_, &ib, &ob);
        const long long n = allocs.count();
        if (frames_ == last_frames_ && n != 0 && sorn_test::AllocCounter::available()) {
            fail("allocation in process at a steady frame count", static_cast<long>(n));
            ++steady_allocs_;
        }
        last_frames_ = frames_;
        if (r != (enabled_ ? 0 : -61)) fail("process result", r);
        check_output();
        seconds_ += static_cast<double>(frames_) / rate_;
        ++callbacks_;
    }

    double seconds() const { return seconds_; }
    long callbacks() const { return callbacks_; }
    long event_count() const { return events_; }
    long long steady_allocs() const { return steady_allocs_; }
    long queries() const { return queries_; }
    long active_queries() const { return active_queries_; }

private:
    int32_t status(uint32_t code, uint32_t size, void *data) {
        int32_t reply = -1;
        uint32_t reply_size = 4;
        const int32_t r = (*h_)->command(h_, code, size, data, &reply_size, &reply);
        return r != 0 ? r : reply;
    }
    void set_word(uint32_t code, uint32_t v) {
        if (status(code, 4, &v) != 0) fail("device or mode command", code);
    }
    void configure(uint32_t format, uint32_t rate, bool accumulate) {
        effect_config_t c{};
        for (buffer_config_t *b : {&c.inputCfg, &c.outputCfg}) {
            b->samplingRate = rate;
            b->channels = AUDIO_CHANNEL_OUT_STEREO;
            b->format = static_cast<uint8_t>(format);
        }
        c.inputCfg.accessMode = EFFECT_BUFFER_ACCESS_READ;
        c.outputCfg.accessMode = accumulate ? EFFECT_BUFFER_ACCESS_ACCUMULATE : EFFECT_BUFFER_ACCESS_WRITE;
        if (status(EFFECT_CMD_SET_CONFIG, sizeof c, &c) != 0) fail("configure", format);
        format_ = format;
        rate_ = rate;
        accumulate_ = accumulate;
    }
    // A random block of the kind a tuning client sends; one in ten has a frequency out of range.
    void set_block() {
        sorn_hp_params_t p{};
        auto gain = std::uniform_int_distribution<int32_t>(-12, 12);
        p.lc = coin(0.8);
        p.hp = coin(0.5);
        p.ea = coin(0.5);
        p.ss = coin(0.5);
        for (int i = 0; i < SORN_HP_LC_POINTS; ++i) {
            p.lc_freq[i] = 40 + 1800 * i;
            p.lc_gain[i] = gain(rng_);
            p.hp_freq[i] = 100 + 1700 * i;
            p.hp_gain[i] = gain(rng_);
        }
        for (int i = 0; i < SORN_HP_EA_POINTS; ++i) {
            p.ea_freq[i] = 200 + 2500 * i;
            p.ea_gain[i] = gain(rng_);
        }
        if (coin(0.1)) p.hp_freq[4] = 30000;
        std::vector<uint8_t> cmd(16 + sizeof p);
        const uint32_t header[4] = {0, 4, sizeof p, 100};
        std::memcpy(cmd.data(), header, 16);
        std::memcpy(cmd.data() + 16, &p, sizeof p);
        if (status(EFFECT_CMD_SET_PARAM, static_cast<uint32_t>(cmd.size()), cmd.data()) != 0) fail("parameter block", 0);
    }
    bool coin(double p) { return std::bernoulli_distribution(p)(rng_); }

    void events() {
        if (coin(1.0 / 400)) {  // the mixer changes its buffer size
            static constexpr std::array<size_t, 8> usual = {240, 480, 960, 192, 256, 1024, 441, 240};
            frames_ = coin(0.3) ? std::uniform_int_distribution<size_t>(1, 4096)(rng_)
                                : usual[std::uniform_int_distribution<size_t>(0, usual.size() - 1)(rng_)];
            ++events_;
        }
        if (coin(1.0 / 3000)) { set_block(); ++events_; }
        // Each switch that silences the processing is rare, and switched back soon, so the
        // chain is heard most of the time and every transition still happens often.
        if (coin(on_speaker_ ? 1.0 / 300 : 1.0 / 3000)) {
            static constexpr std::array<uint32_t, 4> devices = {
                AUDIO_DEVICE_OUT_WIRED_HEADPHONE, AUDIO_DEVICE_OUT_BLUETOOTH_A2DP,
                AUDIO_DEVICE_OUT_USB_HEADSET, AUDIO_DEVICE_OUT_SPEAKER};
            const size_t d = std::uniform_int_distribution<size_t>(0, on_speaker_ ? 2 : 3)(rng_);
            on_speaker_ = d == 3;
            set_word(EFFECT_CMD_SET_DEVICE, devices[d]);
            ++events_;
        }
        if (coin(in_call_ ? 1.0 / 300 : 1.0 / 10000)) {
            in_call_ = !in_call_;
            set_word(EFFECT_CMD_SET_AUDIO_MODE, in_call_ ? 2 : 0);
            ++events_;
        }
        if (coin(enabled_ ? 1.0 / 8000 : 1.0 / 300)) {
            if (status(enabled_ ? EFFECT_CMD_DISABLE : EFFECT_CMD_ENABLE, 0, nullptr) != 0) fail("enable or disable", enabled_);
            enabled_ = !enabled_;
            ++events_;
        }
        if (coin(bypass_ ? 1.0 / 300 : 1.0 / 10000)) {
            bypass_ = !bypass_;
            std::array<uint32_t, 5> cmd = {0, 4, 4, 900, bypass_ ? 1u : 0u};
            if (status(EFFECT_CMD_SET_PARAM, sizeof cmd, cmd.data()) != 0) fail("bypass", 0);
            ++events_;
        }
        if (coin(1.0 / 1000)) {  // the status query of a tuning tool
            uint32_t query[4] = {0, 4, 1024, 201};
            std::vector<char> reply(1040);
            uint32_t size = 1040;
            if ((*h_)->command(h_, EFFECT_CMD_GET_PARAM, 16, query, &size, reply.data()) != 0 || size != 1040) fail("status query", size);
            ++queries_;
            if (std::strstr(reply.data() + 16, "state: 1  mute: 0") != nullptr) ++active_queries_;
        }
        if (coin(1.0 / 30000)) {  // a new stream format, sometimes at 44.1 kHz for a while
            static constexpr std::array<uint32_t, 4> formats = {AUDIO_FORMAT_PCM_FLOAT, AUDIO_FORMAT_PCM_16_BIT,
                                                                AUDIO_FORMAT_PCM_32_BIT, AUDIO_FORMAT_PCM_8_24_BIT};
            configure(formats[std::uniform_int_distribution<size_t>(0, 3)(rng_)], coin(0.2) ? 44100 : kRate, coin(0.5));
            ++events_;
        }
    }

    void put(uint8_t *buf, size_t i, double v) {
        switch (format_) {
            case AUDIO_FORMAT_PCM_FLOAT: { const float f = static_cast<float>(v); std::memcpy(buf + 4 * i, &f, 4); break; }
            case AUDIO_FORMAT_PCM_16_BIT: { const auto s = static_cast<int16_t>(std::lround(v * 32767.0)); std::memcpy(buf + 2 * i, &s, 2); break; }
            case AUDIO_FORMAT_PCM_8_24_BIT: { const auto s = static_cast<int32_t>(std::lround(v * 8388607.0)); std::memcpy(buf + 4 * i, &s, 4); break; }
            default: { const auto s = static_cast<int32_t>(std::lround(v * 2147483647.0)); std::memcpy(buf + 4 * i, &s, 4); break; }
        }
    }

    void check_output() {
        if (format_ != AUDIO_FORMAT_PCM_FLOAT) return;  // integer samples are valid by type
        for (size_t i = 0; i < 2 * frames_; ++i) {
            float v;
            std::memcpy(&v, out_.data() + 4 * i, 4);
            if (!std::isfinite(v) || v < -1.0f || v > 1.0f) {
                fail("float output out of range", static_cast<long>(i));
                return;
            }
        }
    }

    std::mt19937 rng_;
    Source source_;
    effect_handle_t h_ = nullptr;
    uint32_t format_;
    uint32_t rate_ = kRate;
    bool accumulate_;
    bool enabled_ = false;
    bool on_speaker_ = false;
    bool in_call_ = false;
    bool bypass_ = false;
    size_t frames_ = 240;
    size_t last_frames_ = 0;
    std::vector<uint8_t> in_, out_;
    double seconds_ = 0.0;
    long callbacks_ = 0;
    long events_ = 0;
    long long steady_allocs_ = 0;
    long queries_ = 0;
    long active_queries_ = 0;  // status answers showing the chain heard and no silence gate
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
        else { std::fprintf(stderr, "usage: %s [--seconds N] [--seed S]\n", argv[0]); return 2; }
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
    const auto t0 = std::chrono::steady_clock::now();
    const Heap before = heap_now();
    Heap warm{}, end{};
    double audio[2] = {};
    long callbacks = 0, events = 0, queries = 0, active_queries = 0;
    long long steady_allocs = 0;
    {
        Instance a(seed, AUDIO_FORMAT_PCM_FLOAT, false);
        Instance b(seed + 1000, AUDIO_FORMAT_PCM_16_BIT, true);
        bool warmed = false;
        double next_report = seconds / 10;
        while (a.seconds() < seconds || b.seconds() < seconds) {
            if (a.seconds() < seconds) a.step();
            if (b.seconds() < seconds) b.step();
            const double done = std::min(a.seconds(), b.seconds());
            if (!warmed && done >= std::min(60.0, seconds / 10)) {
                warm = heap_now();
                warmed = true;
            }
            if (done >= next_report) {
                const Heap h = heap_now();
                std::printf("soak: %6.0f s of audio, resident %ld KiB, heap %zu bytes in %lld blocks\n",
                            done, h.rss_kib, h.bytes, h.blocks);
                next_report += seconds / 10;
            }
        }
        end = heap_now();
        audio[0] = a.seconds();
        audio[1] = b.seconds();
        callbacks = a.callbacks() + b.callbacks();
        events = a.event_count() + b.event_count();
        steady_allocs = a.steady_allocs() + b.steady_allocs();
        queries = a.queries() + b.queries();
        active_queries = a.active_queries() + b.active_queries();
        if (!warmed) warm = end;
    }
    const Heap after = heap_now();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    std::printf("soak: audio %.0f s + %.0f s at 48 kHz, wall %.1f s (%.0fx real time per instance)\n",
                audio[0], audio[1], wall, (audio[0] + audio[1]) / wall / 2);
    std::printf("soak: %ld callbacks, %ld events, %ld log lines, %ld mute trips\n", callbacks, events,
                g_log_lines.load(), g_mute_trips.load());
    std::printf("soak: %ld of %ld status queries found the processed output on and sounding\n",
                active_queries, queries);
    std::printf("soak: heap blocks before %lld, after warm-up %lld, at the end %lld, after release %lld\n",
                before.blocks, warm.blocks, end.blocks, after.blocks);
    std::printf("soak: heap bytes before %zu, after warm-up %zu, at the end %zu, after release %zu\n",
                before.bytes, warm.bytes, end.bytes, after.bytes);
    std::printf("soak: resident KiB before %ld, after warm-up %ld, at the end %ld, after release %ld\n",
                before.rss_kib, warm.rss_kib, end.rss_kib, after.rss_kib);
    if (sorn_test::AllocCounter::available()) {
        std::printf("soak: allocations in process at a steady frame count: %lld\n", steady_allocs);
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
