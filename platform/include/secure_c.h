/*
 * Bounds-checked C functions. Plain C, implemented in platform/posix and by the device's own
 * library on a card.
 *
 * `destMax` is the size of the destination in bytes and lies in 1..0x7FFFFFFF. Source and
 * destination must not overlap, nor the destination any argument of a format. On a failure the
 * destination holds an empty text (text functions) or zeros in all its bytes (memcpy_s); only a
 * null one, or one with a `destMax` out of range, is not written. No function
 * keeps state, or sets errno on purpose.
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

/* 0, or ERANGE (destMax out of range, or less than `count`), EINVAL (null pointer, with a
 * `count` of 0 too), or 128 + EINVAL for an overlap. `count` bytes are copied or set, none for 0.
 * memset_s with too large a `count` sets all bytes of the destination and fails. */
errno_t memcpy_s(void* dest, size_t destMax, const void* src, size_t count);
errno_t memset_s(void* dest, size_t destMax, int c, size_t count);

/* 0, or an error as above, with EINVAL too for a destination to append to that has no end. The
 * n-forms copy at most `count` characters of the source, which needs no terminating zero within
 * them; a `count` above 0x7FFFFFFF is ERANGE. The result always ends in a zero; text that would
 * not fit with it is ERANGE, never cut. */
errno_t strcpy_s(char* dest, size_t destMax, const char* src);
errno_t strncpy_s(char* dest, size_t destMax, const char* src, size_t count);
errno_t strcat_s(char* dest, size_t destMax, const char* src);
errno_t strncat_s(char* dest, size_t destMax, const char* src, size_t count);

/* The number of characters written without the terminating zero, or -1 with an empty
 * destination for invalid arguments or when the text does not fit (snprintf_s: nor in `count`
 * characters). */
int sprintf_s(char* dest, size_t destMax, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/* The same, but text that does not fit is cut to destMax - 1 characters and that number is
 * returned. -1 only for invalid arguments or an invalid format. */
int snprintf_truncated_s(char* dest, size_t destMax, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int vsnprintf_truncated_s(char* dest, size_t destMax, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

#ifdef __cplusplus
}
#endif
#endif
