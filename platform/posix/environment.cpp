// The process's surroundings in <portability.h>: environment and errno.
#include <portability.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "results.h"

using orla::posix::FromError;

int32_t mmGetEnv(const char* name, char* buffer, uint32_t size) {
    if (name == nullptr || buffer == nullptr || size == 0) {
        return EN_INVALID_PARAM;
    }
    const char* value = getenv(name);
    if (value == nullptr) {
        return FromError(ENOENT);
    }
    const size_t needed = strlen(value) + 1;
    if (needed > size) {
        return FromError(ERANGE);
    }
    memcpy(buffer, value, needed);
    return EN_OK;
}

int32_t mmGetErrorCode(void) {
    return errno;
}

char* mmGetErrorFormatMessage(int32_t code, char* buffer, uint32_t size) {
    static char none[1] = "";  // never written: all that may stand in it is its zero
    if (buffer == nullptr || size == 0) {
        return none;
    }
    const int kept = errno;
    char scratch[256];
    // This strerror_r answers its text, in the scratch buffer or in the library's own tables.
    const char* text = strerror_r(code, scratch, sizeof(scratch));
    const size_t length = std::min<size_t>(strlen(text), size - 1);
    memcpy(buffer, text, length);
    buffer[length] = '\0';
    errno = kept;
    return buffer;
}

// Nothing is held from call to call in this implementation.
int32_t mmSACleanup(void) {
    return EN_OK;
}
