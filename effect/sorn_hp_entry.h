/*
 * Library entry: the record `AELI` that Android's effect factory looks up, the one effect
 * descriptor ("SORN HP For Ambrel", type and uuid 40050b20-6999-11e0-b0d8-0002a5d5c534, an
 * insert effect placed last that wants the device and the audio mode), and the functions that
 * create, release and describe instances.
 *
 * EffectCreate: -22 for null arguments, -2 for another uuid (nothing stored), -12 when the
 * context cannot be allocated (nothing stored); otherwise a new instance in state 1 with no
 * wrapper, buffers or parameters until it is configured, holding the default configuration
 * that GET_CONFIG reports until then (set_default_config). EffectRelease: -22 for null; frees
 * everything the instance owns; the handle is invalid afterwards. EffectGetDescriptor: -22 for
 * null arguments (with a WARN line) or another uuid. get_descriptor, EffectQueryEffect(0) and
 * EffectGetDescriptor hand out the same 172 bytes; EffectQueryNumberEffects reports 1.
 *
 * The descriptor functions only read constant data and may run on any thread. Create and
 * release allocate and log; release must not overlap the instance's command or process.
 */
#ifndef SORN_EFFECT_SORN_HP_ENTRY_H
#define SORN_EFFECT_SORN_HP_ENTRY_H

#include <stdint.h>

#include <hardware/audio_effect.h>

#include "platform/sorn_export.h"

SORN_EXTERN_C_BEGIN

SORN_EXPORT extern audio_effect_library_t AELI;

SORN_EXPORT int32_t EffectCreate(const effect_uuid_t *uuid, int32_t sessionId, int32_t ioId,
                                 effect_handle_t *pHandle);
SORN_EXPORT int32_t EffectRelease(effect_handle_t handle);
SORN_EXPORT int32_t EffectGetDescriptor(const effect_uuid_t *uuid,
                                        effect_descriptor_t *pDescriptor);
SORN_EXPORT int32_t get_descriptor(effect_handle_t self, effect_descriptor_t *pDescriptor);
SORN_EXPORT int32_t EffectQueryNumberEffects(uint32_t *pNumEffects);
SORN_EXPORT int32_t EffectQueryEffect(uint32_t index, effect_descriptor_t *pDescriptor);

SORN_EXTERN_C_END

#endif /* SORN_EFFECT_SORN_HP_ENTRY_H */
