// The work directories of an engine, below one root, and the job id that they are named by. Several
// engines may work in one directory: a job of several devices in that of the job, two modes on a
// device in that of the device. It is empty for its first user and goes with its last one.

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <mutex>

#include "hdc/log_side.h"
#include "profiling/collect/collect_engine.h"
#include "profiling/config/config_manager.h"
#include "profiling/config/param_validation.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::device {
namespace {

using Analysis::Nedra::Common::Config::ConfigManager;
using common::utils::Utils;
using common::validation::ParamValidation;

std::mutex tmpDirMutex;
// How many engines use a directory. Guarded by tmpDirMutex.
std::map<std::string, int> dirUsers;

// An id in use, by those who have opened sessions with it.
struct JobIdUse {
    std::shared_ptr<const void> owner;
    int engines = 0;
};
std::map<std::string, JobIdUse> jobIds;  // guarded by tmpDirMutex

// An empty id is good: such a job works in the root.
bool CanBeDirectory(const std::string& jobId) {
    return jobId.empty() || ParamValidation::instance().CheckJobIdIsValid(jobId);
}

// 0, or what the directory utility answered.
int CreateDirLogged(const std::string& path) {
    const std::string name = Utils::BaseName(path);
    const int ret = Utils::CreateDir(path);
    if (ret != 0) {
        PROF_LOGE("Creating dir failed: %s", name.c_str());
        Utils::PrintSysErrorMsg();
        return ret;
    }
    PROF_LOGI("Creating dir: \"%s\", ret=%d", name.c_str(), ret);
    return 0;
}

// Whether something else lies there. Through a symbolic link the script, which runs as root, would
// write wherever its maker wants.
bool IsNoDir(const std::string& path) {
    struct stat state {};
    return lstat(path.c_str(), &state) == 0 && !S_ISDIR(state.st_mode);
}

}  // namespace

int CollectEngine::CreateTmpRootDir(std::string& out) {
    const ConfigManager& config = ConfigManager::instance();
    const std::string root = config.GetInotifyDir();
    if (root.empty()) {
        PROF_LOGE("GetInotifyDir failed");
        return -1;
    }
    const std::string jobId = JobId();
    out = root + jobId;
    if (!CanBeDirectory(jobId)) {
        PROF_LOGE("Creating dir failed: %s", Utils::BaseName(out).c_str());
        return -1;
    }
    const std::lock_guard<std::mutex> lock(tmpDirMutex);
    if (!ClaimJobId(jobId)) {
        PROF_LOGE("Job id %s is that of another host's job", jobId.c_str());
        return -1;
    }
    // The root is nobody's own.
    const int ret = jobId.empty() ? CreateDirLogged(root) : HoldDir(out);
    if (ret != 0) {
        return ret;
    }
    const std::string perfDir = config.GetPerfDataDir(static_cast<uint32_t>(jobCommParams_->devId));
    if (perfDir.empty()) {
        PROF_LOGE("GetPerfDataDir failed");
        return -1;
    }
    return HoldDir(perfDir);
}

// The data of a job goes to the data session that is registered under its id: a second host must
// not send into it, nor end it. Needs tmpDirMutex.
bool CollectEngine::ClaimJobId(const std::string& jobId) {
    ReturnJobId();
    if (jobId.empty()) {
        return true;  // such a job has no data session
    }
    const auto use = jobIds.find(jobId);
    if (use != jobIds.end() && use->second.owner != owner_) {
        return false;
    }
    claimedJobId_ = jobId;
    JobIdUse& mine = jobIds[jobId];
    mine.owner = owner_;
    ++mine.engines;
    return true;
}

void CollectEngine::ReturnJobId() {
    const auto use = jobIds.find(claimedJobId_);
    if (use != jobIds.end() && --use->second.engines == 0) {
        jobIds.erase(use);
    }
    claimedJobId_.clear();
}

void CollectEngine::ReleaseJobId() {
    const std::lock_guard<std::mutex> lock(tmpDirMutex);
    ReturnJobId();
}

int CollectEngine::HoldDir(const std::string& path) {
    if (dirUsers.count(path) == 0 && Utils::IsFileExist(path)) {
        // Left by an agent that was killed. The recordings in it must not go to this job's host.
        Utils::RemoveDir(path, true);
    }
    if (IsNoDir(path)) {
        PROF_LOGE("Creating dir failed: %s is in its place", Utils::BaseName(path).c_str());
        return -1;
    }
    const int ret = CreateDirLogged(path);
    if (ret == 0 && std::find(heldDirs_.begin(), heldDirs_.end(), path) == heldDirs_.end()) {
        heldDirs_.push_back(path);
        ++dirUsers[path];
    }
    return ret;
}

void CollectEngine::RemoveTmpDir() {
    const std::lock_guard<std::mutex> lock(tmpDirMutex);
    for (const std::string& path : heldDirs_) {
        const auto users = dirUsers.find(path);
        if (--users->second > 0) {
            continue;
        }
        dirUsers.erase(users);
        PROF_LOGI("Removing collected data: \"%s\"", Utils::BaseName(path).c_str());
        Utils::RemoveDir(path, true);
    }
    heldDirs_.clear();
    tmpResultDir_.clear();
}

}  // namespace analysis::nedra::device
