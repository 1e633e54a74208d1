// The operating system as the log side sees it: thin shims with one convention, over the
// portability library. A bad argument (null, or a value out of range) gives EN_INVALID_PARAM
// (-2) and touches nothing; a failure of the system gives EN_ERROR (-1) with errno set;
// 0, or what the operation names, is success. No state; any thread may call.
//
// The six in the first group are global symbols of the executable, for what is linked against
// it; together with LogAgentMkdirWithMultiLayer and StartsWith they are listed in
// exports.list.
#pragma once

#include <portability.h>
#include <sys/time.h>

#include <ctime>

#define ORLA_EXPORT extern "C" __attribute__((visibility("default")))

// errno of the calling thread.
ORLA_EXPORT int ToolGetErrorCode(void);
// Sleeps for `ms` milliseconds, or until a signal comes (-1). 0 is a bad argument; 4294968 and
// more is cut to the longest sleep that one call of usleep takes.
ORLA_EXPORT int ToolSleep(uint32_t ms);
// Starts a thread. With their flags set: stack of at least 0x20000 bytes, policy 0..2, priority
// 1..99. `handle` gets the thread.
ORLA_EXPORT int ToolCreateTaskWithThreadAttr(mmThread* handle, const mmUserBlock_t* routine,
                                             const mmThreadAttr* attributes);
// scandir: the number of entries in `*list`, which ToolScandirFree releases. `selector` and
// `compare` may be null.
ORLA_EXPORT int ToolScandir(const char* directory, mmDirent*** list, mmFilter selector,
                            mmSort compare);
ORLA_EXPORT void ToolScandirFree(mmDirent** list, int count);
ORLA_EXPORT int ToolStatGet(const char* path, mmStat_t* buffer);

// Flags must hold one of O_WRONLY, O_RDWR, O_CREAT and O_TRUNC or be 0; the mode must let the
// owner read or write. Gives the descriptor, close-on-exec.
int ToolOpenWithMode(const char* path, int flags, mode_t mode);
int ToolClose(int fd);
// The bytes written.
ssize_t ToolWrite(int fd, const void* buffer, uint32_t size);
int ToolMkdir(const char* path, mode_t mode);
int ToolAccess(const char* path);
int ToolAccessWithMode(const char* path, int mode);
// On failure `resolved` is unchanged; one that does not fit its `size` bytes fails.
int ToolRealPath(const char* path, char* resolved, int size);
int ToolChmod(const char* path, mode_t mode);
int ToolChown(const char* path, uid_t owner, gid_t group);
int ToolGetTimeOfDay(struct timeval* now);
int ToolLocalTimeR(const time_t* time, struct tm* local);

// These put the mutex call's error into errno.
int ToolMutexInit(mmMutex_t* mutex);
int ToolMutexLock(mmMutex_t* mutex);
int ToolMutexUnLock(mmMutex_t* mutex);
int ToolMutexDestroy(mmMutex_t* mutex);
