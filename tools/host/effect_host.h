/*
 * Hosts the effect library the way Android's effect factory does: dlopen, look up "AELI", check
 * the library tag, the library API major version (3), the descriptor query and the control API
 * major version (2); then create instances and reach them only through the effect interface
 * (command, process, release).
 *
 * The library's own design entry points (wrapper init / set-parameters / deinit and the curve
 * interpolant) are looked up by name from the same loaded library for `design`; they are part
 * of its exported interface.
 *
 * Nothing here prints: failures come back as messages. The library's "[SA6_SBS]" lines go to
 * standard output; StdoutMuffle hides them while the tool is not verbose.
 */
#ifndef SORN_TOOLS_EFFECT_HOST_H
#define SORN_TOOLS_EFFECT_HOST_H

#include <cstdint>
#include <string>
#include <vector>

#include <hardware/audio_effect.h>

#include "wrapper/sorn_hp_params.h"

namespace sorn_tool {

/* --lib when given, else $SORN_HP_LIB when set and not empty, else the built library. */
std::string resolve_library_path(const std::string &cli_path);
const char *default_library_path();

struct EffectLibrary {
    void *dl = nullptr;
    const audio_effect_library_t *aeli = nullptr;
    std::string path;          /* as opened */
    std::string resolved_path; /* where the loader found it */
    effect_descriptor_t descriptor{};
};

/* Loads and checks; on failure returns false with `error` set and nothing left open. An empty
   path takes the library linked into this program. */
bool effect_library_open(const std::string &path, EffectLibrary &lib, std::string &error);
void effect_library_close(EffectLibrary &lib);
void *effect_library_symbol(const EffectLibrary &lib, const char *name);

/* Human-readable descriptor fields. */
std::string uuid_to_string(const effect_uuid_t &u);
std::string describe_effect_flags(uint32_t flags);
std::string describe_api_version(uint32_t v);

/* Output devices and audio modes by name, as `run --device/--mode` take them; a number (decimal
   or 0x...) is accepted too. Returns false for an unknown name. */
bool parse_device(const std::string &name, uint32_t &device);
bool parse_audio_mode(const std::string &name, uint32_t &mode);
std::string device_names();
std::string audio_mode_names();

struct EffectInstance {
    const EffectLibrary *lib = nullptr;
    effect_handle_t handle = nullptr;
};

/* Each returns the command's result; `reply` (when given) receives the reply word. */
int32_t effect_create(const EffectLibrary &lib, EffectInstance &fx);
int32_t effect_set_config(EffectInstance &fx, uint32_t rate, audio_format_t format, int32_t *reply);
int32_t effect_set_params(EffectInstance &fx, const sorn_hp_params_t &params, int32_t *reply);
int32_t effect_set_bypass(EffectInstance &fx, bool on, int32_t *reply);
int32_t effect_set_device(EffectInstance &fx, uint32_t device);
int32_t effect_set_audio_mode(EffectInstance &fx, uint32_t mode);
int32_t effect_enable(EffectInstance &fx, int32_t *reply);
int32_t effect_disable(EffectInstance &fx, int32_t *reply);
/* The status text of parameter 201; empty when the query fails. */
std::string effect_status_text(EffectInstance &fx);
int32_t effect_process(EffectInstance &fx, void *in, void *out, size_t frames);
void effect_release(EffectInstance &fx);

/* Reads "name: value" from the status text; false when the item is missing. */
bool status_item(const std::string &status, const std::string &name, int &value);

/* While alive, writes to standard output go to /dev/null (stdio is flushed on both edges). */
struct StdoutMuffle {
    explicit StdoutMuffle(bool active);
    ~StdoutMuffle();
    StdoutMuffle(const StdoutMuffle &) = delete;
    StdoutMuffle &operator=(const StdoutMuffle &) = delete;
    int saved_fd = -1;
};

}  // namespace sorn_tool

#endif
