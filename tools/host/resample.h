/*
 * Sample-rate conversion as a device's mixer does it before the effect sees a stream: libsoxr
 * at high quality (soxr_quality_spec(SOXR_HQ, 0): 20-bit precision, linear phase, its own delay
 * removed), one thread, stereo float in, the run's sample format out, rounded and clipped without
 * dither (a mixer does not dither either), so the same input always gives the same samples.
 *
 * Takes its input from another source a piece at a time and gives the same samples as
 * soxr_oneshot with the same settings on the whole signal; the output lasts as long as the input.
 */
#ifndef SORN_TOOLS_RESAMPLE_H
#define SORN_TOOLS_RESAMPLE_H

#include <soxr.h>

#include <string>

#include "tools/files/audio_file.h"
#include "tools/host/effect_run.h"

namespace sorn_tool {

/* The io and quality settings the conversion uses, for anyone who wants the same one. */
soxr_io_spec_t resample_io_spec(SampleFormat out);
soxr_quality_spec_t resample_quality_spec();

/* A source of stereo `format` frames at `out_rate` from `upstream`, a source of stereo float
   frames at `in_rate` asked for at most `piece_frames` at a time. Empty with `error` set when
   libsoxr refuses the conversion. */
FrameSource resampled_source(int in_rate, int out_rate, SampleFormat format, FrameSource upstream,
                             size_t piece_frames, std::string &error);

}  // namespace sorn_tool

#endif
