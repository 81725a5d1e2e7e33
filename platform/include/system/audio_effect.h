/*
 * Audio effect control interface of the Android platform (records, commands and flags), laid
 * out as in the platform's <system/audio_effect.h>. On Android the real header is used instead.
 * The static assertions pin the LP64 layout the framework expects.
 */
#ifndef SORN_PLATFORM_SYSTEM_AUDIO_EFFECT_H
#define SORN_PLATFORM_SYSTEM_AUDIO_EFFECT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <system/audio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef audio_uuid_t effect_uuid_t;

#define EFFECT_STRING_LEN_MAX 64

typedef struct effect_descriptor_s {
    effect_uuid_t type;
    effect_uuid_t uuid;
    uint32_t apiVersion;
    uint32_t flags;
    uint16_t cpuLoad;     /* 0.1 MIPS */
    uint16_t memoryUsage; /* KB */
    char name[EFFECT_STRING_LEN_MAX];
    char implementor[EFFECT_STRING_LEN_MAX];
} effect_descriptor_t;

/* Effect flags: type, insert preference, volume, device, input/output, hw, mode, source. */
#define EFFECT_FLAG_TYPE_SHIFT 0
#define EFFECT_FLAG_TYPE_SIZE 3
#define EFFECT_FLAG_TYPE_MASK 0x7u
#define EFFECT_FLAG_TYPE_INSERT 0x0u
#define EFFECT_FLAG_TYPE_AUXILIARY 0x1u
#define EFFECT_FLAG_TYPE_REPLACE 0x2u
#define EFFECT_FLAG_TYPE_PRE_PROC 0x3u
#define EFFECT_FLAG_TYPE_POST_PROC 0x4u
#define EFFECT_FLAG_INSERT_SHIFT 3
#define EFFECT_FLAG_INSERT_SIZE 3
#define EFFECT_FLAG_INSERT_MASK 0x38u
#define EFFECT_FLAG_INSERT_ANY 0x0u
#define EFFECT_FLAG_INSERT_FIRST 0x8u
#define EFFECT_FLAG_INSERT_LAST 0x10u
#define EFFECT_FLAG_INSERT_EXCLUSIVE 0x18u
#define EFFECT_FLAG_VOLUME_SHIFT 6
#define EFFECT_FLAG_VOLUME_SIZE 3
#define EFFECT_FLAG_VOLUME_MASK 0x1C0u
#define EFFECT_FLAG_VOLUME_NONE 0x0u
#define EFFECT_FLAG_VOLUME_CTRL 0x40u
#define EFFECT_FLAG_VOLUME_IND 0x80u
#define EFFECT_FLAG_VOLUME_MONITOR 0xC0u
#define EFFECT_FLAG_DEVICE_SHIFT 9
#define EFFECT_FLAG_DEVICE_SIZE 3
#define EFFECT_FLAG_DEVICE_MASK 0xE00u
#define EFFECT_FLAG_DEVICE_NONE 0x0u
#define EFFECT_FLAG_DEVICE_IND 0x200u
#define EFFECT_FLAG_INPUT_SHIFT 12
#define EFFECT_FLAG_INPUT_SIZE 2
#define EFFECT_FLAG_INPUT_MASK 0x3000u
#define EFFECT_FLAG_INPUT_DIRECT 0x1000u
#define EFFECT_FLAG_INPUT_PROVIDER 0x2000u
#define EFFECT_FLAG_INPUT_BOTH 0x3000u
#define EFFECT_FLAG_OUTPUT_SHIFT 14
#define EFFECT_FLAG_OUTPUT_SIZE 2
#define EFFECT_FLAG_OUTPUT_MASK 0xC000u
#define EFFECT_FLAG_OUTPUT_DIRECT 0x4000u
#define EFFECT_FLAG_OUTPUT_PROVIDER 0x8000u
#define EFFECT_FLAG_OUTPUT_BOTH 0xC000u
#define EFFECT_FLAG_HW_ACC_SHIFT 16
#define EFFECT_FLAG_HW_ACC_SIZE 2
#define EFFECT_FLAG_HW_ACC_MASK 0x30000u
#define EFFECT_FLAG_HW_ACC_SIMPLE 0x10000u
#define EFFECT_FLAG_HW_ACC_TUNNEL 0x20000u
#define EFFECT_FLAG_AUDIO_MODE_SHIFT 18
#define EFFECT_FLAG_AUDIO_MODE_SIZE 2
#define EFFECT_FLAG_AUDIO_MODE_MASK 0xC0000u
#define EFFECT_FLAG_AUDIO_MODE_NONE 0x0u
#define EFFECT_FLAG_AUDIO_MODE_IND 0x40000u
#define EFFECT_FLAG_AUDIO_SOURCE_SHIFT 20
#define EFFECT_FLAG_AUDIO_SOURCE_SIZE 2
#define EFFECT_FLAG_AUDIO_SOURCE_MASK 0x300000u
#define EFFECT_FLAG_AUDIO_SOURCE_NONE 0x0u
#define EFFECT_FLAG_AUDIO_SOURCE_IND 0x100000u
#define EFFECT_FLAG_OFFLOAD_SHIFT 22
#define EFFECT_FLAG_OFFLOAD_SIZE 1
#define EFFECT_FLAG_OFFLOAD_MASK 0x400000u
#define EFFECT_FLAG_OFFLOAD_SUPPORTED 0x400000u
#define EFFECT_FLAG_NO_PROCESS_SHIFT 23
#define EFFECT_FLAG_NO_PROCESS_SIZE 1
#define EFFECT_FLAG_NO_PROCESS_MASK 0x800000u
#define EFFECT_FLAG_NO_PROCESS 0x800000u

#define EFFECT_MAKE_API_VERSION(M, m) (((uint32_t)(M) << 16) | ((uint32_t)(m) & 0xFFFFu))
#define EFFECT_API_VERSION_MAJOR(v) ((uint32_t)(v) >> 16)
#define EFFECT_API_VERSION_MINOR(v) ((uint32_t)(v) & 0xFFFFu)
#define EFFECT_CONTROL_API_VERSION EFFECT_MAKE_API_VERSION(2, 0)

typedef struct audio_buffer_s {
    size_t frameCount; /* frames, not samples */
    union {
        void *raw;
        float *f32;
        int32_t *s32;
        int16_t *s16;
        uint8_t *u8;
    };
} audio_buffer_t;

typedef int32_t (*buffer_function_t)(void *cookie, audio_buffer_t *buffer);

typedef struct buffer_provider_s {
    buffer_function_t getBuffer;
    buffer_function_t releaseBuffer;
    void *cookie;
} buffer_provider_t;

typedef struct buffer_config_s {
    audio_buffer_t buffer;
    uint32_t samplingRate;
    uint32_t channels;
    buffer_provider_t bufferProvider;
    uint8_t format;     /* audio_format_t narrowed to 8 bits */
    uint8_t accessMode; /* effect_buffer_access_e */
    uint16_t mask;      /* EFFECT_CONFIG_* */
} buffer_config_t;

typedef struct effect_config_s {
    buffer_config_t inputCfg;
    buffer_config_t outputCfg;
} effect_config_t;

enum effect_buffer_access_e {
    EFFECT_BUFFER_ACCESS_WRITE = 0,
    EFFECT_BUFFER_ACCESS_READ = 1,
    EFFECT_BUFFER_ACCESS_ACCUMULATE = 2,
};

#define EFFECT_CONFIG_BUFFER 0x0001
#define EFFECT_CONFIG_SMP_RATE 0x0002
#define EFFECT_CONFIG_CHANNELS 0x0004
#define EFFECT_CONFIG_FORMAT 0x0008
#define EFFECT_CONFIG_ACC_MODE 0x0010
#define EFFECT_CONFIG_ALL 0x001F

enum effect_feature_e {
    EFFECT_FEATURE_AUX_CHANNELS = 0,
    EFFECT_FEATURE_CNT = 1,
};

typedef struct effect_param_s {
    int32_t status;
    uint32_t psize;
    uint32_t vsize;
    char data[];
} effect_param_t;

#define EFFECT_PARAM_SIZE_MAX 65536

typedef struct effect_offload_param_s {
    bool isOffload;
    int ioHandle;
} effect_offload_param_t;

typedef struct channel_config_s {
    audio_channel_mask_t main_channels;
    audio_channel_mask_t aux_channels;
} channel_config_t;

enum effect_command_e {
    EFFECT_CMD_INIT = 0,
    EFFECT_CMD_SET_CONFIG = 1,
    EFFECT_CMD_RESET = 2,
    EFFECT_CMD_ENABLE = 3,
    EFFECT_CMD_DISABLE = 4,
    EFFECT_CMD_SET_PARAM = 5,
    EFFECT_CMD_SET_PARAM_DEFERRED = 6,
    EFFECT_CMD_SET_PARAM_COMMIT = 7,
    EFFECT_CMD_GET_PARAM = 8,
    EFFECT_CMD_SET_DEVICE = 9,
    EFFECT_CMD_SET_VOLUME = 10,
    EFFECT_CMD_SET_AUDIO_MODE = 11,
    EFFECT_CMD_SET_CONFIG_REVERSE = 12,
    EFFECT_CMD_SET_INPUT_DEVICE = 13,
    EFFECT_CMD_GET_CONFIG = 14,
    EFFECT_CMD_GET_CONFIG_REVERSE = 15,
    EFFECT_CMD_GET_FEATURE_SUPPORTED_CONFIGS = 16,
    EFFECT_CMD_GET_FEATURE_CONFIG = 17,
    EFFECT_CMD_SET_FEATURE_CONFIG = 18,
    EFFECT_CMD_SET_AUDIO_SOURCE = 19,
    EFFECT_CMD_OFFLOAD = 20,
    EFFECT_CMD_DUMP = 21,
    EFFECT_CMD_FIRST_PROPRIETARY = 0x10000,
};

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#define SORN_LAYOUT_ASSERT static_assert
#else
#define SORN_LAYOUT_ASSERT _Static_assert
#endif

SORN_LAYOUT_ASSERT(sizeof(effect_uuid_t) == 16, "effect_uuid_t is 16 bytes");
SORN_LAYOUT_ASSERT(offsetof(effect_uuid_t, node) == 10, "effect_uuid_t.node at 10");
SORN_LAYOUT_ASSERT(sizeof(effect_descriptor_t) == 172, "effect_descriptor_t is 172 bytes");
SORN_LAYOUT_ASSERT(offsetof(effect_descriptor_t, apiVersion) == 32, "apiVersion at 32");
SORN_LAYOUT_ASSERT(offsetof(effect_descriptor_t, cpuLoad) == 40, "cpuLoad at 40");
SORN_LAYOUT_ASSERT(offsetof(effect_descriptor_t, name) == 44, "name at 44");
SORN_LAYOUT_ASSERT(offsetof(effect_descriptor_t, implementor) == 108, "implementor at 108");
SORN_LAYOUT_ASSERT(sizeof(effect_param_t) == 12, "effect_param_t header is 12 bytes");
SORN_LAYOUT_ASSERT(sizeof(effect_offload_param_t) == 8, "effect_offload_param_t is 8 bytes");
#if UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
SORN_LAYOUT_ASSERT(sizeof(audio_buffer_t) == 16, "audio_buffer_t is 16 bytes on LP64");
SORN_LAYOUT_ASSERT(sizeof(buffer_provider_t) == 24, "buffer_provider_t is 24 bytes on LP64");
SORN_LAYOUT_ASSERT(sizeof(buffer_config_t) == 56, "buffer_config_t is 56 bytes on LP64");
SORN_LAYOUT_ASSERT(offsetof(buffer_config_t, samplingRate) == 16, "samplingRate at 16");
SORN_LAYOUT_ASSERT(offsetof(buffer_config_t, channels) == 20, "channels at 20");
SORN_LAYOUT_ASSERT(offsetof(buffer_config_t, bufferProvider) == 24, "bufferProvider at 24");
SORN_LAYOUT_ASSERT(offsetof(buffer_config_t, format) == 48, "format at 48");
SORN_LAYOUT_ASSERT(offsetof(buffer_config_t, accessMode) == 49, "accessMode at 49");
SORN_LAYOUT_ASSERT(offsetof(buffer_config_t, mask) == 50, "mask at 50");
SORN_LAYOUT_ASSERT(sizeof(effect_config_t) == 112, "effect_config_t is 112 bytes on LP64");
SORN_LAYOUT_ASSERT(offsetof(effect_config_t, outputCfg) == 56, "outputCfg at 56");
#endif

#endif /* SORN_PLATFORM_SYSTEM_AUDIO_EFFECT_H */
