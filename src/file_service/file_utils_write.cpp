// Writing files under names that may be too long for the file system.
#include <fcntl.h>
#include <portability.h>

#include <cerrno>
#include <functional>

#include "file_service/file_utils.h"
#include "hdc/descriptor.h"
#include "hdc/log_side.h"

namespace {

constexpr int kOpenFlags = O_RDWR | O_CREAT | O_APPEND;
constexpr mode_t kFileMode = 0600;
constexpr int64_t kNoOffset = -1;

orla::Descriptor OpenToAppend(const std::string& name) {
    return orla::Descriptor(mmOpen2(name.c_str(), kOpenFlags, kFileMode));
}

int WriteWhole(int fd, const void* data, uint32_t length) {
    const size_t written = orla::WriteAll(fd, data, length);
    if (written < length) {
        IDE_LOGE("Write failed, info : %s, writeLen: len: %zu/%u", orla::SystemErrorText().c_str(),
                 written, length);
        return kFileWriteFailed;
    }
    if (written > length) {
        IDE_LOGE("Write failed, info : %s, writeLen larger than residLen",
                 orla::SystemErrorText().c_str());
        return kFileError;
    }
    return kFileOk;
}

int WriteTo(int fd, const void* data, uint32_t length, int64_t offset) {
    if (offset != kNoOffset && mmLseek(fd, offset, SEEK_SET) < 0) {
        IDE_LOGE("invalid param, fd %d, offset %ld", fd, static_cast<long>(offset));
        return kFileError;
    }
    return WriteWhole(fd, data, length);
}

// The short name that stands for one that is too long; empty when the name has no directory.
std::string ShortName(const std::string& name) {
    const std::string dir = GetFileDir(name);
    if (dir.empty()) {
        IDE_LOGE("file path error");
        return "";
    }
    const std::string hash = std::to_string(std::hash<std::string>{}(name));
    if (AddMappingItem(name, hash) != kFileOk) {
        IDE_LOGE("add mapping item [ %s ] failed", name.c_str());
    }
    const std::string shortName = dir + "/" + hash;
    IDE_LOGW("file name [ %s ] too long rename as [ %s ] and the mapping record in mapping.csv",
             name.c_str(), shortName.c_str());
    return shortName;
}

}  // namespace

int WriteFile(const std::string& name, const void* data, uint32_t length, int64_t offset) {
    if (SIDE_REFUSES(orla::kCoreSide, {name.empty(), "fileName is nullptr"},
                     {data == nullptr, "data is nullptr"})) {
        return kFileInvalid;
    }
    const orla::Descriptor file = OpenToAppend(name);
    if (file) {
        return WriteTo(file.get(), data, length, offset);
    }
    if (mmGetErrorCode() != ENAMETOOLONG) {
        IDE_LOGE("Open file %s failed , exception %s", name.c_str(),
                 orla::SystemErrorText().c_str());
        return kFileBadPath;
    }
    const std::string shortName = ShortName(name);
    if (shortName.empty()) {
        return kFileBadPath;
    }
    const orla::Descriptor renamed = OpenToAppend(shortName);
    if (!renamed) {
        IDE_LOGE("file path error");
        return kFileBadPath;
    }
    return WriteTo(renamed.get(), data, length, offset);
}

int AddMappingItem(const std::string& path, const std::string& hash) {
    if (SIDE_REFUSES(orla::kCoreSide, {path.empty(), "filePath is nullptr"},
                     {hash.empty(), "hashValue is null"})) {
        return kFileInvalid;
    }
    const std::string dir = GetFileDir(path);
    if (dir.empty()) {
        IDE_LOGE("file path error");
        return kFileBadPath;
    }
    const orla::Descriptor mapping = OpenToAppend(dir + "/mapping.csv");
    if (!mapping) {
        IDE_LOGE("the path of mapping.csv error");
        return kFileBadPath;
    }
    if (mmLseek(mapping.get(), 0, SEEK_END) < 0) {
        IDE_LOGE("fd %d, set the current pos at the end of mapping.csv failed", mapping.get());
        return kFileError;
    }
    std::string name;
    if (GetFileName(path, &name) != kFileOk) {
        IDE_LOGE("invalid filepath [ %s ]", path.c_str());
        return kFileBadPath;
    }
    const std::string line = hash + "," + name + "\n";
    return WriteWhole(mapping.get(), line.data(), static_cast<uint32_t>(line.size()));
}
