/*
 * An audio file through the effect into another file, a chunk at a time: memory stays the same
 * whatever the file's length.
 *
 * Takes a file open for reading with one or two channels (one is given to both of the effect's
 * channels) and runs it at `rate`: when that is not the file's own rate, the audio is resampled
 * to it first (tools/host/resample.h), as a device's mixer does, and the output is written at it. The
 * output goes to a temporary name beside `out_path` and is renamed into place only when the whole
 * input was read and processed, so a failure (a file cut short, a read or write error) leaves
 * nothing at `out_path` and no temporary file.
 */
#ifndef SORN_TOOLS_FILE_RUN_H
#define SORN_TOOLS_FILE_RUN_H

#include <string>
#include <vector>

#include "tools/files/audio_file.h"
#include "tools/host/effect_run.h"

namespace sorn_tool {

/* What a caller should tell the user about a run before it starts: a note, or a warning when the
   output will not be what was likely wanted. */
struct RunMessage {
    bool warning = false;
    std::string text;
};

/* Opens `in_path` for a run in `format` at `rate` (0: the file's own) and sets `run_rate`.
   Refuses more than two channels; says when a mono file is given to both channels, when the
   file is resampled to the run's rate, and when the effect does not process the file's rate
   (the output is then the input unchanged). */
bool file_run_open(const std::string &in_path, SampleFormat format, int rate, AudioReader &reader, int &run_rate,
                   std::vector<RunMessage> &messages, std::string &error);

/* The warning for a run the effect left alone (report.processing false at a rate it takes),
   naming the reason its status gives: processing off, the client's bypass, or the device and
   mode (by the names the caller used). */
std::string passthrough_warning(const RunReport &report, bool bypass, const std::string &device,
                                const std::string &mode);

bool effect_run_file(const EffectLibrary &lib, AudioReader &reader, SampleFormat format, int rate,
                     const std::string &out_path, const RunSettings &settings, RunReport &report,
                     std::string &error);

/* The same file as effect_run_file hands it to the effect (stereo, `format`, resampled to `rate`
   when needed), written to `out_path` without the effect: the original a run lines up with,
   sample for sample. Only `chunk_frames` and `cancelled` of the settings are used. */
bool file_run_original(AudioReader &reader, SampleFormat format, int rate, const std::string &out_path,
                       const RunSettings &settings, std::string &error);

}  // namespace sorn_tool

#endif
