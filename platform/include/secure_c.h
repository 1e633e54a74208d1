/*
 * Bounds-checked C functions. Plain C, implemented in platform/posix and by the device's own
 * library on a card.
 *
 * `destMax` is the size of the destination in bytes and lies in 1..0x7FFFFFFF. On a failure
 * the destination holds an empty text (text functions) or zeros (memcpy_s) wherever it may be
 * written at all, and the source is not touched. Source and destination must not overlap.
 */
#ifndef ORLA_PLATFORM_SECURE_C_H
#define ORLA_PLATFORM_SECURE_C_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int errno_t;

#ifndef EOK
#define EOK 0
#endif

/* 0, or EINVAL (null pointer), ERANGE (destMax out of range or too small), or an errno above
 * 128 for an overlap. `count` bytes are copied or set; a count of 0 is a success. */
errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count);
errno_t memset_s(void *dest, size_t destMax, int c, size_t count);

/* 0, or an error as above. The n-forms copy at most `count` characters of the source. The
 * result always ends in a zero; text that would not fit with it is an error, never cut. */
errno_t strcpy_s(char *dest, size_t destMax, const char *src);
errno_t strncpy_s(char *dest, size_t destMax, const char *src, size_t count);
errno_t strcat_s(char *dest, size_t destMax, const char *src);
errno_t strncat_s(char *dest, size_t destMax, const char *src, size_t count);

/* The number of characters written without the terminating zero, or -1 with an empty
 * destination when the text does not fit (snprintf_s: in `count` characters either). */
int sprintf_s(char *dest, size_t destMax, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
int snprintf_s(char *dest, size_t destMax, size_t count, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/* The same, but text that does not fit is cut to destMax - 1 characters and that number is
 * returned. -1 only for invalid arguments or an invalid format. */
int snprintf_truncated_s(char *dest, size_t destMax, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
int vsnprintf_truncated_s(char *dest, size_t destMax, const char *format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

#ifdef __cplusplus
}
#endif
#endif
