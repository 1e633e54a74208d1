#include "file_service/device_files.h"

#include <fcntl.h>
#include <portability.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <set>
#include <utility>

#include "file_service/file_utils.h"
#include "file_service/ide_process_util.h"
#include "file_service/string_utils.h"
#include "hdc/log_side.h"

namespace {

using Source = DeviceFileType::Source;

constexpr const char* kWorkDir = "/home/SableUser/ide_daemon/";
constexpr int kMaxAging = 99;
constexpr size_t kMaxOpened = 256;  // scripted files of one request; others need descriptors too

// In the order of their names, in which the prefix of a path is looked for.
constexpr DeviceFileType kFileTypes[] = {
    {"bbox", "/var/log/npu/sablebox_logs/", "", true, Source::kCopied},
    {"event_sched", "/sys/devices/virtual/devdrv_manager/sablecore_manager/node/", "", true,
     Source::kInPlace},
    {"message", "/var/log/", "messages", false, Source::kPrepared},
    {"module_info", "/home/SableUser/ide_daemon/module/", "", true, Source::kScripted},
    {"slog", "/var/log/npu/slog/", "", true, Source::kCopied},
    {"stackcore", "/var/log/npu/coredump/", "", true, Source::kCopied},
};

constexpr struct {
    const char* name;
    const char* path;
} kScripts[] = {{"dvpp", "/var/dvpp_proc_collect.sh"}};

// Guards the working directory, the module directory in it included: a preparation clears it,
// and what another request has made there must be open by then.
std::mutex workDirMutex;

// ---- Copies ------------------------------------------------------------------------------------

// Removes a file at the end of its scope; an open descriptor keeps the content.
class RemovedAtEnd {
public:
    RemovedAtEnd(std::string path, const char* words) : path_(std::move(path)), words_(words) {}
    ~RemovedAtEnd() {
        mmUnlink(path_.c_str());
        IDE_LOGD("%s: %s", words_, path_.c_str());
    }
    RemovedAtEnd(const RemovedAtEnd&) = delete;
    RemovedAtEnd& operator=(const RemovedAtEnd&) = delete;

private:
    const std::string path_;
    const char* const words_;
};

// The right to a temporary name. The process id in it keeps processes of the host apart, but not
// two sessions of one: the second waits until the first has opened its copy.
class NameClaim {
public:
    explicit NameClaim(std::string name) : name_(std::move(name)) {
        std::unique_lock<std::mutex> lock(mutex);
        released.wait(lock, [this] { return claimed.count(name_) == 0; });
        claimed.insert(name_);
    }
    ~NameClaim() {
        const std::lock_guard<std::mutex> lock(mutex);
        claimed.erase(name_);
        released.notify_all();
    }
    NameClaim(const NameClaim&) = delete;
    NameClaim& operator=(const NameClaim&) = delete;

    const std::string& name() const { return name_; }

private:
    static inline std::mutex mutex;  // guards claimed; nothing else is waited for under it
    static inline std::condition_variable released;
    static inline std::set<std::string> claimed;

    const std::string name_;
};

// cp answers nothing that is looked at, so a full disk shows in the size alone. A source that
// grows or shrinks meanwhile has two sizes, of which the copy has at least the smaller one.
bool CopyIsShort(const std::string& source, uint64_t sizeBefore, const std::string& copy) {
    uint64_t sizeAfter = sizeBefore;
    uint64_t copied = 0;
    static_cast<void>(mmGetFileSize(source.c_str(), &sizeAfter));
    return mmGetFileSize(copy.c_str(), &copied) == EN_OK &&
           copied < std::min(sizeBefore, sizeAfter);
}

uint64_t SizeOf(const std::string& path) {
    uint64_t size = 0;
    static_cast<void>(mmGetFileSize(path.c_str(), &size));
    return size;
}

// The copy's name: that of the file with the host's process id. A name that would get too long
// loses its end; the copy is gone before the next file's is made.
std::string TemporaryName(const std::string& path, int peerPid) {
    const std::string suffix = "." + std::to_string(peerPid) + ".tmp";
    const size_t nameAt = path.rfind('/') + 1;
    return path.substr(0, nameAt) + path.substr(nameAt, NAME_MAX - suffix.size()) + suffix;
}

bool CopyToTemporary(const std::string& path, const std::string& temporary) {
    // What lies at that name is left from a daemon that was killed, or is no file at all.
    mmUnlink(temporary.c_str());
    const uint64_t size = SizeOf(path);
    if (CopyFile(path, temporary) != kFileOk || CopyIsShort(path, size, temporary)) {
        IDE_LOGE("copy target file to tmp file failed, %s", path.c_str());
        return false;
    }
    return true;
}

// The name that the host gets; empty, with a log line, for a path outside all directories.
std::string RelativeName(const std::string& path) {
    for (const DeviceFileType& type : kFileTypes) {
        const size_t at = path.find(type.directory);
        if (type.source != Source::kPrepared && at != std::string::npos) {
            return std::string(path).erase(at, std::string(type.directory).size());
        }
    }
    const size_t at = path.find(kWorkDir);
    if (at == std::string::npos) {
        IDE_LOGE("Invalid device file path prefix, %s", path.c_str());
        return "";
    }
    return std::string(path).erase(at, std::string(kWorkDir).size());
}

std::optional<DeviceFile> OpenToSend(const DeviceFileType& type, const std::string& path,
                                     int peerPid) {
    std::string source = path;
    std::optional<NameClaim> claim;  // goes last, when nothing is left under the name
    std::optional<RemovedAtEnd> removed;
    if (type.source != Source::kInPlace) {
        claim.emplace(TemporaryName(path, peerPid));
        source = claim->name();
        removed.emplace(source, "remove tmp file");
        if (!CopyToTemporary(path, source)) {
            return std::nullopt;
        }
    }
    const int fd = mmOpen2(source.c_str(), O_RDONLY, 0);
    if (fd < 0) {
        IDE_LOGW("open send file failed, info : %s, open file is %s",
                 orla::SystemErrorText().c_str(), source.c_str());
        return std::nullopt;
    }
    DeviceFile file(type, path, RelativeName(path), fd);
    if (file.relativeName().empty()) {
        return std::nullopt;
    }
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

// Copies a file that only root may read to the working directory; its path there, or nothing.
std::optional<std::string> PrepareMessage(const std::string& path) {
    std::string name;
    if (GetFileName(path, &name) != kFileOk) {
        IDE_LOGE("get file name failed");
        return std::nullopt;
    }
    const std::string copy = kWorkDir + name;
    // The glob spares hidden files, among them the daemon's lock.
    const std::string rm = std::string("rm -rf ") + kWorkDir + "*";
    const std::string cp = "sudo cp -RPn " + ShellWord(path) + " " + kWorkDir;
    const std::string chown = "sudo chown -RPf SableUser:SableUser " + ShellWord(copy);
    IDE_LOGI("rm command : %s", rm.c_str());
    IDE_LOGI("cp command : %s", cp.c_str());
    IDE_LOGI("chown command : %s", chown.c_str());
    const uint64_t size = SizeOf(path);
    if (VeltCreateProcess(rm) != 0) {
        IDE_LOGE("VeltCreateProcess rm failed");
        return std::nullopt;
    }
    if (VeltCreateProcess(cp) != 0) {
        IDE_LOGE("VeltCreateProcess copy failed");
        return std::nullopt;
    }
    if (VeltCreateProcess(chown) != 0) {
        IDE_LOGE("VeltCreateProcess chown failed");
        return std::nullopt;
    }
    if (!IsFileExist(copy) || CopyIsShort(path, size, copy)) {
        IDE_LOGE("copy message file failed, %s", path.c_str());
        mmUnlink(copy.c_str());  // a full disk needs the room
        return std::nullopt;
    }
    return copy;
}

std::optional<DeviceFile> OpenPrepared(const DeviceFileType& type, const std::string& path,
                                       int peerPid) {
    const std::lock_guard<std::mutex> lock(workDirMutex);
    const auto copy = PrepareMessage(path);
    if (!copy) {
        IDE_LOGE("preprocess message file failed, %s", path.c_str());
        return std::nullopt;
    }
    const RemovedAtEnd removed(*copy, "remove prepared message file");
    IDE_LOGI("preprocess message/event_sched file finished, %s", copy->c_str());
    auto file = OpenToSend(type, *copy, peerPid);
    if (!file) {
        IDE_LOGW("Transfer file failed, %s", copy->c_str());
    }
    return file;
}

// ---- All types ---------------------------------------------------------------------------------

std::optional<DeviceFile> OpenInOrder(const DeviceFileType& type, const std::string& path,
                                      int peerPid) {
    if (type.source == Source::kPrepared) {
        return PassesAgingCheck(path) ? OpenPrepared(type, path, peerPid) : std::nullopt;
    }
    if (type.source == Source::kInPlace && !IsReadable(path)) {
        return std::nullopt;
    }
    IDE_LOGI("preprocess message/event_sched file finished, %s", path.c_str());
    auto file = OpenToSend(type, path, peerPid);
    if (!file) {
        IDE_LOGW("Transfer file failed, %s", path.c_str());
    }
    return file;
}

int RunScripts() {
    for (const auto& script : kScripts) {
        if (!IsReadable(script.path)) {
            IDE_LOGW("Executable %s script %s is not exist", script.name, script.path);
            continue;
        }
        IDE_LOGI("Popen %s script: %s", script.name, script.path);
        if (VeltCreateProcess(script.path) != 0) {
            IDE_LOGE("VeltCreateProcess script failed");
            return -1;
        }
    }
    return 0;
}

int Scan(const DeviceFileType& type, std::vector<std::string>* paths) {
    if (!GetFileList(type.directory, paths, nullptr, type.prefix, type.recursive)) {
        IDE_LOGE("get file list failed.");
        return -1;
    }
    return 0;
}

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

DeviceFile::DeviceFile(const DeviceFileType& type, std::string path, std::string relativeName,
                       int fd)
    : type_(&type), path_(std::move(path)), relativeName_(std::move(relativeName)), fd_(fd) {}

DeviceFile::DeviceFile(DeviceFile&& other) noexcept
    : type_(other.type_),
      path_(std::move(other.path_)),
      relativeName_(std::move(other.relativeName_)),
      fd_(std::exchange(other.fd_, -1)) {}

DeviceFile::~DeviceFile() {
    if (fd_ >= 0) {
        mmClose(fd_);
    }
}

int DeviceFileWalk::Find() {
    return type_.source == Source::kScripted ? FindScripted() : Scan(type_, &paths_);
}

int DeviceFileWalk::FindScripted() {
    const std::lock_guard<std::mutex> lock(workDirMutex);
    if (RunScripts() != 0) {
        return -1;
    }
    if (!IsDirAccessible(type_.directory)) {
        return 0;
    }
    if (Scan(type_, &paths_) != 0) {
        return -1;
    }
    OpenScripted();
    return 0;
}

// Under the mutex.
void DeviceFileWalk::OpenScripted() {
    while (next_ < paths_.size() && opened_.size() < kMaxOpened) {
        const std::string& path = paths_[next_++];
        const RemovedAtEnd removed(path, "remove prepared message file");
        auto file = OpenInOrder(type_, path, peerPid_);
        if (file) {
            opened_.push_back(std::move(*file));
        }
    }
}

std::optional<DeviceFile> DeviceFileWalk::Next() {
    if (type_.source == Source::kScripted && opened_.empty()) {
        const std::lock_guard<std::mutex> lock(workDirMutex);
        OpenScripted();
    }
    if (!opened_.empty()) {
        DeviceFile file = std::move(opened_.front());
        opened_.pop_front();
        return file;
    }
    while (next_ < paths_.size()) {
        auto file = OpenInOrder(type_, paths_[next_++], peerPid_);
        if (file) {
            return file;
        }
    }
    return std::nullopt;
}
