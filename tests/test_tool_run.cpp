// The sorn-hp tool's effect host and run loop against the real library: a file run streams in
// chunks, resamples through libsoxr when asked, and gives the library's own output bit for bit.
#include <soxr.h>

#include "tests/test_effect_harness.h"
#include "tests/tool_test_support.h"
#include "tools/files/builtin_tuning.h"
#include "tools/files/tuning.h"
#include "tools/host/file_run.h"

namespace {

namespace fs = std::filesystem;
using namespace sorn_tool;
using sorn_test::has;

// The library as the tool loads it, opened once for the whole program.
const EffectLibrary &library() {
    static EffectLibrary lib;
    static std::string error;
    EXPECT_TRUE(lib.aeli || effect_library_open(SORN_LIBRARY_PATH, lib, error)) << error;
    return lib;
}

// (A library that cannot be loaded at all is among the tool's errors in test_tool_cli.)
TEST(ToolRun, LoadsTheLibraryAndChecksItLikeTheFactory) {
    EXPECT_EQ("40050b20-6999-11e0-b0d8-0002a5d5c534", uuid_to_string(library().descriptor.uuid));
    EXPECT_EQ("insert, insert last, device indication, audio mode indication",
              describe_effect_flags(library().descriptor.flags));
    EffectLibrary none;
    std::string error;
    // libm loads, but has no AELI.
    EXPECT_TRUE(!effect_library_open("libm.so.6", none, error) && has(error, "no \"AELI\" symbol") && !none.dl) << error;
    const Levels lv = measure_levels(AudioBuffer{48000, 1, 2, SampleFormat::f32, {0.5f, -0.25f}, {}, {}});
    EXPECT_TRUE(std::fabs(lv.peak_dbfs + 6.02) < 0.01 && std::fabs(lv.rms_dbfs + 8.06) < 0.01);
}

using ToolFileRun = sorn_test::ToolDir;

// Whatever the chunk and call sizes, a file run gives what the library gives when driven
// directly with the whole recording (resampled first by libsoxr at high quality, float out
// without dither, when the run's rate differs), with the latency removed when the effect
// processes and nothing removed when it passes the audio through (a device it does not serve,
// bypass, a rate it refuses); and it reports exactly that input and output.
TEST_F(ToolFileRun, StreamedRunMatchesTheLibraryDrivenDirectly) {
    const sorn_hp_params_t params = tuning_from_json(builtin_tuning_json(), "built-in").params;
    const uint32_t phones = AUDIO_DEVICE_OUT_WIRED_HEADPHONE, fl = AUDIO_FORMAT_PCM_FLOAT;
    const struct { int file_rate, rate, channels, latency; size_t call, chunk; SampleFormat format;
                   uint32_t android, device; bool bypass; } cases[] = {
        {48000, 48000, 2, 719, 240, 1000, SampleFormat::f32, fl, phones, false},
        {44100, 44100, 1, 659, 7, 333, SampleFormat::s16, AUDIO_FORMAT_PCM_16_BIT, phones, false},
        {48000, 48000, 2, 719, 1024, 100, SampleFormat::s32, AUDIO_FORMAT_PCM_32_BIT, phones, false},
        {96000, 48000, 2, 719, 240, 777, SampleFormat::f32, fl, phones, false},
        {88200, 44100, 1, 659, 100, 16384, SampleFormat::f32, fl, phones, false},
        {48000, 48000, 2, 0, 240, 5000, SampleFormat::f32, fl, AUDIO_DEVICE_OUT_SPEAKER, false},
        {48000, 48000, 2, 0, 240, 5000, SampleFormat::f32, fl, phones, true},
        {32000, 32000, 2, 0, 240, 5000, SampleFormat::f32, fl, phones, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        const bool resampled = c.rate != c.file_rate;
        write_signal("in.wav", c.file_rate, c.channels);
        AudioReader reader;
        std::string error;
        ASSERT_TRUE(audio_reader_open(reader, at("in.wav"), c.format, error)) << error;
        RunSettings s{params, c.bypass, c.device, AUDIO_MODE_NORMAL, c.call, c.chunk, {}, {}};
        RunReport report;
        ASSERT_TRUE(effect_run_file(library(), reader, c.format, c.rate, at("out.wav"), s, report, error)) << error;
        AudioBuffer in, out, src, dst;
        ASSERT_TRUE(audio_read(at("in.wav"), resampled ? SampleFormat::f32 : c.format, in, error));
        ASSERT_TRUE(audio_read(at("out.wav"), c.format, out, error));
        audio_mono_to_stereo(in);
        if (resampled) {
            const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
            const soxr_quality_spec_t q = soxr_quality_spec(SOXR_HQ, 0);
            std::vector<float> to(in.f32.size());
            size_t made = 0;
            ASSERT_EQ(nullptr, soxr_oneshot(c.file_rate, c.rate, 2, in.f32.data(), in.frames, nullptr, to.data(),
                                            in.frames, &made, &io, &q, nullptr));
            in.frames = static_cast<int64_t>(made), in.f32.assign(to.begin(), to.begin() + 2 * made);
        }
        sorn_test::Effect fx;
        ASSERT_EQ(0, fx.configure(c.android, c.rate) | fx.set_param(100, &params, sizeof params) |
                         fx.set_bypass(c.bypass) | fx.set_u32(EFFECT_CMD_SET_DEVICE, c.device) |
                         fx.status_cmd(EFFECT_CMD_ENABLE));
        const size_t bytes = 2 * audio_sample_bytes(c.format);
        audio_allocate(src, c.rate, 2, (in.frames + c.latency + c.call - 1) / c.call * c.call, c.format);
        dst = src;
        auto *from = static_cast<uint8_t *>(audio_data(src)), *to = static_cast<uint8_t *>(audio_data(dst));
        std::memcpy(from, audio_data(in), in.frames * bytes);
        for (int64_t f = 0; f < src.frames; f += c.call)
            ASSERT_EQ(0, fx.process(from + f * bytes, to + f * bytes, c.call));
        EXPECT_TRUE(out.rate == c.rate && out.frames == in.frames &&
                    !std::memcmp(audio_data(out), to + c.latency * bytes, in.frames * bytes));
        const Levels li = measure_levels(in), lo = measure_levels(out);
        EXPECT_TRUE(!c.latency || li.rms_dbfs != lo.rms_dbfs);  // processed; the limiter keeps it off full scale
        EXPECT_TRUE(report.latency == c.latency && report.clipped == (c.latency ? 0 : 2) && report.frames == in.frames
                    && report.calls == src.frames / int64_t(c.call) && report.source_rate == resampled * c.file_rate);
        EXPECT_TRUE(!std::memcmp(&report.in, &li, sizeof li) && !std::memcmp(&report.out, &lo, sizeof lo));
    }
}

// The executable hands its options to the file run above (its output is that run's, sample for
// sample) and refuses a rate the effect does not process. A file that cannot be read to its end
// (its header promises more than it holds; its decoder finds it cut part way) is an error, and
// neither the output nor a temporary file is left.
TEST_F(ToolFileRun, RateOptionAndFilesCutShort) {
    const struct { const char *name; std::vector<std::string> args; int code; const char *message; } cases[] = {
        {"in.wav", {"run", "in.wav", "out.wav", "--rate", "48000", "--frames", "100", "--device", "usb-headset"}, 0,
         "in.wav is at 96000 Hz: resampled to 48000 Hz before the effect"},
        {"in.wav", {"run", "in.wav", "out.wav", "--rate", "96000"}, 1,
         "--rate 96000: give a rate the effect processes (44050 to 48050 Hz)"},
        {"cut.wav", {"run", "cut.wav", "out.wav", "--rate", "48000"}, 2, "cut.wav: cannot read to its end: its header declares"},
        {"cut.flac", {"run", "cut.flac", "out.wav", "--rate", "48000"}, 2, "cut.flac: cannot read to its end"},
        {"cut.flac", {"run", "cut.flac", "out.wav"}, 2, "cut.flac: cannot read to its end"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name + std::string(" ") + c.message);
        write_signal(c.name, 96000, 2);
        if (c.code == 2) fs::resize_file(at(c.name), fs::file_size(at(c.name)) * 6 / 10);
        const sorn_test::ToolResult r = tool(c.args);
        EXPECT_TRUE(r.code == c.code && has(r.err, c.message)) << r.code << " " << r.err;
        if (c.code == 0) {
            AudioReader reader;
            RunReport report;
            AudioBuffer tool_out, want;
            std::string error;
            const RunSettings s{tuning_from_json(builtin_tuning_json(), "built-in").params, false,
                                AUDIO_DEVICE_OUT_USB_HEADSET, AUDIO_MODE_NORMAL, 100, 16384, {}, {}};
            ASSERT_TRUE(audio_reader_open(reader, at(c.name), SampleFormat::f32, error) &&
                        effect_run_file(library(), reader, SampleFormat::f32, 48000, at("want.wav"), s, report, error) &&
                        audio_read(at("want.wav"), SampleFormat::f32, want, error) &&
                        audio_read(at("out.wav"), SampleFormat::f32, tool_out, error)) << error;
            EXPECT_TRUE(tool_out.f32 == want.f32 && tool_out.rate == 48000);
            fs::remove(at("want.wav"));
        }
        // The input, the two streams and, only on success, the output: no temporary file.
        EXPECT_EQ(c.code == 0 ? 4 : 3, std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
        fs::remove(at(c.name)), fs::remove(at("out.wav"));
    }
}

}  // namespace
