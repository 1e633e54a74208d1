// The account's home directory and the lock file in it that keeps the daemon to one instance.
// Main thread only.
#pragma once

#include <string>

// Home directory of the real user's account; the empty text when the account has none, or one
// of 4096 characters and more.
[[nodiscard]] std::string IdeGetHomeDir();

// The single-instance lock: an advisory lock on <home>/ide_daemon/.orlad.lock, a file without
// content. The file goes when the instance ends in order; after a kill it stays, unlocked, and
// the next start takes it over.
class SingleInstanceLock {
public:
    SingleInstanceLock() = default;
    ~SingleInstanceLock() { Release(); }
    SingleInstanceLock(const SingleInstanceLock&) = delete;
    SingleInstanceLock& operator=(const SingleInstanceLock&) = delete;

    // 0 when this process is the one instance, else -1 with a log line, and then the file is
    // left to whoever holds it. A lock held by another is also told on standard output.
    [[nodiscard]] int Acquire();

    // Removes the file, while it is still locked, and closes it. Nothing when not held.
    void Release();

private:
    int fd_ = -1;
    std::string path_;
};

// Removes the file that `path` resolves to. A leading "~/" is the home directory. An empty
// path, and one that doesn't resolve, is left alone.
void IdeRemoveLockPath(const std::string& path);
