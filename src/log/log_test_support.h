// For the tests of the log side: a temporary directory that the self log is sent to.
#pragma once

#include <secure_c.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "log/self_log.h"

namespace orla::test {

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void WriteFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Where the self log goes while this lives; root() is the directory, gone afterwards.
class SelfLogHere {
public:
    SelfLogHere() {
        char pattern[] = "/tmp/orla_log_XXXXXX";
        root_ = mkdtemp(pattern);
        auto files = std::make_shared<LogFileSet>();
        Set(files->root, root_);
        Set(files->directory, directory());
        Set(files->log, log());
        Set(files->old, old());
        Set(files->lock, lock());
        std::filesystem::create_directory(directory());
        files_ = files;
        SetLogFiles(files_);
    }
    ~SelfLogHere() {
        SetLogFiles(nullptr);
        std::filesystem::remove_all(root_);
    }
    SelfLogHere(const SelfLogHere&) = delete;
    SelfLogHere& operator=(const SelfLogHere&) = delete;

    std::string root() const { return root_; }
    std::string directory() const { return root_ + "/slogd"; }
    std::string log() const { return directory() + "/slogdlog"; }
    std::string old() const { return log() + ".old"; }
    std::string lock() const { return directory() + "/tmp.lock"; }
    std::shared_ptr<const LogFileSet> files() const { return files_; }

    // Everything written since the last call.
    std::string Take() {
        const std::string text = ReadFile(log());
        std::filesystem::remove(log());
        return text;
    }

private:
    template <size_t kSize>
    static void Set(char (&field)[kSize], const std::string& text) {
        if (strcpy_s(field, kSize, text.c_str()) != EOK) {
            std::abort();
        }
    }

    std::string root_;
    std::shared_ptr<const LogFileSet> files_;
};

}  // namespace orla::test
