// How the answers of the system become the answers of <portability.h>. For the sources of this
// folder only; all functions are free of state and may run on any thread.
#pragma once

#include <portability.h>

#include <cerrno>
#include <new>

namespace orla::posix {

// For a call that answers 0, or -1 with errno set.
inline int32_t FromCall(int result) {
    return result == 0 ? EN_OK : EN_ERROR;
}

// For a call that answers 0 or an error number, as the pthread functions do. Errno is where the
// callers of the contract look for it.
inline int32_t FromError(int error) {
    if (error == 0) {
        return EN_OK;
    }
    errno = error;
    return EN_ERROR;
}

// Runs a body that answers 0 or an error number and may allocate: no exception may leave a C
// function.
template <typename Body>
int32_t WithoutException(Body body) {
    try {
        return FromError(body());
    } catch (const std::bad_alloc&) {
        return FromError(ENOMEM);
    }
}

}  // namespace orla::posix
