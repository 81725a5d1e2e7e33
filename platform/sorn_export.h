/*
 * Symbol visibility for the library. The library is built with hidden visibility; every
 * function and record of its C interface is marked SORN_EXPORT and declared inside
 * SORN_EXTERN_C_BEGIN / SORN_EXTERN_C_END so it is exported under its exact C name.
 */
#ifndef SORN_PLATFORM_EXPORT_H
#define SORN_PLATFORM_EXPORT_H

#define SORN_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define SORN_EXTERN_C_BEGIN extern "C" {
#define SORN_EXTERN_C_END }
#else
#define SORN_EXTERN_C_BEGIN
#define SORN_EXTERN_C_END
#endif

#endif /* SORN_PLATFORM_EXPORT_H */
