#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::utils {

namespace {

constexpr uint32_t kEnvLimit = 8192;  // with the terminating zero
constexpr int32_t kErrorTextSize = 256;

// The C library gives no order to threads that use the environment or the user database.
std::mutex environmentMutex;

}  // namespace

std::string Utils::GetUserHomeDir() {
    const std::lock_guard<std::mutex> lock(environmentMutex);
    const passwd* user = getpwuid(getuid());
    if (user == nullptr || user->pw_dir == nullptr) {
        return "";
    }
    std::string home = user->pw_dir;
    if (home.size() > 1 && home.back() == '/') {
        home.pop_back();
    }
    return home;
}

std::string Utils::GetEnvString(const std::string& name) {
    std::vector<char> buffer(kEnvLimit + 1, '\0');
    const std::lock_guard<std::mutex> lock(environmentMutex);
    if (mmGetEnv(name.c_str(), buffer.data(), kEnvLimit) != EN_OK) {
        return "";
    }
    return buffer.data();
}

bool Utils::IsDynProfMode() {
    return GetEnvString("PROFILING_MODE") == "dynamic";
}

void Utils::PrintSysErrorMsg() {
    const int32_t code = mmGetErrorCode();
    char text[kErrorTextSize] = {};
    PROF_LOGE("ErrorCode:%d, errinfo:%s", code, mmGetErrorFormatMessage(code, text, sizeof(text)));
}

void* Utils::ProfMalloc(size_t size) {
    return size == 0 ? nullptr : std::calloc(1, size);
}

void Utils::ProfFree(void*& ptr) {
    std::free(ptr);
    ptr = nullptr;
}

}  // namespace analysis::nedra::common::utils
