// Child processes of <portability.h>.
#include <fcntl.h>
#include <portability.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "descriptor.h"
#include "results.h"

using orla::posix::Descriptor;

namespace {

constexpr mode_t kRedirectionMode = 0640;
constexpr int kSignalledBase = 128;
constexpr char kPathPrefix[] = "PATH=";

// posix_spawn makes the child: between its fork and its exec nothing runs that could meet a lock
// of another thread, no page tables are copied, and it reports what went wrong in the child,
// reaped already, as its own result.
class Spawn {
public:
    Spawn() {
        Try(posix_spawn_file_actions_init(&actions_));
        Try(posix_spawnattr_init(&attributes_));
    }
    ~Spawn() {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }
    Spawn(const Spawn&) = delete;
    Spawn& operator=(const Spawn&) = delete;

    // 0 or an error number, as for all that follows.
    [[nodiscard]] int Prepare(int output) {
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        Try(posix_spawnattr_setsigdefault(&attributes_, &all));
        Try(posix_spawnattr_setsigmask(&attributes_, &none));
        Try(posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK));
        if (output >= 0) {
            Try(posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
            Try(posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO));
        }
        Try(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
        return error_;
    }

    // On an error no child remains and `*pid` is undefined.
    [[nodiscard]] int Start(const char* file, char* const* argv, char* const* envp, pid_t* pid) {
        return posix_spawn(pid, file, &actions_, &attributes_, argv, envp);
    }

private:
    void Try(int error) { error_ = error_ == 0 ? error : error_; }

    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
    int error_ = 0;
};

// A copy of an array of the caller, which may lack the null at its end.
std::vector<char*> WithEnd(char* const* items, int32_t count) {
    std::vector<char*> copy(items, items + count);
    copy.push_back(nullptr);
    return copy;
}

// The value of PATH among the texts up to a null, or null.
const char* PathOf(char* const* environment) {
    constexpr size_t kLength = sizeof(kPathPrefix) - 1;
    for (; *environment != nullptr; ++environment) {
        if (strncmp(*environment, kPathPrefix, kLength) == 0) {
            return *environment + kLength;
        }
    }
    return nullptr;
}

// Adds the file of each directory of a PATH; an empty directory is the current one. What is not
// there is left out: to look for it is cheaper than a child that fails.
void AddCandidates(const char* path, const std::string& program, std::vector<std::string>* files) {
    while (path != nullptr) {
        const char* end = strchrnul(path, ':');
        const std::string directory(path, end);
        const std::string file = (directory.empty() ? "." : directory) + "/" + program;
        if (access(file.c_str(), F_OK) == 0 || errno == EACCES) {
            files->push_back(file);
        }
        path = *end == ':' ? end + 1 : nullptr;
    }
}

std::vector<std::string> Candidates(const std::string& program, char* const* environment) {
    if (program.empty() || program.find('/') != std::string::npos) {
        return {program};
    }
    std::vector<std::string> files;
    AddCandidates(PathOf(environment), program, &files);
    AddCandidates(getenv("PATH"), program, &files);
    return files;
}

// Whether a file that could not be started says nothing about the next directory of a PATH.
bool MaySearchOn(int error) {
    return error == ENOENT || error == ENOTDIR || error == EACCES;
}

int OpenRedirection(const char* path) {
    return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, kRedirectionMode);
}

int CreateProcess(const char* program, const mmArgvEnv& arguments, const char* redirection,
                  pid_t* pid) {
    const std::vector<char*> argv = WithEnd(arguments.argv, arguments.argvCount);
    const std::vector<char*> envp = WithEnd(arguments.envp, arguments.envpCount);
    const Descriptor output(redirection == nullptr ? -1 : OpenRedirection(redirection));
    if (redirection != nullptr && output.get() < 0) {
        return errno;
    }
    Spawn spawn;
    int error = spawn.Prepare(output.get());
    if (error != 0) {
        return error;
    }
    error = ENOENT;
    for (const std::string& file : Candidates(program, envp.data())) {
        pid_t child = 0;
        const int answer = spawn.Start(file.c_str(), argv.data(), envp.data(), &child);
        if (answer == 0) {
            *pid = child;
            return 0;
        }
        // A program that may not be run is worth more to the caller than one that is not there.
        error = error == EACCES && MaySearchOn(answer) ? EACCES : answer;
        if (!MaySearchOn(answer)) {
            break;
        }
    }
    return error;
}

// One element at least, since a program without even its own name is a trap for that program.
bool Usable(const mmArgvEnv& arguments) {
    return arguments.argv != nullptr && arguments.argvCount > 0 && arguments.argv[0] != nullptr &&
           arguments.envpCount >= 0 && (arguments.envp != nullptr || arguments.envpCount == 0);
}

}  // namespace

int32_t mmCreateProcess(const char* program, const mmArgvEnv* arguments, const char* redirection,
                        pid_t* pid) {
    if (program == nullptr || arguments == nullptr || pid == nullptr || !Usable(*arguments)) {
        return EN_INVALID_PARAM;
    }
    return orla::posix::WithoutException(
        [&] { return CreateProcess(program, *arguments, redirection, pid); });
}

int32_t mmWaitPid(pid_t pid, int32_t* status, int32_t options) {
    // 0 and negative numbers mean groups of children to waitpid, and would take the end of a
    // child away from the thread that waits for it.
    if (pid <= 0 || (options != 0 && options != M_WAIT_NOHANG)) {
        return EN_INVALID_PARAM;
    }
    int state = 0;
    pid_t ended;
    do {
        ended = waitpid(pid, &state, options == M_WAIT_NOHANG ? WNOHANG : 0);
    } while (ended < 0 && errno == EINTR);
    if (ended < 0) {
        return EN_ERROR;
    }
    if (ended == 0) {
        return 0;
    }
    if (status != nullptr) {
        *status = WIFEXITED(state) ? WEXITSTATUS(state) : kSignalledBase + WTERMSIG(state);
    }
    return 1;
}
