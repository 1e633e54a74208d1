// The functions of <secure_c.h> on text.
#include <secure_c.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "secure_checks.h"

using orla::posix::CheckDestination;
using orla::posix::kMaxDestination;
using orla::posix::kOverlap;
using orla::posix::Overlap;

namespace {

constexpr size_t kWholeText = kMaxDestination;  // no text that fits is longer

// Puts up to `count` characters of `src` and a zero behind the first `used` ones of `dest`.
errno_t TryAppend(char* dest, size_t destMax, size_t used, const char* src, size_t count) {
    if (src == nullptr || used == destMax) {  // the latter: the text there has no end
        return EINVAL;
    }
    if (count > kMaxDestination) {
        return ERANGE;
    }
    const size_t room = destMax - used;
    const size_t length = strnlen(src, std::min(count, room));
    if (length == room) {
        return ERANGE;
    }
    const size_t read = length < count ? length + 1 : length;
    if (Overlap(dest + used, length + 1, src, read)) {
        return kOverlap;
    }
    memcpy(dest + used, src, length);
    dest[used + length] = '\0';
    return EOK;
}

errno_t Append(char* dest, size_t destMax, size_t used, const char* src, size_t count) {
    const errno_t error = TryAppend(dest, destMax, used, src, count);
    if (error != EOK) {
        dest[0] = '\0';
    }
    return error;
}

// The length of the whole text, or -1 with an empty destination when it can't be formatted.
int Format(char* dest, size_t destMax, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));
int Format(char* dest, size_t destMax, const char* format, va_list arguments) {
    if (CheckDestination(dest, destMax) != EOK) {
        return -1;
    }
    const int length = format == nullptr ? -1 : vsnprintf(dest, destMax, format, arguments);
    if (length < 0) {
        dest[0] = '\0';
        return -1;
    }
    return length;
}

// The same, and -1 as well when the text has more than `limit` characters or does not fit.
int FormatWhole(char* dest, size_t destMax, size_t limit, const char* format, va_list arguments)
    __attribute__((format(printf, 4, 0)));
int FormatWhole(char* dest, size_t destMax, size_t limit, const char* format, va_list arguments) {
    const int length = Format(dest, destMax, format, arguments);
    if (length >= 0 && static_cast<size_t>(length) > std::min(limit, destMax - 1)) {
        dest[0] = '\0';
        return -1;
    }
    return length;
}

}  // namespace

errno_t strcpy_s(char* dest, size_t destMax, const char* src) {
    return strncpy_s(dest, destMax, src, kWholeText);
}

errno_t strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
    const errno_t error = CheckDestination(dest, destMax);
    return error != EOK ? error : Append(dest, destMax, 0, src, count);
}

errno_t strcat_s(char* dest, size_t destMax, const char* src) {
    return strncat_s(dest, destMax, src, kWholeText);
}

errno_t strncat_s(char* dest, size_t destMax, const char* src, size_t count) {
    const errno_t error = CheckDestination(dest, destMax);
    return error != EOK ? error : Append(dest, destMax, strnlen(dest, destMax), src, count);
}

int sprintf_s(char* dest, size_t destMax, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = FormatWhole(dest, destMax, kWholeText, format, arguments);
    va_end(arguments);
    return length;
}

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = FormatWhole(dest, destMax, count, format, arguments);
    va_end(arguments);
    return length;
}

int snprintf_truncated_s(char* dest, size_t destMax, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_truncated_s(dest, destMax, format, arguments);
    va_end(arguments);
    return length;
}

int vsnprintf_truncated_s(char* dest, size_t destMax, const char* format, va_list arguments) {
    const int length = Format(dest, destMax, format, arguments);
    return length < 0 ? -1 : std::min(length, static_cast<int>(destMax - 1));
}
