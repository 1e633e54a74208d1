// Mutexes and semaphores of <portability.h>.
#include <portability.h>
#include <pthread.h>
#include <semaphore.h>

#include "results.h"

using orla::posix::FromCall;
using orla::posix::FromError;

int32_t mmMutexInit(mmMutex_t* mutex) {
    return mutex == nullptr ? EN_INVALID_PARAM : FromError(pthread_mutex_init(mutex, nullptr));
}

int32_t mmMutexLock(mmMutex_t* mutex) {
    return mutex == nullptr ? EN_INVALID_PARAM : FromError(pthread_mutex_lock(mutex));
}

int32_t mmMutexUnLock(mmMutex_t* mutex) {
    return mutex == nullptr ? EN_INVALID_PARAM : FromError(pthread_mutex_unlock(mutex));
}

int32_t mmMutexDestroy(mmMutex_t* mutex) {
    return mutex == nullptr ? EN_INVALID_PARAM : FromError(pthread_mutex_destroy(mutex));
}

int32_t mmSemInit(mmSem_t* semaphore, uint32_t value) {
    return semaphore == nullptr ? EN_INVALID_PARAM : FromCall(sem_init(semaphore, 0, value));
}

int32_t mmSemWait(mmSem_t* semaphore) {
    return semaphore == nullptr ? EN_INVALID_PARAM : FromCall(sem_wait(semaphore));
}

int32_t mmSemPost(mmSem_t* semaphore) {
    return semaphore == nullptr ? EN_INVALID_PARAM : FromCall(sem_post(semaphore));
}

int32_t mmSemDestroy(mmSem_t* semaphore) {
    return semaphore == nullptr ? EN_INVALID_PARAM : FromCall(sem_destroy(semaphore));
}
