// Path and user helpers of the log side. No state; any thread may call. Results are 0 or the
// codes named; log lines go to the self log unless stated.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "log/log_platform.h"

constexpr uint32_t kLogPathMax = 4096;  // characters of a path, without the terminating zero

// What the making of directories answers, besides 0.
constexpr int kLogNullPath = 1;
constexpr int kLogOutOfMemory = 4;
constexpr int kLogCopyFailed = 7;
constexpr int kLogMkdirFailed = 27;
constexpr int kLogChownFailed = 39;

// Makes every directory on the way to `path`, which is taken as absolute: "a/b" makes "/a" and
// "/a/b". A prefix has at most 255 characters. 0, one of the codes above, or what MakeLogDir
// gave for the first prefix that failed. Exported by the executable.
ORLA_EXPORT int LogAgentMkdirWithMultiLayer(const char* path);

// False for a null argument. Exported by the executable.
ORLA_EXPORT bool StartsWith(const char* text, const char* prefix);

// Makes one directory, mode 0750 whatever the umask, owned by the current user and group; an
// existing path is left as it is. Says nothing: the self log itself calls it.
[[nodiscard]] int MakeLogDir(const char* path);

// The current user and its group. 1: the user is not found, which is told on standard output;
// 2: a null argument. On failure both are unchanged.
[[nodiscard]] int GetUserGroupId(uid_t* uid, gid_t* gid);

// Makes the directory `path` usable and resolves it into `resolved`, `size` bytes. Trailing
// blanks and slashes are cut off `path` in place. A path that vanishes meanwhile is given as it
// was asked for. -1 on failure.
[[nodiscard]] int PrepareLogDir(char* path, char* resolved, uint32_t size);

// Copies `path` into `out` (`size` bytes, 1 to 4097), a leading "~" replaced by the current
// user's home directory. -1 on failure.
[[nodiscard]] int ExpandHome(const char* path, char* out, uint32_t size);

// `out` becomes `directory` followed by `fileName`, nothing in between; together they have to
// fit `size` bytes. -1 on failure, and then `out` is the empty text.
[[nodiscard]] int JoinPath(char* out, const char* fileName, const char* directory, uint32_t size);
