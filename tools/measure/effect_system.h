/*
 * The effect as a system under test for the measurements: an instance started exactly as `run`
 * starts it (the same host, configuration, call size, device and mode), fed the generated float
 * frames converted into the stream's format as a device converts float, and its output converted
 * back to float. The output is the effect's own, its latency included: the measurements find the
 * latency themselves.
 */
#ifndef SORN_TOOLS_MEASURE_EFFECT_SYSTEM_H
#define SORN_TOOLS_MEASURE_EFFECT_SYSTEM_H

#include <string>
#include <vector>

#include "tools/host/effect_run.h"
#include "tools/measure/analysis.h"

namespace sorn_tool {

/* Every system made starts a fresh instance; `status` (when given, kept alive by the caller)
   receives the report of the last start, which says whether the effect processes. */
SystemFactory effect_system_factory(const EffectLibrary &lib, int rate, const RunSettings &settings,
                                    RunReport *status = nullptr);

/* What the stereo surround makes of the side signal (left minus right) at `freq_hz`, in dB: the
   side plus twice 0.3 times its first-order low-pass (-3 dB at 10 kHz, unity at DC), the
   settings the effect always gives the surround. Zero when the surround is off. */
double surround_side_lift_db(double freq_hz, int rate, bool surround_on);

}  // namespace sorn_tool

#endif
