/*
 * System properties of Android's libcutils (the subset this library uses), for this host,
 * where Debian's libcutils does not provide them. On Android the real <cutils/properties.h>
 * is used instead.
 *
 * Backed by libbase's in-process property map (android::base::GetProperty / SetProperty), so a
 * test or a tool sets a property in its own process and the library reads it there; nothing
 * persists or crosses processes.
 *
 * property_get(key, value, default_value)
 *   Writes the property's value into `value` (at least PROPERTY_VALUE_MAX bytes), truncated to
 *   PROPERTY_VALUE_MAX - 1 characters and always NUL-terminated, and returns its length. An
 *   unset or empty property (or a null key) gives default_value instead, truncated the same
 *   way; a null or empty default gives "" and 0. A null `value` buffer: -1, nothing written.
 * property_set(key, value)
 *   Returns 0 on success, -1 when refused: a null or empty key, a value of PROPERTY_VALUE_MAX
 *   characters or more, or a second write to a "ro." property that already has a value (as on
 *   a device). A null value sets "" (which reads back as unset).
 *
 * Both may allocate and take a lock (the host map is not thread-safe on its own): command path
 * and tools only, never the audio path. Neither logs. Internal to the library (not exported).
 */
#ifndef SORN_PLATFORM_CUTILS_PROPERTIES_H
#define SORN_PLATFORM_CUTILS_PROPERTIES_H

#include "platform/sorn_export.h"

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

SORN_EXTERN_C_BEGIN

int property_get(const char *key, char *value, const char *default_value);
int property_set(const char *key, const char *value);

SORN_EXTERN_C_END

#endif /* SORN_PLATFORM_CUTILS_PROPERTIES_H */
