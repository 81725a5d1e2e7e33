/*
 * Audio files through libsndfile: reads anything libsndfile reads (WAV, FLAC, AIFF, ...) into
 * interleaved samples of the format the effect is configured for, and writes results.
 *
 * Writing picks the container from the file name's extension and the sample encoding from the
 * sample format (float, 16-bit or 32-bit PCM), falling back to the nearest encoding the
 * container holds (FLAC has no float or 32-bit: 24-bit is used) with a note. The file is written
 * under a temporary name beside the target and renamed into place only when complete, so a
 * failed write leaves nothing behind.
 */
#ifndef SORN_TOOLS_AUDIO_FILE_H
#define SORN_TOOLS_AUDIO_FILE_H

#include <cstdint>
#include <string>
#include <vector>

namespace sorn_tool {

enum class SampleFormat { f32, s16, s32 };

const char *sample_format_name(SampleFormat f);

struct AudioBuffer {
    int rate = 0;
    int channels = 0;
    int64_t frames = 0;
    SampleFormat format = SampleFormat::f32;
    /* Exactly one of these holds frames * channels samples, chosen by `format`. */
    std::vector<float> f32;
    std::vector<int16_t> s16;
    std::vector<int32_t> s32;
};

void audio_allocate(AudioBuffer &buf, int rate, int channels, int64_t frames, SampleFormat format);
void *audio_data(AudioBuffer &buf);
const void *audio_data(const AudioBuffer &buf);
size_t audio_sample_bytes(SampleFormat f);
/* Sample i (interleaved index) scaled to [-1, 1). */
double audio_sample(const AudioBuffer &buf, size_t i);
/* True when sample i sits at the format's full-scale limit. */
bool audio_sample_at_full_scale(const AudioBuffer &buf, size_t i);

/* Copies the single channel into both channels of a stereo buffer. */
void audio_mono_to_stereo(AudioBuffer &buf);

bool audio_read(const std::string &path, SampleFormat format, AudioBuffer &out, std::string &error);

/* Checks that `path` names a container libsndfile writes and picks its encoding; `note` tells of
   a fallback. Call before long work so a bad name fails early. */
bool audio_output_format(const std::string &path, SampleFormat format, int &sf_format,
                         std::string &note, std::string &error);
bool audio_write(const std::string &path, const AudioBuffer &buf, std::string &error);

}  // namespace sorn_tool

#endif
