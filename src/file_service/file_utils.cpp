#include "file_service/file_utils.h"

#include <portability.h>

#include <cerrno>
#include <vector>

#include "hdc/log_side.h"

namespace {

constexpr mode_t kDirMode = 0700;
constexpr uint32_t kErrorTextSize = 128;

bool Exists(const std::string& path) {
    return mmAccess(path.c_str()) == EN_OK;
}

int MakeDir(const std::string& path) {
    // A path that ends in "/" exists as soon as its parent was made.
    if (Exists(path) || mmMkdir(path.c_str(), kDirMode) == EN_OK || mmGetErrorCode() == EEXIST) {
        return kFileOk;
    }
    char text[kErrorTextSize] = {};
    IDE_LOGE("mkdir %s failed, errorstr: %s", path.c_str(),
             mmGetErrorFormatMessage(mmGetErrorCode(), text, sizeof(text)));
    return kFileDirFailed;
}

}  // namespace

std::string GetFileDir(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return "";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

int CreateDir(const std::string& path) {
    if (path.empty()) {
        IDE_LOGE("create dir input empty");
        return kFileBadPath;
    }
    // A list rather than recursion: the depth is the caller's, the stack has 128 KiB.
    int ret = kFileOk;
    std::vector<std::string> missing;
    for (std::string current = path; !Exists(current); current = GetFileDir(current)) {
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
