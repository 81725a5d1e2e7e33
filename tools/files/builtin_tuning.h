/*
 * The built-in example tuning: what `run` uses without --tuning and what `demo` plays and plots.
 * A mild headphone curve: a low-shelf lift (lc) with the surround on, a headphone correction
 * with a presence bump and a treble lift (hp), and a gentle ear-canal resonance (ea). Its sum
 * stays inside the -6..+7 dB the effect allows.
 */
#ifndef SORN_TOOLS_BUILTIN_TUNING_H
#define SORN_TOOLS_BUILTIN_TUNING_H

namespace sorn_tool {

/* The tuning as a JSON document, in the tuning-file format. */
const char *builtin_tuning_json();

}  // namespace sorn_tool

#endif
