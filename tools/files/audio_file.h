/*
 * Audio files through libsndfile: reads anything libsndfile reads (WAV, FLAC, AIFF, ...) into
 * interleaved samples of the format the effect is configured for, and writes results, either
 * whole (AudioBuffer) or in pieces (AudioReader, AudioWriter) so that memory does not grow with
 * the length of the file.
 *
 * Reading fails rather than return less than the file should hold: a decoder error, fewer frames
 * than announced, or a header that declares more audio data than the file holds (a file cut
 * short; libsndfile itself would quietly read what is there) is an error.
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
/* The buffer formats by the names `run --format` takes: "float", "16", "32". False for others. */
bool parse_sample_format(const std::string &name, SampleFormat &f);

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
double sample_value(const void *data, SampleFormat format, size_t i);
/* True when sample i sits at the format's full-scale limit. */
bool sample_at_full_scale(const void *data, SampleFormat format, size_t i);

/* Copies the single channel into both channels of a stereo buffer. */
void audio_mono_to_stereo(AudioBuffer &buf);

bool audio_read(const std::string &path, SampleFormat format, AudioBuffer &out, std::string &error);

/* A file open for reading in pieces; closed when it goes out of scope. */
struct AudioReader {
    AudioReader() = default;
    ~AudioReader();
    AudioReader(const AudioReader &) = delete;
    AudioReader &operator=(const AudioReader &) = delete;
    std::string path;
    int rate = 0;
    int channels = 0;
    int64_t frames = -1; /* as the file announces them; -1 when it cannot tell */
    int64_t done = 0;    /* frames read so far */
    SampleFormat format = SampleFormat::f32; /* what reads deliver; may change between reads */
    void *sf = nullptr;
};
bool audio_reader_open(AudioReader &r, const std::string &path, SampleFormat format, std::string &error);
/* Reads up to `frames` frames (interleaved, the file's channels) into `dst`. Returns the count,
   0 at the end of the audio, -1 with `error` set when the file cannot be read to its end. */
int64_t audio_reader_read(AudioReader &r, void *dst, int64_t frames, std::string &error);

/* Checks that `path` names a container libsndfile writes and picks its encoding; `note` tells of
   a fallback. Call before long work so a bad name fails early. */
bool audio_output_format(const std::string &path, SampleFormat format, int &sf_format,
                         std::string &note, std::string &error);
bool audio_write(const std::string &path, const AudioBuffer &buf, std::string &error);

/* A file written in pieces under a temporary name beside `path`; audio_writer_commit closes it
   and renames it into place. One that goes out of scope uncommitted is removed, and so is the one
   being written when the process is interrupted (SIGINT, SIGTERM, SIGHUP). */
struct AudioWriter {
    AudioWriter() = default;
    ~AudioWriter();
    AudioWriter(const AudioWriter &) = delete;
    AudioWriter &operator=(const AudioWriter &) = delete;
    std::string path, tmp;
    int channels = 0;
    SampleFormat format = SampleFormat::f32;
    void *sf = nullptr;
};
bool audio_writer_open(AudioWriter &w, const std::string &path, int rate, int channels, SampleFormat format,
                       std::string &error);
bool audio_writer_write(AudioWriter &w, const void *data, int64_t frames, std::string &error);
bool audio_writer_commit(AudioWriter &w, std::string &error);

}  // namespace sorn_tool

#endif
