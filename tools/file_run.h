/*
 * An audio file through the effect into another file, a chunk at a time: memory stays the same
 * whatever the file's length.
 *
 * Takes a file open for reading with one or two channels (one is given to both of the effect's
 * channels) and runs it at `rate`: when that is not the file's own rate, the audio is resampled
 * to it first (tools/resample.h), as a device's mixer does, and the output is written at it. The
 * output goes to a temporary name beside `out_path` and is renamed into place only when the whole
 * input was read and processed, so a failure (a file cut short, a read or write error) leaves
 * nothing at `out_path` and no temporary file.
 */
#ifndef SORN_TOOLS_FILE_RUN_H
#define SORN_TOOLS_FILE_RUN_H

#include <string>

#include "tools/audio_file.h"
#include "tools/effect_run.h"

namespace sorn_tool {

bool effect_run_file(const EffectLibrary &lib, AudioReader &reader, SampleFormat format, int rate,
                     const std::string &out_path, const RunSettings &settings, RunReport &report,
                     std::string &error);

}  // namespace sorn_tool

#endif
