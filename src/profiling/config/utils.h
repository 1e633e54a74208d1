// Common utilities of the profiling agent: paths and directories, texts and numbers, clocks,
// child processes and the names of job results.
//
// Static functions without state of their own. Any thread may call any of them at any time; one
// mutex of the process orders those that use the environment and the user database, and
// CreateResultPath seeds the process's random generator. ExecCmd may change the working
// directory of the process, see there.
//
// Unless stated otherwise an int result is 0 for success and -1 for failure, and a failure
// leaves out-parameters as they were. None of the functions throws on its own account. Log lines
// show the base name of a path, never the path.
//
// Sources by concept: utils_path.cpp, utils_dir.cpp, utils_file.cpp, utils_text.cpp,
// utils_time.cpp, utils_process.cpp, utils_names.cpp, utils_system.cpp (environment, errors,
// memory).
#pragma once

#include <portability.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace analysis::nedra::common::utils {

// How ExecCmd runs a command.
struct ExecCmdParams {
    std::string cmd;                 // path, or a bare name that is searched, see ExecCmd
    bool async;                      // true: started and not waited for
    std::string stdoutRedirectFile;  // gets standard output and error; empty: not redirected
};

// Arguments (with the command in front) and environment as C arrays. Both end in a null that
// the counts do not count.
using ExecCmdArgv = mmArgvEnv;

class Utils {
public:
    // ---- Paths ---------------------------------------------------------------------------

    // False for an empty path. Symbolic links are followed.
    [[nodiscard]] static bool IsDir(const std::string& path);
    [[nodiscard]] static bool IsFileExist(const std::string& path);
    // Whether it is a directory that may be written; what it lacks is logged as an error.
    [[nodiscard]] static bool IsDirAccessible(const std::string& path);
    // In bytes; all bits set on failure.
    [[nodiscard]] static uint64_t GetFileSize(const std::string& path);
    // As dirname(3) and basename(3): "." for an empty path.
    [[nodiscard]] static std::string DirName(const std::string& path);
    [[nodiscard]] static std::string BaseName(const std::string& path);
    // Both at once.
    [[nodiscard]] static int SplitPath(const std::string& path, std::string& dir,
                                       std::string& base);
    // Sets `out` to what follows the first `prefix` in `path`, without leading "/" and "\". When
    // `prefix` is not found `out` stays as it was.
    static void GetRelativePath(const std::string& path, const std::string& prefix,
                                std::string& out);
    // The absolute path without links, "." and ".."; a leading "~/" is the home directory. Empty
    // for a path that does not exist, is empty or has more than 4095 characters.
    [[nodiscard]] static std::string CanonicalizePath(const std::string& path);
    // The home directory in place of the "~" of a leading "~/". Other paths stay as they are, and
    // so does every path when there is no home directory.
    [[nodiscard]] static std::string ExpandHome(const std::string& path);
    // Without a trailing "/"; empty for a user that nobody knows.
    [[nodiscard]] static std::string GetUserHomeDir();
    // The file of the running program; empty on failure.
    [[nodiscard]] static std::string GetSelfPath();
    // The parts, joined by "/".
    [[nodiscard]] static std::string JoinPath(const std::vector<std::string>& parts);

    // ---- Directories and files -----------------------------------------------------------

    // Creates a directory and its missing parents, each with mode 0750 whatever the umask is.
    // What exists already stays as it is. -1 also for an empty path or one over 4095 characters.
    [[nodiscard]] static int CreateDir(const std::string& path);
    // Removes a directory tree, or with `rmTopDir` false what is in it. Links in it are removed
    // and not followed. An empty path, and every path that leads to the root directory, is
    // refused. What cannot be removed stays.
    static void RemoveDir(const std::string& path, bool rmTopDir);
    // Appends the full paths of the non-directories (GetFiles) or directories (GetChildDirs) in
    // `dir`, with `recursive` also of all below it, in no particular order. A link counts as a
    // non-directory and is not followed. A directory that cannot be read counts as empty.
    static void GetFiles(const std::string& dir, bool recursive, std::vector<std::string>& out);
    static void GetChildDirs(const std::string& dir, bool recursive, std::vector<std::string>& out);
    // Appends the bare names of all entries of `dir`.
    [[nodiscard]] static int GetChildFilenames(const std::string& dir,
                                               std::vector<std::string>& out);
    // Appends `text` to a file under a shared flock. Log lines call the file `displayName`.
    [[nodiscard]] static int WriteFileWithLock(const std::string& path,
                                               const std::string& displayName,
                                               const std::string& text);

    // ---- Texts and numbers ---------------------------------------------------------------

    // Cuts `text` at each `delimiter`. The last piece ends at the end of the text, so neither an
    // empty text nor a trailing delimiter gives an empty piece there. With `filter` a piece equal
    // to `filterToken` is dropped.
    [[nodiscard]] static std::vector<std::string> Split(const std::string& text,
                                                        bool filter = false,
                                                        const std::string& filterToken = "",
                                                        const std::string& delimiter = ",");
    // The texts, with `separator` between them.
    [[nodiscard]] static std::string Join(const std::vector<std::string>& texts,
                                          const std::string& separator);
    // Without the blanks at both ends.
    [[nodiscard]] static std::string Trim(const std::string& text);
    // Without the leading characters that are in `chars`.
    [[nodiscard]] static std::string LeftTrim(const std::string& text, const std::string& chars);
    // ASCII letters only; other bytes stay.
    [[nodiscard]] static std::string ToLower(const std::string& text);
    [[nodiscard]] static std::string ToUpper(const std::string& text);
    // Not empty, and "0" to "9" only.
    [[nodiscard]] static bool IsAllDigit(const std::string& text);
    // Decimal digits of a number from 0 to 2147483647, in at most 10 characters. Refusals are
    // logged as errors, but for the empty text.
    [[nodiscard]] static bool CheckStringIsNonNegativeIntNum(const std::string& text);
    // Decimal, padded with "0" to 4 characters, and a line feed.
    [[nodiscard]] static std::string Int2Str4(int number);

    // ---- Environment, time, errors -------------------------------------------------------

    // Empty for a variable that is not set or has more than 8191 characters.
    [[nodiscard]] static std::string GetEnvString(const std::string& name);
    // Whether PROFILING_MODE is "dynamic".
    [[nodiscard]] static bool IsDynProfMode();

    // Nanoseconds since 1970.
    [[nodiscard]] static uint64_t GetClockRealtime();
    // Nanoseconds of the one clock that time differences are taken from.
    [[nodiscard]] static uint64_t GetClockMonotonicRaw();
    // The processor's free-running counter in its own unit: the virtual counter on aarch64, the
    // time stamp counter on x86, elsewhere the monotonic clock.
    [[nodiscard]] static uint64_t GetCntvct();
    // The three clocks above, one line each: "clock_realtime: 1\n…".
    [[nodiscard]] static std::string GetTimeRecord();
    // Sleeps for whole milliseconds: what is below one is cut off.
    static void UsleepInterupt(uint64_t us);

    // Logs errno of the calling thread and its text as an error.
    static void PrintSysErrorMsg();

    // ---- Processes -----------------------------------------------------------------------

    // Runs a command with exactly the arguments `argv` (without the command itself) and the
    // environment `envp` ("NAME=value"), each of at most 0x100000 entries. A bare command name is
    // searched in the PATH of `envp`, then in that of the process.
    //
    // Waiting (`params.async` false): the working directory of the process becomes that of the
    // command first, so a relative path with a "/" in it leads nowhere; `exitCode` gets the exit
    // value, or 128 plus the number of a signal. Async: the working directory stays and `pid`
    // gets the child, which the caller has to wait for.
    // -1 when the command is empty or cannot be started, and in both forms when `exitCode` holds
    // -1 on entry.
    [[nodiscard]] static int ExecCmd(const ExecCmdParams& params,
                                     const std::vector<std::string>& argv,
                                     const std::vector<std::string>& envp, int& exitCode, int& pid);
    // Asks whether the child `pid` has ended, and with `hang` waits for that. `isExited` tells,
    // and is false after a failure; `exitCode` is set only when it is true.
    [[nodiscard]] static int WaitProcess(int pid, bool& isExited, int& exitCode, bool hang);

    // ---- Names ---------------------------------------------------------------------------

    // "host" for the pseudo device "64", else "device_" and the id.
    [[nodiscard]] static std::string CreateTaskId(const std::string& devId);
    // "PROF_000001_20261122210730042_" and 16 random letters from A to R.
    [[nodiscard]] static std::string CreateResultPath(uint64_t hash);
    // "trace" and 27 digits.
    [[nodiscard]] static std::string CreateTraceId(uint64_t seed);

    // ---- Memory --------------------------------------------------------------------------

    // A zero-filled block; null, without a log line, for size 0 and when memory is out.
    [[nodiscard]] static void* ProfMalloc(size_t size);
    // Frees such a block, or nothing, and sets `ptr` to null.
    static void ProfFree(void*& ptr);
};

}  // namespace analysis::nedra::common::utils
