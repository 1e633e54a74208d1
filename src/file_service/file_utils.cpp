#include "file_service/file_utils.h"

#include <portability.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "file_service/string_utils.h"
#include "hdc/hdc_packet.h"
#include "hdc/log_side.h"
#include "hdc/memory_utils.h"

namespace {

constexpr mode_t kDirMode = 0700;
constexpr size_t kMaxPath = 4096;
constexpr uint64_t kDiskReserve = 0x100000;
constexpr const char* kTemporaryTail = "tmp";

int MakeDir(const std::string& path) {
    // A path that ends in "/" exists as soon as its parent was made.
    if (IsFileExist(path) || mmMkdir(path.c_str(), kDirMode) == EN_OK ||
        mmGetErrorCode() == EEXIST) {
        return kFileOk;
    }
    IDE_LOGE("mkdir %s failed, errorstr: %s", path.c_str(), orla::SystemErrorText().c_str());
    return kFileDirFailed;
}

bool IsAllowedInPath(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c != '\0' && std::strchr("-=[];\\,./!@#$%^&*()_+{}:?", c) != nullptr);
}

int ByName(const mmDirent** left, const mmDirent** right) {
    return std::strcmp((*left)->d_name, (*right)->d_name);
}

// A directory in the middle of its scan.
class DirScan {
public:
    DirScan(std::string dir, mmFilter filter) : dir_(std::move(dir)) {
        count_ = mmScandir(dir_.c_str(), &entries_, filter, ByName);
        if (count_ < 0) {
            IDE_LOGE("Scandir %s failed, errno=%s", dir_.c_str(), orla::SystemErrorText().c_str());
        } else if (entries_ == nullptr) {
            IDE_LOGE("Scandir failed, get null file list");
        }
    }
    ~DirScan() { mmScandirFree(entries_, count_); }
    DirScan(const DirScan&) = delete;
    DirScan& operator=(const DirScan&) = delete;

    bool good() const { return count_ >= 0 && entries_ != nullptr; }
    const std::string& dir() const { return dir_; }
    // The next entry, or null at the end.
    const mmDirent* Next() { return good() && next_ < count_ ? entries_[next_++] : nullptr; }

private:
    const std::string dir_;
    mmDirent** entries_ = nullptr;
    int count_ = 0;
    int next_ = 0;
};

bool IsWanted(const std::string& name, const std::string& prefix) {
    return name.compare(0, prefix.size(), prefix) == 0 && !IsEndsWith(name, kTemporaryTail);
}

}  // namespace

bool IsFileExist(const std::string& path) {
    return !path.empty() && mmAccess(path.c_str()) == EN_OK;
}

bool IsReadable(const std::string& path) {
    if (path.empty()) {
        return false;
    }
    if (mmAccess2(path.c_str(), R_OK) != EN_OK) {
        IDE_LOGW("check path: %s read permission failed!", path.c_str());
        return false;
    }
    return true;
}

bool IsDir(const std::string& path) {
    if (path.empty()) {
        IDE_LOGE("invalid parameter");
        return false;
    }
    if (mmIsDir(path.c_str()) != EN_OK) {
        IDE_LOGI("%s is file", path.c_str());
        return false;
    }
    return true;
}

bool IsDirAccessible(const std::string& path) {
    if (path.empty()) {
        return false;
    }
    if (mmAccess2(path.c_str(), R_OK | W_OK | X_OK) != EN_OK) {
        IDE_LOGW("check path: %s rwx permission failed!", path.c_str());
        return false;
    }
    return IsDir(path);
}

std::string GetFileDir(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return "";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

int GetFileName(const std::string& path, std::string* name) {
    const size_t slash = path.rfind('/');
    *name = slash == std::string::npos ? path : path.substr(slash + 1);
    return name->empty() ? kFileBadPath : kFileOk;
}

bool IsValidPath(const std::string& path) {
    return !path.empty() && path.size() <= kMaxPath && path.compare(0, 2, "..") != 0 &&
           path.find("/..") == std::string::npos && path.find("/\\.\\.") == std::string::npos;
}

bool IsValidPathChars(const std::string& path) {
    if (path.empty()) {
        IDE_LOGE("invalid parameter");
        return false;
    }
    const auto other = std::find_if_not(path.begin(), path.end(), IsAllowedInPath);
    if (other != path.end()) {
        IDE_LOGW("invalid path [%s] in char : [%c] at location %lu", path.c_str(), *other,
                 static_cast<unsigned long>(other - path.begin()));
        return false;
    }
    return true;
}

int GetRealPath(const std::string& path, std::string* real) {
    const orla::HeapBlock buffer(static_cast<char*>(IdeXmalloc(kMaxPath)));
    if (buffer == nullptr) {
        IDE_LOGE("malloc memory failed");
        return -1;
    }
    if (mmRealPath(path.c_str(), buffer.get(), kMaxPath) != EN_OK) {
        return -1;
    }
    *real = buffer.get();
    return 0;
}

int CheckCanonicalPath(const std::string& path, std::string* result) {
    if (path.empty()) {
        return -1;
    }
    const size_t slash = path.rfind('/');
    std::string dir;
    if (slash != std::string::npos && GetRealPath(path.substr(0, slash + 1), &dir) != 0) {
        IDE_LOGE("path %s is not exist", path.c_str());
        return -1;
    }
    *result = path;
    return 0;
}

int CreateDir(const std::string& path) {
    if (path.empty()) {
        IDE_LOGE("create dir input empty");
        return kFileBadPath;
    }
    // A list rather than recursion: the depth is the caller's, the stack has 128 KiB.
    int ret = kFileOk;
    std::vector<std::string> missing;
    for (std::string current = path; !IsFileExist(current); current = GetFileDir(current)) {
        if (GetFileDir(current).empty()) {
            ret = kFileBadPath;
            IDE_LOGE("Get file dir failed, ret: %d", ret);
            break;
        }
        missing.push_back(current);
    }
    for (auto dir = missing.rbegin(); dir != missing.rend(); ++dir) {
        if (ret != kFileOk) {
            IDE_LOGE("Create dir failed, ret: %d", ret);
            continue;
        }
        ret = MakeDir(*dir);
    }
    return ret;
}

bool GetFileList(const std::string& dir, std::vector<std::string>* list, mmFilter filter,
                 const std::string& prefix, bool recursive) {
    // A stack of our own rather than recursion: how deep the tree is, is not ours to say.
    std::vector<std::unique_ptr<DirScan>> open;
    open.push_back(std::make_unique<DirScan>(dir, filter));
    if (!open.back()->good()) {
        return false;
    }
    while (!open.empty()) {
        const mmDirent* entry = open.back()->Next();
        if (entry == nullptr) {
            open.pop_back();
            continue;
        }
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        IDE_LOGD("fileList : %s", name.c_str());
        if (entry->d_type == DT_DIR && recursive) {
            IDE_LOGD("found sub dir: %s, recall get list", name.c_str());
            open.push_back(
                std::make_unique<DirScan>(open.back()->dir() + "/" + name + "/", nullptr));
        } else if (entry->d_type == DT_REG && IsWanted(name, prefix)) {
            list->push_back(open.back()->dir() + name);
        } else if (entry->d_type != DT_DIR) {
            IDE_LOGD("found neither folder nor file, skip : %s", name.c_str());
        }
    }
    return true;
}

bool IsDiskFull(const std::string& path, uint64_t size) {
    if (path.empty()) {
        IDE_LOGE("path is empty");
        return false;
    }
    mmDiskSize disk = {};
    if (mmGetDiskFreeSpace(path.c_str(), &disk) != EN_OK) {
        IDE_LOGE("get disk free space fail");
        return true;
    }
    if (disk.freeSize <= kDiskReserve) {
        IDE_LOGE("the %s more than disk reserved space(1Mb)", path.c_str());
        return true;
    }
    if (size >= disk.freeSize) {
        IDE_LOGE("the %s is full", path.c_str());
        return true;
    }
    return false;
}
