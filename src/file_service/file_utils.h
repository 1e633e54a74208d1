// Path and directory helpers of the core and the file service: stateless functions on text,
// with "/" as the only separator. Any thread.
#pragma once

#include <string>

// Results of the file helpers.
constexpr int kFileOk = 0;
constexpr int kFileBadPath = 4;
constexpr int kFileDirFailed = 11;

// The text before the last "/", "/" itself when that text is empty, and the empty text for a
// path without "/".
[[nodiscard]] std::string GetFileDir(const std::string& path);

// Creates a directory with all its missing parents, each with mode 0700; what exists stays as
// it is. kFileOk, kFileBadPath for an empty path or one whose missing part is relative, or
// kFileDirFailed; directories made before a failure stay.
[[nodiscard]] int CreateDir(const std::string& path);
