#include "host/safe_file.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <system_error>

namespace orla::host {

std::string WriteWhole(const std::filesystem::path& path, std::string_view content) {
    const auto temporary = path.parent_path() / fmt::format(".orlactl-{}.part", getpid());
    std::error_code error;
    std::filesystem::remove(temporary, error);
    std::FILE* out = std::fopen(temporary.c_str(), "wbxe");
    if (out == nullptr) {
        return std::strerror(errno);
    }
    const bool written = std::fwrite(content.data(), 1, content.size(), out) == content.size() &&
                         std::fflush(out) == 0 && fsync(fileno(out)) == 0;
    error = written ? std::error_code() : std::error_code(errno, std::generic_category());
    if (std::fclose(out) != 0 && !error) {
        error = std::error_code(errno, std::generic_category());
    }
    if (!error) {
        std::filesystem::rename(temporary, path, error);
    }
    if (!error) {
        return "";
    }
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    return error.message();
}

std::string ReadWhole(const std::filesystem::path& path, size_t limit, std::string* content) {
    std::error_code error;
    // What a device or another user put there may be a pipe, which would block the open.
    if (!std::filesystem::is_regular_file(path, error)) {
        return error ? error.message() : "no regular file";
    }
    const uintmax_t size = std::filesystem::file_size(path, error);
    if (error || size > limit) {
        return error ? error.message() : fmt::format("larger than {} bytes", limit);
    }
    std::ifstream in(path, std::ios::binary);
    content->resize(size);
    in.read(content->data(), static_cast<std::streamsize>(size));
    content->resize(static_cast<size_t>(in.gcount()));
    return in.bad() || !in.is_open() ? std::strerror(errno) : "";
}

}  // namespace orla::host
