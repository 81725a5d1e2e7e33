/*
 * The demo's test program, synthesized (no input needed), stereo float at the given rate:
 *   0.0 s  logarithmic sine sweep 20 Hz to 20 kHz, -12 dBFS
 *   3.0 s  pink noise, -20 dBFS RMS, left and right independent
 *   5.0 s  a chord with plucked attacks every half second
 *   8.0 s  a loud passage (a dense chord and noise peaking near 0 dBFS) for the limiter
 *  10.0 s  digital silence, long enough for the effect's silence gate
 *  11.5 s  the chord again, to show the return from the gate
 * Each section starts and ends with short fades, so no edge clicks. The same rate always gives
 * the same samples (the noise comes from a fixed seed).
 */
#ifndef SORN_TOOLS_DEMO_PROGRAM_H
#define SORN_TOOLS_DEMO_PROGRAM_H

#include <string>
#include <vector>

#include "tools/files/audio_file.h"

namespace sorn_tool {

struct DemoSection {
    double start_s;
    double length_s;
    std::string what;
};

const std::vector<DemoSection> &demo_sections();
AudioBuffer demo_program(int rate);

}  // namespace sorn_tool

#endif
