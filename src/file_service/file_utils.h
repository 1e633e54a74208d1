// Path, directory and file helpers of the core and the file service: stateless functions on
// text, with "/" as the only separator. None throws. Any thread.
#pragma once

#include <portability.h>

#include <cstdint>
#include <string>
#include <vector>

// Results of the file helpers.
constexpr int kFileOk = 0;
constexpr int kFileError = 1;
constexpr int kFileWriteFailed = 3;
constexpr int kFileBadPath = 4;
constexpr int kFileInvalid = 5;
constexpr int kFileDirFailed = 11;

// ---- Tests: false for an empty path --------------------------------------------------------

[[nodiscard]] bool IsFileExist(const std::string& path);
[[nodiscard]] bool IsReadable(const std::string& path);
[[nodiscard]] bool IsDir(const std::string& path);
// A directory in which this process may read, write and search.
[[nodiscard]] bool IsDirAccessible(const std::string& path);

// ---- Names ---------------------------------------------------------------------------------

// The text before the last "/", "/" itself when that text is empty, and the empty text for a
// path without "/".
[[nodiscard]] std::string GetFileDir(const std::string& path);
// The text behind the last "/". kFileOk, or kFileBadPath with `*name` empty when there is none.
[[nodiscard]] int GetFileName(const std::string& path, std::string* name);
// Not empty, at most 4096 characters, and no step to a parent directory in it.
[[nodiscard]] bool IsValidPath(const std::string& path);
// Letters, digits and "-=[];\,./!@#$%^&*()_+{}:?" only; an empty path is not.
[[nodiscard]] bool IsValidPathChars(const std::string& path);
// The path without links and dots. 0, or -1 with `*real` unchanged when it doesn't exist.
[[nodiscard]] int GetRealPath(const std::string& path, std::string* real);
// `*result` gets `path` when its directory, if it names one, exists: 0. Else -1, unchanged.
[[nodiscard]] int CheckCanonicalPath(const std::string& path, std::string* result);

// ---- Directories ---------------------------------------------------------------------------

// Creates a directory with all its missing parents, each with mode 0700; what exists stays as
// it is. kFileOk, kFileBadPath for an empty path or one whose missing part is relative, or
// kFileDirFailed; directories made before a failure stay.
[[nodiscard]] int CreateDir(const std::string& path);

// Appends the regular files of `dir`, which ends in "/", to `list`, in the order of their names:
// those that begin with `prefix` (empty: all) and don't end in "tmp". With `recursive` the files
// of a subdirectory take its place in the order, under the path dir + "/" + name + "/"; one that
// can't be read is left out. False when `dir` itself can't be read, and then nothing is appended.
[[nodiscard]] bool GetFileList(const std::string& dir, std::vector<std::string>* list,
                               mmFilter filter, const std::string& prefix, bool recursive);

// Whether `size` bytes don't fit on the file system of `path`, of which 1 MiB is kept free. A
// file system that doesn't answer counts as full, an empty path does not.
[[nodiscard]] bool IsDiskFull(const std::string& path, uint64_t size);

// ---- Writing -------------------------------------------------------------------------------

// Appends `length` bytes to a file, which is made with mode 0600; with an `offset` other than -1
// the file position is set first. A name that the system finds too long is replaced by the
// decimal hash of the whole name, in the same directory, and the pair noted in its mapping.csv.
// kFileOk, or kFileInvalid, kFileBadPath, kFileError (offset), kFileWriteFailed; what was
// written before a failure stays.
[[nodiscard]] int WriteFile(const std::string& name, const void* data, uint32_t length,
                            int64_t offset);

// Appends the line "hash,base name" to mapping.csv in the directory of `path`.
[[nodiscard]] int AddMappingItem(const std::string& path, const std::string& hash);
