#include "file_service/device_files.h"

#include <portability.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <utility>

#include "file_service/file_utils.h"
#include "file_service/ide_process_util.h"
#include "file_service/string_utils.h"
#include "file_service/unnamed_copy.h"
#include "hdc/log_side.h"
#include "server/velt_msg_file.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr const char* kWorkDir = "/home/SableUser/ide_daemon/";
constexpr int kMaxAging = 99;
constexpr size_t kMaxOpened = 256;  // scripted files of one request; others need descriptors too

constexpr struct {
    const char* name;
    const char* path;
} kScripts[] = {{"dvpp", "/var/dvpp_proc_collect.sh"}};

// The working directory, the module directory in it included. A preparation clears it, and what
// another request has made there must be open by then.
struct WorkDir {
    std::mutex mutex;  // guards the directory and what follows
    bool scriptsRun = false;
    std::condition_variable scriptsEnded;
} workDir;

// An open descriptor keeps the content.
void Remove(const std::string& path) {
    mmUnlink(path.c_str());
    IDE_LOGD("remove prepared message file: %s", path.c_str());
}

void LogReady(const std::string& path) {
    IDE_LOGI("preprocess message/event_sched file finished, %s", path.c_str());
}

std::optional<DeviceFile> LeftOut(const std::string& path) {
    IDE_LOGW("Transfer file failed, %s", path.c_str());
    return std::nullopt;
}

std::string NameBelow(const DeviceFileType& type, const std::string& path) {
    return path.substr(std::string_view(type.directory).size());
}

// ---- Files that are there ----------------------------------------------------------------------

std::optional<DeviceFile> OpenCopy(const DeviceFileType& type, const std::string& path,
                                   DeviceFile& spare) {
    LogReady(path);
    DeviceFile file{path, NameBelow(type, path), orla::Descriptor()};
    if (GetFileDir(path) == GetFileDir(spare.path)) {
        file.content = std::move(spare.content);
    }
    if (CopyWithoutName(path, &file.content) == CopyEnd::kNotBegun) {
        return LeftOut(path);
    }
    return file;
}

// Driver files: a copy would read them twice.
std::optional<DeviceFile> OpenInPlace(const DeviceFileType& type, const std::string& path,
                                      DeviceFile& /*spare*/) {
    if (!IsReadable(path)) {
        return std::nullopt;
    }
    LogReady(path);
    DeviceFile file{path, NameBelow(type, path), OpenRegularFile(path)};
    return file.content ? std::move(file) : LeftOut(path);
}

std::optional<DeviceFile> OpenScripted(const DeviceFileType& type, const std::string& path,
                                       DeviceFile& spare) {
    // A copy here, too: a script may have left a process that still writes.
    auto file = OpenCopy(type, path, spare);
    Remove(path);
    return file;
}

// ---- Messages of the system log ----------------------------------------------------------------

// System logs are numbered as they age; only the last hundred are of interest.
bool PassesAgingCheck(const std::string& path) {
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos) {
        IDE_LOGI("not aging file, check pass: %s", path.c_str());
        return true;
    }
    const std::string number = path.substr(dot + 1);
    if (!IsValidDigit(number)) {
        IDE_LOGE("agingNumStr is not a number, %s, skip", number.c_str());
        return false;
    }
    int aging = INT32_MAX;  // stays for a number that fits no int
    std::from_chars(number.data(), number.data() + number.size(), aging);
    if (aging > kMaxAging) {
        IDE_LOGW("exceed messages max num, %d, skip", aging);
        return false;
    }
    return true;
}

uint64_t SizeOf(const std::string& path) {
    uint64_t size = 0;
    static_cast<void>(mmGetFileSize(path.c_str(), &size));
    return size;
}

// Whether the command runs.
bool RunStep(const char* step, const std::string& command) {
    if (VeltCreateProcess(command) == 0) {
        return true;
    }
    IDE_LOGE("VeltCreateProcess %s failed", step);
    return false;
}

// Copies a file that only root may read to the working directory, under `copy`. Under the mutex.
bool CopyMessage(const std::string& path, const std::string& copy) {
    // The glob spares hidden files, among them the daemon's lock. Scripts that run want back what
    // they have made.
    const std::string rm =
        "rm -rf " + (workDir.scriptsRun ? ShellWord(copy) : std::string(kWorkDir) + "*");
    const std::string cp = "sudo cp -RPn " + ShellWord(path) + " " + kWorkDir;
    const std::string chown = "sudo chown -RPf SableUser:SableUser " + ShellWord(copy);
    IDE_LOGI("rm command : %s", rm.c_str());
    IDE_LOGI("cp command : %s", cp.c_str());
    IDE_LOGI("chown command : %s", chown.c_str());
    if (!RunStep("rm", rm) || !RunStep("copy", cp) || !RunStep("chown", chown)) {
        return false;
    }
    if (!IsFileExist(copy)) {
        IDE_LOGE("copy message file failed, %s", path.c_str());
        return false;
    }
    return true;
}

// What the preparation made is the file's own copy, and is sent as it is.
std::optional<DeviceFile> OpenPrepared(const DeviceFileType& type, const std::string& path,
                                       DeviceFile& /*spare*/) {
    if (!PassesAgingCheck(path)) {
        return std::nullopt;
    }
    const std::string name = NameBelow(type, path);
    const std::string copy = kWorkDir + name;
    const std::lock_guard<std::mutex> lock(workDir.mutex);
    const uint64_t sizeBefore = SizeOf(path);
    if (!CopyMessage(path, copy)) {
        IDE_LOGE("preprocess message file failed, %s", path.c_str());
        return std::nullopt;
    }
    LogReady(copy);
    DeviceFile file{copy, name, OpenRegularFile(copy)};
    // cp says nothing that is looked at, so a full disk shows in the size alone. A source that
    // grows or shrinks meanwhile has two sizes, of which the copy has at least the smaller one.
    const bool isShort = SizeOf(copy) < std::min(sizeBefore, SizeOf(path));
    Remove(copy);
    if (!file.content) {
        return LeftOut(copy);
    }
    if (isShort) {
        IDE_LOGE("copy message file failed, %s", path.c_str());
        file.content = orla::Descriptor();
    }
    return file;
}

// ---- Scripts -----------------------------------------------------------------------------------

int RunScripts(steady_clock::time_point deadline) {
    for (const auto& script : kScripts) {
        if (!IsReadable(script.path)) {
            IDE_LOGW("Executable %s script %s is not exist", script.name, script.path);
            continue;
        }
        IDE_LOGI("Popen %s script: %s", script.name, script.path);
        const auto left = std::chrono::ceil<seconds>(deadline - steady_clock::now());
        if (VeltCreateProcessFor(script.path, left) != 0) {
            IDE_LOGE("VeltCreateProcess script failed");
            return -1;
        }
    }
    return 0;
}

// The turn of one request's scripts, since those of two would disturb each other. They may take
// their time, so the mutex is free meanwhile: `lock` holds it before and after.
class ScriptsTurn {
public:
    explicit ScriptsTurn(std::unique_lock<std::mutex>& lock) : lock_(lock) {
        workDir.scriptsRun = true;
        lock_.unlock();
    }
    ~ScriptsTurn() {
        lock_.lock();
        workDir.scriptsRun = false;
        workDir.scriptsEnded.notify_all();
    }
    ScriptsTurn(const ScriptsTurn&) = delete;
    ScriptsTurn& operator=(const ScriptsTurn&) = delete;

private:
    std::unique_lock<std::mutex>& lock_;
};

int RunScriptsInTurn(std::unique_lock<std::mutex>& lock, seconds limit) {
    const auto deadline = steady_clock::now() + limit;
    if (!workDir.scriptsEnded.wait_until(lock, deadline, [] { return !workDir.scriptsRun; })) {
        IDE_LOGE("the scripts of another request did not end within %lld s",
                 static_cast<long long>(limit.count()));
        return -1;
    }
    const ScriptsTurn turn(lock);
    return RunScripts(deadline);
}

int Scan(const DeviceFileType& type, std::vector<std::string>* paths) {
    if (!GetFileList(type.directory, paths, nullptr, type.prefix, type.recursive)) {
        IDE_LOGE("get file list failed.");
        return -1;
    }
    return 0;
}

constexpr DeviceFileType kFileTypes[] = {
    {"bbox", "/var/log/npu/sablebox_logs/", "", true, false, OpenCopy, Velt::SendFile},
    {"event_sched", "/sys/devices/virtual/devdrv_manager/sablecore_manager/node/", "", true, false,
     OpenInPlace, Velt::SendEventFile},
    {"message", "/var/log/", "messages", false, false, OpenPrepared, Velt::SendFile},
    {"module_info", "/home/SableUser/ide_daemon/module/", "", true, true, OpenScripted,
     Velt::SendFile},
    {"slog", "/var/log/npu/slog/", "", true, false, OpenCopy, Velt::SendFile},
    {"stackcore", "/var/log/npu/coredump/", "", true, false, OpenCopy, Velt::SendFile},
};

}  // namespace

const DeviceFileType* FindDeviceFileType(const std::string& name) {
    if (name.empty()) {
        IDE_LOGE("logType is empty");
        return nullptr;
    }
    for (const DeviceFileType& type : kFileTypes) {
        if (name == type.name) {
            return &type;
        }
    }
    IDE_LOGE("Invalid log type, %s", name.c_str());
    return nullptr;
}

DeviceFileWalk::~DeviceFileWalk() {
    for (; type_.scripted && next_ < paths_.size(); ++next_) {
        Remove(paths_[next_]);
    }
}

int DeviceFileWalk::Find(seconds scriptLimit) {
    return type_.scripted ? FindScripted(scriptLimit) : Scan(type_, &paths_);
}

int DeviceFileWalk::FindScripted(seconds scriptLimit) {
    std::unique_lock<std::mutex> lock(workDir.mutex);
    if (RunScriptsInTurn(lock, scriptLimit) != 0) {
        return -1;
    }
    if (!IsDirAccessible(type_.directory)) {
        return 0;
    }
    if (Scan(type_, &paths_) != 0) {
        return -1;
    }
    Open(kMaxOpened);
    return 0;
}

void DeviceFileWalk::Open(size_t count) {
    while (next_ < paths_.size() && opened_.size() < count) {
        auto file = type_.open(type_, paths_[next_], spare_);
        ++next_;
        if (file) {
            opened_.push_back(std::move(*file));
        }
    }
}

std::optional<DeviceFile> DeviceFileWalk::Next() {
    if (opened_.empty()) {
        Open(type_.scripted ? kMaxOpened : 1);
    }
    if (opened_.empty()) {
        return std::nullopt;
    }
    DeviceFile file = std::move(opened_.front());
    opened_.pop_front();
    return file;
}
