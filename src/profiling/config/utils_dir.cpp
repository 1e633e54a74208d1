#include <errno.h>
#include <limits.h>
#include <sys/stat.h>

#include <optional>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::utils {

namespace {

constexpr mode_t kDirMode = 0750;

struct Entry {
    std::string name;
    std::string path;
    bool isDir;  // itself, not what a link leads to
};

// Some file systems do not tell the type in the directory; only then it costs a call.
bool IsDirItself(const std::string& path, unsigned char type) {
    if (type != DT_UNKNOWN) {
        return type == DT_DIR;
    }
    struct stat info = {};
    return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The entries of a directory but "." and ".."; nothing when it cannot be read.
std::optional<std::vector<Entry>> ScanDir(const std::string& dir) {
    mmDirent** found = nullptr;
    const int count = mmScandir(dir.c_str(), &found, nullptr, nullptr);
    if (count < 0) {
        return std::nullopt;
    }
    std::vector<Entry> entries;
    const std::string prefix = dir.back() == '/' ? dir : dir + "/";
    for (int i = 0; i < count; ++i) {
        const std::string name = found[i]->d_name;
        if (name != "." && name != "..") {
            const std::string path = prefix + name;
            entries.push_back({name, path, IsDirItself(path, found[i]->d_type)});
        }
    }
    mmScandirFree(found, count);
    return entries;
}

// A list of what is still to be read instead of recursion: how deep a tree is, is not up to us,
// and the threads have small stacks.
void Walk(const std::string& top, bool recursive, bool wantDirs, std::vector<std::string>& out) {
    std::vector<std::string> pending;
    if (!top.empty()) {
        pending.push_back(top);
    }
    while (!pending.empty()) {
        const auto entries = ScanDir(pending.back());
        pending.pop_back();
        if (!entries) {
            continue;
        }
        for (const Entry& entry : *entries) {
            if (entry.isDir == wantDirs) {
                out.push_back(entry.path);
            }
            if (entry.isDir && recursive) {
                pending.push_back(entry.path);
            }
        }
    }
}

int MakeDir(const std::string& path) {
    PROF_LOGI("CreateDir dir %s with 750", Utils::BaseName(path).c_str());
    if (mmMkdir(path.c_str(), kDirMode) != EN_OK && mmGetErrorCode() != EEXIST) {
        return -1;
    }
    // The umask may have taken bits from the mode.
    if (mmChmod(path.c_str(), kDirMode) != EN_OK) {
        PROF_LOGW("Chmod : %s unsuccessfully", Utils::BaseName(path).c_str());
    }
    PROF_LOGI("Success to mkdir, FilePath : %s, FileMode : %o", Utils::BaseName(path).c_str(),
              kDirMode);
    return 0;
}

// "/" has many spellings, and a link is one of them.
bool LeadsToRoot(const std::string& path) {
    std::vector<char> resolved(PATH_MAX, '\0');
    return mmRealPath(path.c_str(), resolved.data(), PATH_MAX) == EN_OK &&
           std::string(resolved.data()) == "/";
}

void RemoveContents(const std::string& path) {
    const auto entries = ScanDir(path);
    if (!entries) {
        const int code = mmGetErrorCode();
        PROF_LOGW("mmScandir failed %s. ErrorCode : %d", Utils::BaseName(path).c_str(), code);
        return;
    }
    for (const Entry& entry : *entries) {
        static_cast<void>(entry.isDir ? mmRmdir(entry.path.c_str()) : mmUnlink(entry.path.c_str()));
    }
}

}  // namespace

int Utils::CreateDir(const std::string& path) {
    if (path.empty() || path.size() >= PATH_MAX) {
        return -1;
    }
    std::vector<std::string> missing;
    std::string current = path;
    while (!IsFileExist(current)) {
        std::string dir;
        std::string base;
        const int ret = SplitPath(current, dir, base);
        if (ret != 0) {
            PROF_LOGE("Split path failed");
            return ret;
        }
        if (dir == current) {
            return -1;  // "." of a working directory that somebody removed
        }
        missing.push_back(current);
        current = dir;
    }
    PROF_LOGD("The file already exists, %s", BaseName(current).c_str());
    for (auto dir = missing.rbegin(); dir != missing.rend(); ++dir) {
        const int ret = MakeDir(*dir);
        if (ret != 0) {
            return ret;
        }
    }
    return 0;
}

void Utils::RemoveDir(const std::string& path, bool rmTopDir) {
    if (path.empty() || LeadsToRoot(path)) {
        PROF_LOGE("empty compare failed.");
        return;
    }
    PROF_LOGI("RemoveDir dir %s", BaseName(path).c_str());
    if (!rmTopDir) {
        RemoveContents(path);
        return;
    }
    if (mmRmdir(path.c_str()) != EN_OK) {
        const int code = mmGetErrorCode();
        PROF_LOGW("mmRmdir failed %s. ErrorCode : %d", BaseName(path).c_str(), code);
    }
}

void Utils::GetFiles(const std::string& dir, bool recursive, std::vector<std::string>& out) {
    Walk(dir, recursive, false, out);
}

void Utils::GetChildDirs(const std::string& dir, bool recursive, std::vector<std::string>& out) {
    Walk(dir, recursive, true, out);
}

int Utils::GetChildFilenames(const std::string& dir, std::vector<std::string>& out) {
    if (dir.empty()) {
        return -1;
    }
    const auto entries = ScanDir(dir);
    if (!entries) {
        return -1;
    }
    for (const Entry& entry : *entries) {
        out.push_back(entry.name);
    }
    return 0;
}

}  // namespace analysis::nedra::common::utils
