/*
 * Effect library interface of the Android platform: the effect interface record that an effect
 * handle points to, and the library record `AELI` that the effect factory looks up. Laid out as
 * in the platform's <hardware/audio_effect.h>; on Android the real header is used instead.
 */
#ifndef SORN_PLATFORM_HARDWARE_AUDIO_EFFECT_H
#define SORN_PLATFORM_HARDWARE_AUDIO_EFFECT_H

#include <stddef.h>
#include <stdint.h>

#include <system/audio_effect.h>

#ifdef __cplusplus
extern "C" {
#endif

struct effect_interface_s;
/* An effect handle points to a pointer to the instance's interface record. */
typedef const struct effect_interface_s **effect_handle_t;

struct effect_interface_s {
    int32_t (*process)(effect_handle_t self, audio_buffer_t *inBuffer, audio_buffer_t *outBuffer);
    int32_t (*command)(effect_handle_t self, uint32_t cmdCode, uint32_t cmdSize, void *pCmdData,
                       uint32_t *replySize, void *pReplyData);
    int32_t (*get_descriptor)(effect_handle_t self, effect_descriptor_t *pDescriptor);
    int32_t (*process_reverse)(effect_handle_t self, audio_buffer_t *inBuffer,
                               audio_buffer_t *outBuffer);
};

#define EFFECT_LIBRARY_API_VERSION_3_0 EFFECT_MAKE_API_VERSION(3, 0)
#define EFFECT_LIBRARY_API_VERSION_3_1 EFFECT_MAKE_API_VERSION(3, 1)
#define EFFECT_LIBRARY_API_VERSION EFFECT_LIBRARY_API_VERSION_3_0

#define AUDIO_EFFECT_LIBRARY_TAG ((('A') << 24) | (('E') << 16) | (('L') << 8) | ('T'))

typedef struct audio_effect_library_s {
    uint32_t tag;
    uint32_t version;
    const char *name;
    const char *implementor;
    int32_t (*create_effect)(const effect_uuid_t *uuid, int32_t sessionId, int32_t ioId,
                             effect_handle_t *pHandle);
    int32_t (*release_effect)(effect_handle_t handle);
    int32_t (*get_descriptor)(const effect_uuid_t *uuid, effect_descriptor_t *pDescriptor);
    int32_t (*create_effect_3_1)(const effect_uuid_t *uuid, int32_t sessionId, int32_t ioId,
                                 int32_t deviceId, effect_handle_t *pHandle);
} audio_effect_library_t;

#define AUDIO_EFFECT_LIBRARY_INFO_SYM AELI
#define AUDIO_EFFECT_LIBRARY_INFO_SYM_AS_STR "AELI"

#ifdef __cplusplus
}
#endif

SORN_LAYOUT_ASSERT(AUDIO_EFFECT_LIBRARY_TAG == 0x41454C54, "library tag is 'AELT'");
#if UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
SORN_LAYOUT_ASSERT(sizeof(struct effect_interface_s) == 32, "effect_interface_s is 32 bytes");
SORN_LAYOUT_ASSERT(offsetof(struct effect_interface_s, get_descriptor) == 16, "slot 3 at 16");
SORN_LAYOUT_ASSERT(sizeof(audio_effect_library_t) == 56, "audio_effect_library_t is 56 bytes");
SORN_LAYOUT_ASSERT(offsetof(audio_effect_library_t, name) == 8, "name at 8");
SORN_LAYOUT_ASSERT(offsetof(audio_effect_library_t, create_effect) == 24, "create_effect at 24");
SORN_LAYOUT_ASSERT(offsetof(audio_effect_library_t, release_effect) == 32, "release at 32");
SORN_LAYOUT_ASSERT(offsetof(audio_effect_library_t, get_descriptor) == 40, "descriptor at 40");
SORN_LAYOUT_ASSERT(offsetof(audio_effect_library_t, create_effect_3_1) == 48, "3.1 at 48");
#endif

#endif /* SORN_PLATFORM_HARDWARE_AUDIO_EFFECT_H */
