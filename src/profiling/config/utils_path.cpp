#include <limits.h>
#include <unistd.h>

#include <cstring>
#include <limits>

#include "hdc/hdc_packet.h"
#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::utils {

namespace {

constexpr size_t kPathBuffer = PATH_MAX;

// dirname and basename write into what they are given.
std::string OnCopy(char* (*function)(char*), const std::string& path) {
    std::string copy = path;
    const char* result = function(copy.data());
    return result == nullptr ? std::string() : std::string(result);
}

// The target of a link; -1 when it cannot be read.
ssize_t ReadLink(const char* path, std::string& target) {
    target.assign(kPathBuffer, '\0');
    const ssize_t length = readlink(path, target.data(), kPathBuffer);
    target.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return length;
}

}  // namespace

bool Utils::IsDir(const std::string& path) {
    return !path.empty() && mmIsDir(path.c_str()) == EN_OK;
}

bool Utils::IsFileExist(const std::string& path) {
    return !path.empty() && mmAccess(path.c_str()) == EN_OK;
}

bool Utils::IsDirAccessible(const std::string& path) {
    if (!IsDir(path)) {
        PROF_LOGE("Path %s is not a dir", BaseName(path).c_str());
        return false;
    }
    if (mmAccess2(path.c_str(), W_OK) != EN_OK) {
        PROF_LOGE("No access to dir %s", BaseName(path).c_str());
        return false;
    }
    return true;
}

uint64_t Utils::GetFileSize(const std::string& path) {
    uint64_t size = 0;
    if (mmGetFileSize(path.c_str(), &size) != EN_OK) {
        return std::numeric_limits<uint64_t>::max();
    }
    return size;
}

std::string Utils::DirName(const std::string& path) {
    return OnCopy(mmDirName, path);
}

std::string Utils::BaseName(const std::string& path) {
    return OnCopy(mmBaseName, path);
}

int Utils::SplitPath(const std::string& path, std::string& dir, std::string& base) {
    const orla::HeapBlock forDir(strdup(path.c_str()));
    const orla::HeapBlock forBase(strdup(path.c_str()));
    if (forDir == nullptr || forBase == nullptr) {
        PROF_LOGE("TLET_STRDUP failed");
        return -1;
    }
    const char* dirName = mmDirName(forDir.get());
    const char* baseName = mmBaseName(forBase.get());
    if (dirName == nullptr || baseName == nullptr) {
        PROF_LOGE("mmDirName or mmBaseName failed");
        return -1;
    }
    dir = dirName;
    base = baseName;
    return 0;
}

void Utils::GetRelativePath(const std::string& path, const std::string& prefix, std::string& out) {
    const size_t position = path.find(prefix);
    if (position == std::string::npos) {
        PROF_LOGE("Failed to find \"%s\" from \"%s\"", BaseName(prefix).c_str(),
                  BaseName(path).c_str());
        return;
    }
    out = LeftTrim(path.substr(position + prefix.size()), "/\\");
}

std::string Utils::CanonicalizePath(const std::string& path) {
    const std::string expanded = ExpandHome(path);
    if (expanded.empty() || expanded.size() >= kPathBuffer) {
        return "";
    }
    std::vector<char> buffer(kPathBuffer, '\0');
    std::string canonical;
    const int ret =
        mmRealPath(expanded.c_str(), buffer.data(), static_cast<int32_t>(buffer.size()));
    if (ret == EN_OK) {
        PROF_LOGI("mmRealPath ret=%d.", ret);
        canonical = buffer.data();
    }
    PROF_LOGI("Input path:%s, canonicalized path:%s", BaseName(path).c_str(),
              canonical.empty() ? "" : BaseName(canonical).c_str());
    return canonical;
}

std::string Utils::ExpandHome(const std::string& path) {
    if (path.compare(0, 2, "~/") != 0) {
        return path;
    }
    // Without a home the path would become one below the root directory, which nobody meant.
    const std::string home = GetUserHomeDir();
    return home.empty() ? path : home + path.substr(1);
}

std::string Utils::GetSelfPath() {
    std::string path;
    ssize_t length = ReadLink("/proc/self/exe", path);
    if (length < 0) {
        length = ReadLink("/local/proc/self/exe", path);
    }
    if (length < 0) {
        PROF_LOGW("Can't Get self bin directory");
        return "";
    }
    PROF_LOGI("Get self bin directory len: %d", static_cast<int>(length));
    return path;
}

std::string Utils::JoinPath(const std::vector<std::string>& parts) {
    return Join(parts, "/");
}

}  // namespace analysis::nedra::common::utils
