/*
 * Tuning files: the readable JSON form of the effect's 292-byte parameter block, and the block's
 * byte form.
 *
 * A tuning holds one object per group ("lc", "hp", "ea"), each with "enabled" and "points"
 * ([frequency Hz, gain dB] pairs), plus "surround" and, optionally, "reserved" (the block's five
 * unused words), "description" (free text, not stored in the block) and "target" (the correction
 * an import fitted the tables to, for `design` to show; not stored in the block either). Missing
 * groups are off.
 *
 * Reading guarantees: either a complete block or one message "SOURCE: field: what is wrong";
 * never a partial block. An enabled group must have its points in strictly increasing order, in
 * whole Hz from 0 to 22000 and whole dB. A group given another count than the block holds
 * (12, 12, 8) is resampled to that count on a log-frequency grid, with a note. A disabled group
 * with exactly the block's count keeps its points as they are (so any captured block survives a
 * decode and encode unchanged); "enabled" and "surround" may be raw integers for the same reason.
 *
 * The byte form is little-endian whatever the host. Nothing here touches the effect library.
 */
#ifndef SORN_TOOLS_TUNING_H
#define SORN_TOOLS_TUNING_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "wrapper/sorn_hp_params.h"

namespace sorn_tool {

inline constexpr size_t kParamsBytes = sizeof(sorn_hp_params_t);
inline constexpr int64_t kMaxPointHz = 22000;

enum class Group { lc, hp, ea };
inline constexpr Group kGroups[] = {Group::lc, Group::hp, Group::ea};

const char *group_name(Group g);
int group_points(Group g);
int32_t &group_switch(sorn_hp_params_t &p, Group g);
int32_t group_switch(const sorn_hp_params_t &p, Group g);
uint32_t *group_freq(sorn_hp_params_t &p, Group g);
const uint32_t *group_freq(const sorn_hp_params_t &p, Group g);
int32_t *group_gain(sorn_hp_params_t &p, Group g);
const int32_t *group_gain(const sorn_hp_params_t &p, Group g);
bool group_used(const sorn_hp_params_t &p, Group g); /* the effect reads a group when its switch >= 1 */

struct CurvePoint {
    double freq_hz;
    double gain_db;
};

/* The correction an import fitted to: its curve as read ([Hz, dB], increasing frequency), the
   level offset the fit added to it, and where it came from. */
struct TuningTarget {
    std::string source;
    double level_offset_db = 0.0;
    std::vector<CurvePoint> points;
};

struct TuningResult {
    bool ok = false;
    std::string error;              /* when !ok: "SOURCE: field: what is wrong" */
    std::vector<std::string> notes; /* things done on the reader's behalf, e.g. resampling */
    sorn_hp_params_t params{};
    TuningTarget target; /* no points when the file has none */
};

/* `source` names the file in messages. */
TuningResult tuning_from_json(const std::string &text, const std::string &source);
TuningResult tuning_load(const std::string &path);
std::string tuning_to_json(const sorn_hp_params_t &p, const TuningTarget *target = nullptr);

std::array<uint8_t, kParamsBytes> params_to_bytes(const sorn_hp_params_t &p);
sorn_hp_params_t params_from_bytes(const uint8_t *bytes); /* kParamsBytes bytes */

/* What the effect will make of a block a tuning file would not produce: one line per finding
   (frequencies it refuses, tables it repairs). Empty for a clean block. */
std::vector<std::string> params_findings(const sorn_hp_params_t &p);

/* A parameter block as stored in a file: the 292 bytes alone, or a whole SET_PARAM record as
   captured from a client (header, id 100, then the block; taken with a note). Anything else is
   refused with "SOURCE: N bytes; a parameter block is 292 bytes". */
bool params_block_read(const std::string &bytes, const std::string &source, sorn_hp_params_t &p,
                       std::vector<std::string> &notes, std::string &error);

/* "lc on, hp off, ea on, surround on": which parts of the effect a block turns on (the surround
   counts only while lc is on, as the effect has it). */
std::string groups_summary(const sorn_hp_params_t &p);

/* Gain of the polyline through `points` (ordered by frequency), linear in log frequency between
   points and flat beyond the ends. */
double interp_log_freq(const std::vector<CurvePoint> &points, double freq_hz);

/* `count` whole-Hz frequencies, strictly increasing, spread on a log scale from `lo` to `hi` and
   kept within 1..kMaxPointHz (widened when the span holds fewer whole numbers than needed). */
std::vector<uint32_t> log_grid_hz(double lo, double hi, int count);

}  // namespace sorn_tool

#endif
