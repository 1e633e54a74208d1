// Writing a file so that its name always stands for a whole one. Any thread; no two at once for
// one path.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace orla::host {

// Writes `content` under a temporary name beside `path` and renames it. A symbolic link at
// either name is replaced, never followed. Empty on success, else why not; then what stood at
// `path` stands there still.
[[nodiscard]] std::string WriteWhole(const std::filesystem::path& path, std::string_view content);

// Reads a regular file of at most `limit` bytes into `*content`. Empty on success, else why not.
[[nodiscard]] std::string ReadWhole(const std::filesystem::path& path, size_t limit,
                                    std::string* content);

}  // namespace orla::host
