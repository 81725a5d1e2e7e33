#include "tools/host/resample.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace sorn_tool {

namespace {

struct Resampler {
    soxr_t soxr = nullptr;
    FrameSource upstream;
    std::vector<float> piece;
    bool failed = false;
    std::string error;
    ~Resampler() { soxr_delete(soxr); }
};

/* libsoxr's input function: a piece from upstream; 0 frames at its end, no data on failure. */
size_t pull(void *state, soxr_in_t *data, size_t requested) {
    auto &r = *static_cast<Resampler *>(state);
    const int64_t got = r.upstream(r.piece.data(), static_cast<int64_t>(std::min(requested, r.piece.size() / 2)),
                                   r.error);
    r.failed = got < 0;
    *data = r.failed ? nullptr : r.piece.data();
    return r.failed ? 0 : static_cast<size_t>(got);
}

}  // namespace

soxr_io_spec_t resample_io_spec(SampleFormat out) {
    const soxr_datatype_t type = out == SampleFormat::f32   ? SOXR_FLOAT32_I
                                 : out == SampleFormat::s16 ? SOXR_INT16_I
                                                            : SOXR_INT32_I;
    soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, type);
    io.flags |= SOXR_NO_DITHER;
    return io;
}

soxr_quality_spec_t resample_quality_spec() { return soxr_quality_spec(SOXR_HQ, 0); }

FrameSource resampled_source(int in_rate, int out_rate, SampleFormat format, FrameSource upstream,
                             size_t piece_frames, std::string &error) {
    auto r = std::make_shared<Resampler>();
    r->upstream = std::move(upstream);
    r->piece.resize(2 * std::max<size_t>(piece_frames, 1));
    const soxr_io_spec_t io = resample_io_spec(format);
    const soxr_quality_spec_t quality = resample_quality_spec();
    const soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    soxr_error_t e = nullptr;
    r->soxr = soxr_create(in_rate, out_rate, 2, &e, &io, &quality, &runtime);
    if (!e) e = soxr_set_input_fn(r->soxr, pull, r.get(), r->piece.size() / 2);
    if (e) {
        error = "cannot resample " + std::to_string(in_rate) + " Hz to " + std::to_string(out_rate) + " Hz: " + e;
        return {};
    }
    return [r](void *dst, int64_t frames, std::string &err) -> int64_t {
        const size_t got = soxr_output(r->soxr, dst, static_cast<size_t>(frames));
        if (r->failed) {
            err = r->error;
            return -1;
        }
        return static_cast<int64_t>(got);
    };
}

}  // namespace sorn_tool
