/*
 * The portability library: the operating system as the daemon sees it.
 *
 * Plain C, implemented over POSIX in platform/posix and by the device's own library on a
 * card. All numbers are Linux values (open flags, modes, errno). Unless stated otherwise a
 * call returns 0 (EN_OK) on success and -1 (EN_ERROR) on failure with errno set, may be
 * called from any thread, and takes ownership of nothing. A null pointer where none is allowed,
 * or a size or count that can't be one, gives -2 (EN_INVALID_PARAM) instead and nothing happens,
 * also where the result is a descriptor, a count or an offset: test for less than 0.
 */
#ifndef ORLA_PLATFORM_PORTABILITY_H
#define ORLA_PLATFORM_PORTABILITY_H

#include <dirent.h>
#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    EN_OK = 0,
    EN_ERROR = -1,
    EN_INVALID_PARAM = -2, /* a null pointer or an impossible value; errno is as before */
};

typedef pthread_t mmThread; /* 0 means: no thread */
typedef pthread_mutex_t mmMutex_t;
typedef sem_t mmSem_t;
typedef struct dirent mmDirent;
typedef struct stat mmStat_t;
typedef int (*mmFilter)(const mmDirent* entry);
typedef int (*mmSort)(const mmDirent** left, const mmDirent** right);

/* The monotonic clock: seconds and nanoseconds since an arbitrary point. */
typedef struct {
    long tv_sec;
    long tv_nsec;
} mmTimespec;

/* Local calendar time, as people write it: year 2026, month 1..12. */
typedef struct {
    uint16_t wYear;
    uint16_t wMonth;
    uint16_t wDayOfWeek; /* 0 = Sunday */
    uint16_t wDay;
    uint16_t wHour;
    uint16_t wMinute;
    uint16_t wSecond;
    uint16_t wMilliseconds;
} mmSystemTime_t;

typedef struct {
    uint64_t totalSize; /* bytes of the file system */
    uint64_t freeSize;  /* free bytes, the reserve of the super user included */
    uint64_t availSize; /* free bytes that the caller may use */
} mmDiskSize;

typedef void* (*mmUserProc)(void* argument);

/* What a new thread runs. */
typedef struct {
    mmUserProc procFunc;
    void* pulArg;
} mmUserBlock_t;

/* How a new thread is made: seven 32-bit words. A flag of 1 turns its item on. */
typedef struct {
    int32_t detachFlag;
    int32_t priorityFlag;
    int32_t priority; /* with priorityFlag: 1..99, and only beside a real-time policy */
    int32_t policyFlag;
    int32_t policy; /* with policyFlag: SCHED_OTHER, SCHED_FIFO or SCHED_RR */
    int32_t stackFlag;
    uint32_t stackSize; /* with stackFlag: bytes; less than the system's least means that least */
} mmThreadAttr;

/* Arguments and environment of a child process. Both counts are numbers of elements; the
 * arrays need not end with a null, but one among the elements ends them. There is at least one
 * argument, the program's own name. The record and its arrays stay with the caller. */
typedef struct {
    char** argv;
    int32_t argvCount;
    char** envp;
    int32_t envpCount;
} mmArgvEnv;

/* ---- Files ------------------------------------------------------------------------ */

/* open(2), close-on-exec from birth. Returns the descriptor, or -1. */
int32_t mmOpen2(const char* path, int32_t flags, mode_t mode);
/* The descriptor is gone whatever the result, unless it was none (EBADF): never close twice. */
int32_t mmClose(int32_t fd);
/* One read(2) or write(2): the count moved, or -1. A signal gives -1 with EINTR. */
ssize_t mmRead(int32_t fd, void* buffer, uint32_t size);
ssize_t mmWrite(int32_t fd, const void* buffer, uint32_t size);
/* lseek(2): the new offset in bytes, or -1. */
int64_t mmLseek(int32_t fd, int64_t offset, int32_t whence);
/* Sets the file creation mask of the process and returns the one before. */
mode_t mmUmask(mode_t mask);

/* ---- Paths ------------------------------------------------------------------------ */

/* 0 when the path exists, symbolic links followed. */
int32_t mmAccess(const char* path);
/* access(2) with a mode of R_OK | W_OK | X_OK bits: 0 when all are allowed. */
int32_t mmAccess2(const char* path, int32_t mode);
/* 0 for a directory, symbolic links followed; -1 for anything else and for nothing. */
int32_t mmIsDir(const char* path);
/* mkdir(2): one directory, `mode` less the file creation mask. */
int32_t mmMkdir(const char* path, mode_t mode);
int32_t mmChmod(const char* path, mode_t mode);
/* Removes a directory with everything below it, mounted file systems included. Symbolic links
 * are removed, never followed, even when somebody puts one into the tree meanwhile; only links
 * before the last name of `path` are. Neither the depth of the tree nor the length of the paths in
 * it matters: the call takes some ten descriptors, hardly any stack, and heap for the names on
 * its way. What can't be removed stays, the rest goes on being removed, and the result is -1 with
 * the first errno. What others remove meanwhile is as good as removed here. Where others move a
 * part out of a tree of more than eight levels the result may be ESTALE, with more of it left.
 * Refused with nothing removed: ENOENT for nothing, ENOTDIR for a symbolic link or anything else
 * that is no directory, EINVAL for a path that ends in "." or "..", EBUSY for the root. */
int32_t mmRmdir(const char* path);
/* unlink(2): anything but a directory. */
int32_t mmUnlink(const char* path);
/* The working directory belongs to the process, so it changes under every thread. */
int32_t mmChdir(const char* path);
/* The working directory into `buffer` of `size` bytes; ERANGE when it does not fit with its
 * terminating zero, and what `buffer` then holds is undefined. */
int32_t mmGetCwd(char* buffer, int32_t size);
/* stat(2), links followed. On failure `buffer` is unchanged. */
int32_t mmStatGet(const char* path, mmStat_t* buffer);
/* Size in bytes of what the path names, links followed. On failure `length` is unchanged. */
int32_t mmGetFileSize(const char* path, uint64_t* length);
/* dirname(3) and basename(3), as POSIX has them: both may write into `path` and return a
 * pointer into it or to constant text. Null for a null argument. */
char* mmDirName(char* path);
char* mmBaseName(char* path);
/* realpath(3) into `buffer` of `size` bytes. A result that does not fit with its
 * terminating zero fails with ENAMETOOLONG. On failure `buffer` is unchanged. */
int32_t mmRealPath(const char* path, char* buffer, int32_t size);
/* scandir(3): the number of entries that `filter` accepted (null accepts all), sorted by
 * `compare` (null keeps the order of the directory), or -1 with `*entries` null. The caller
 * releases the list with mmScandirFree. */
int32_t mmScandir(const char* path, mmDirent*** entries, mmFilter filter, mmSort compare);
/* Releases what mmScandir gave. Null, or a negative count, is ignored. */
void mmScandirFree(mmDirent** entries, int32_t count);
/* Sizes of the file system that holds `path`. On failure `size` is unchanged. */
int32_t mmGetDiskFreeSpace(const char* path, mmDiskSize* size);

/* ---- Threads ---------------------------------------------------------------------- */

/* Starts a joinable thread, or a detached one with detachFlag. `*handle` is the thread when the
 * call returns; the new thread may run before that, so it must not read it. On failure
 * `*handle` is 0, the result is -1 and errno tells why (EAGAIN, EINVAL for an attribute, EPERM
 * for a real-time policy without the right to it). Thread-local variables count against the
 * stack. A build under a sanitizer multiplies the stack size, because its instrumentation
 * multiplies what the stack must hold. */
int32_t mmCreateTaskWithThreadAttr(mmThread* handle, const mmUserBlock_t* routine,
                                   const mmThreadAttr* attributes);
/* The same with a detached thread of the system's default stack. */
int32_t mmCreateTaskWithDetach(mmThread* handle, const mmUserBlock_t* routine);
/* Waits for the end of a joinable thread and sets `*handle` to 0. On failure `*handle` stays:
 * EDEADLK for the calling thread, EINVAL for a detached one that still runs, EN_INVALID_PARAM
 * for 0. A detached thread that has ended must not be named to this call or the next. */
int32_t mmJoinTask(mmThread* handle);
/* Names a thread that has not been joined. The kernel keeps 15 bytes; a longer name is cut. */
int32_t mmSetThreadName(mmThread* handle, const char* name);
int32_t mmSetCurrentThreadName(const char* name);

/* A mutex of this process, not recursive: locking it twice in one thread never returns. */
int32_t mmMutexInit(mmMutex_t* mutex);
int32_t mmMutexLock(mmMutex_t* mutex);
int32_t mmMutexUnLock(mmMutex_t* mutex);
int32_t mmMutexDestroy(mmMutex_t* mutex);

/* A counting semaphore of this process. mmSemPost may be called in a signal handler;
 * mmSemWait fails with EINTR when a signal interrupts it. */
int32_t mmSemInit(mmSem_t* semaphore, uint32_t value);
int32_t mmSemWait(mmSem_t* semaphore);
int32_t mmSemPost(mmSem_t* semaphore);
int32_t mmSemDestroy(mmSem_t* semaphore);

/* ---- Process and time ------------------------------------------------------------- */

/* Sleeps for at least that many milliseconds; signals do not shorten it. */
int32_t mmSleep(uint32_t milliseconds);
/* The kernel's id of the calling thread, and of the process. */
int32_t mmGetTid(void);
int32_t mmGetPid(void);
/* CLOCK_MONOTONIC_RAW: never set, never slewed, and standing still while the machine sleeps. */
mmTimespec mmGetTickCount(void);
/* Local time with milliseconds. On failure `time` is unchanged. */
int32_t mmGetLocalTime(mmSystemTime_t* time);
/* Copies the variable's value with its terminating zero into `buffer` of `size` bytes.
 * An unset variable gives -1 with ENOENT, a value that does not fit ERANGE; `buffer` is then
 * unchanged. Nobody may change the environment meanwhile. */
int32_t mmGetEnv(const char* name, char* buffer, uint32_t size);
/* errno of the calling thread. */
int32_t mmGetErrorCode(void);
/* The system's text for the errno value `code` into `buffer`, cut to `size` bytes with its
 * terminating zero; errno stays. Returns `buffer`, or a constant empty text when `buffer` is null
 * or `size` is 0. */
char* mmGetErrorFormatMessage(int32_t code, char* buffer, uint32_t size);

/* Runs `program` in a child process. The program gets exactly the arguments and environment
 * of `arguments`. A name without a slash is searched in the PATH of that environment, then
 * in the caller's; a directory without the file, or with one that may not be run, is passed
 * over. A script needs its "#!" line. With `redirection` the child's standard output and error
 * go to that file, created with mode 0640 or cut to nothing, and that also when the program
 * then can't be started; null leaves them. Every other descriptor above 2 is closed in the child,
 * and its signal dispositions and mask are the default ones. 0 with the child's id in `*pid`; -1
 * with errno when it could not be started, a missing program included, and then no child remains
 * and `*pid` is unchanged. */
int32_t mmCreateProcess(const char* program, const mmArgvEnv* arguments, const char* redirection,
                        pid_t* pid);
enum {
    M_WAIT_NOHANG = 1, /* waitpid's WNOHANG */
};
/* Waits for a child; signals do not interrupt it. 1 when the child has ended (`*status` then
 * holds its exit value, or 128 plus the number of the signal that ended it) and is reaped, 0
 * while it runs and `options` is M_WAIT_NOHANG, -1 on failure (ECHILD: no such child) and -2
 * for other options, or for a `pid` that names no single child. `status` may be null, and is
 * written with result 1 only. */
int32_t mmWaitPid(pid_t pid, int32_t* status, int32_t options);

/* The last call of the process to this library: releases what it holds. */
int32_t mmSACleanup(void);

#ifdef __cplusplus
}
#endif
#endif
