/*
 * Audio type definitions of the Android platform (the subset this library uses), laid out
 * as in the platform's <system/audio.h>. On Android the real header is used instead.
 *
 * Values follow the platform's audio-hal-enums and audio_common-base definitions.
 *
 * Types as a device build sees them: in C++ audio_format_t, audio_devices_t and
 * audio_channel_mask_t are enumerations with the fixed underlying type uint32_t, and
 * audio_mode_t a plain enumeration (its values run from -2 to 6). An integer does not convert
 * to any of them implicitly, so code that mixes them with plain integers fails here as it does
 * on Android; converting from an integer takes an explicit cast at the boundary where the
 * integer is read. In C the first three are uint32_t with named constants, as on Android.
 */
#ifndef SORN_PLATFORM_SYSTEM_AUDIO_H
#define SORN_PLATFORM_SYSTEM_AUDIO_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    uint32_t timeLow;
    uint16_t timeMid;
    uint16_t timeHiAndVersion;
    uint16_t clockSeq;
    uint8_t node[6];
} audio_uuid_t;

#ifdef __cplusplus
#define SORN_AUDIO_ENUM_BEGIN(name) typedef enum : uint32_t {
#define SORN_AUDIO_ENUM_END(name) } name;
#else
#define SORN_AUDIO_ENUM_BEGIN(name) typedef uint32_t name; enum {
#define SORN_AUDIO_ENUM_END(name) };
#endif

SORN_AUDIO_ENUM_BEGIN(audio_format_t)
    AUDIO_FORMAT_DEFAULT = 0x0u,
    AUDIO_FORMAT_PCM_16_BIT = 0x1u,
    AUDIO_FORMAT_PCM_8_BIT = 0x2u,
    AUDIO_FORMAT_PCM_32_BIT = 0x3u,
    AUDIO_FORMAT_PCM_8_24_BIT = 0x4u,
    AUDIO_FORMAT_PCM_FLOAT = 0x5u,
    AUDIO_FORMAT_PCM_24_BIT_PACKED = 0x6u,
    AUDIO_FORMAT_INVALID = 0xFFFFFFFFu,
    AUDIO_FORMAT_MAIN_MASK = 0xFF000000u,
    AUDIO_FORMAT_SUB_MASK = 0x00FFFFFFu,
SORN_AUDIO_ENUM_END(audio_format_t)

SORN_AUDIO_ENUM_BEGIN(audio_channel_mask_t)
    AUDIO_CHANNEL_NONE = 0x0u,
    AUDIO_CHANNEL_OUT_FRONT_LEFT = 0x1u,
    AUDIO_CHANNEL_OUT_FRONT_RIGHT = 0x2u,
    AUDIO_CHANNEL_OUT_MONO = 0x1u,
    AUDIO_CHANNEL_OUT_STEREO = 0x3u,
    AUDIO_CHANNEL_INDEX_HDR = 0x80000000u,
    AUDIO_CHANNEL_INVALID = 0xC0000000u,
SORN_AUDIO_ENUM_END(audio_channel_mask_t)

SORN_AUDIO_ENUM_BEGIN(audio_devices_t)
    AUDIO_DEVICE_NONE = 0x0u,
    AUDIO_DEVICE_OUT_EARPIECE = 0x1u,
    AUDIO_DEVICE_OUT_SPEAKER = 0x2u,
    AUDIO_DEVICE_OUT_WIRED_HEADSET = 0x4u,
    AUDIO_DEVICE_OUT_WIRED_HEADPHONE = 0x8u,
    AUDIO_DEVICE_OUT_BLUETOOTH_SCO = 0x10u,
    AUDIO_DEVICE_OUT_BLUETOOTH_SCO_HEADSET = 0x20u,
    AUDIO_DEVICE_OUT_BLUETOOTH_SCO_CARKIT = 0x40u,
    AUDIO_DEVICE_OUT_BLUETOOTH_A2DP = 0x80u,
    AUDIO_DEVICE_OUT_BLUETOOTH_A2DP_HEADPHONES = 0x100u,
    AUDIO_DEVICE_OUT_BLUETOOTH_A2DP_SPEAKER = 0x200u,
    AUDIO_DEVICE_OUT_HDMI = 0x400u,
    AUDIO_DEVICE_OUT_AUX_DIGITAL = 0x400u,
    AUDIO_DEVICE_OUT_USB_ACCESSORY = 0x2000u,
    AUDIO_DEVICE_OUT_USB_DEVICE = 0x4000u,
    AUDIO_DEVICE_OUT_LINE = 0x20000u,
    AUDIO_DEVICE_OUT_SPEAKER_SAFE = 0x400000u,
    AUDIO_DEVICE_OUT_USB_HEADSET = 0x4000000u,
    AUDIO_DEVICE_OUT_HEARING_AID = 0x8000000u,
    AUDIO_DEVICE_OUT_BLE_HEADSET = 0x20000000u,
    AUDIO_DEVICE_OUT_BLE_SPEAKER = 0x20000001u,
    AUDIO_DEVICE_OUT_BLE_BROADCAST = 0x20000002u,
    AUDIO_DEVICE_OUT_DEFAULT = 0x40000000u,
    AUDIO_DEVICE_BIT_IN = 0x80000000u,
SORN_AUDIO_ENUM_END(audio_devices_t)

#undef SORN_AUDIO_ENUM_BEGIN
#undef SORN_AUDIO_ENUM_END

typedef enum {
    AUDIO_MODE_INVALID = -2,
    AUDIO_MODE_CURRENT = -1,
    AUDIO_MODE_NORMAL = 0,
    AUDIO_MODE_RINGTONE = 1,
    AUDIO_MODE_IN_CALL = 2,
    AUDIO_MODE_IN_COMMUNICATION = 3,
    AUDIO_MODE_CALL_SCREEN = 4,
    AUDIO_MODE_CALL_REDIRECT = 5,
    AUDIO_MODE_COMMUNICATION_REDIRECT = 6,
} audio_mode_t;

typedef int32_t audio_session_t;
enum {
    AUDIO_SESSION_DEVICE = -2,
    AUDIO_SESSION_OUTPUT_STAGE = -1,
    AUDIO_SESSION_OUTPUT_MIX = 0,
};

typedef int32_t audio_io_handle_t;

/* Bytes per sample of a PCM format; 0 for anything that is not linear PCM. */
static inline size_t audio_bytes_per_sample(audio_format_t format) {
    switch (format) {
        case AUDIO_FORMAT_PCM_32_BIT:
        case AUDIO_FORMAT_PCM_8_24_BIT:
        case AUDIO_FORMAT_PCM_FLOAT:
            return 4;
        case AUDIO_FORMAT_PCM_24_BIT_PACKED:
            return 3;
        case AUDIO_FORMAT_PCM_16_BIT:
            return 2;
        case AUDIO_FORMAT_PCM_8_BIT:
            return 1;
        default:
            return 0;
    }
}

#ifdef __cplusplus
}
#endif

#endif /* SORN_PLATFORM_SYSTEM_AUDIO_H */
