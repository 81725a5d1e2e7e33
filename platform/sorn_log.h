/*
 * Logging for the library: everything goes through liblog's __android_log_print.
 * The effect front end logs under SORN_LOG_TAG_EFFECT; the wrapper, the chain, the design and
 * the DSP blocks under SORN_LOG_TAG_CORE. Messages name their function through a leading "%s".
 * Nothing on the audio path logs except the documented trips (mute detection).
 */
#ifndef SORN_PLATFORM_LOG_H
#define SORN_PLATFORM_LOG_H

#include <android/log.h>

#define SORN_LOG_TAG_EFFECT "_O_sorn_hp_sfx"
#define SORN_LOG_TAG_CORE "ORLA_SORN"

#define SORN_LOGD(tag, ...) __android_log_print(ANDROID_LOG_DEBUG, tag, __VA_ARGS__)
#define SORN_LOGI(tag, ...) __android_log_print(ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define SORN_LOGW(tag, ...) __android_log_print(ANDROID_LOG_WARN, tag, __VA_ARGS__)
#define SORN_LOGE(tag, ...) __android_log_print(ANDROID_LOG_ERROR, tag, __VA_ARGS__)

#endif /* SORN_PLATFORM_LOG_H */
