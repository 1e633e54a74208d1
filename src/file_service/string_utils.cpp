#include "file_service/string_utils.h"

#include <algorithm>
#include <charconv>

#include "hdc/log_side.h"

namespace {

constexpr unsigned kMaxIpGroup = 255;
constexpr int kIpGroups = 4;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool IsPlainInShell(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || IsDigit(c) || c == '_' || c == '.' ||
           c == '/' || c == '-';
}

bool IsIpGroup(const std::string& group) {
    unsigned value = 0;
    const char* end = group.data() + group.size();
    const auto result = std::from_chars(group.data(), end, value);
    return result.ec == std::errc() && result.ptr == end && value <= kMaxIpGroup;
}

void LogBadPrivateInfo(const std::string& info) {
    IDE_LOGE("invalid private info %s format, valid format like \"host:port;host_id;host_pid\"",
             info.c_str());
}

}  // namespace

bool IsValidDigit(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), IsDigit);
}

bool IsEndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
    if (from.empty()) {
        return text;
    }
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
    return text;
}

bool IsValidIp(const std::string& text) {
    size_t begin = 0;
    for (int i = 0; i < kIpGroups; ++i) {
        const bool last = i == kIpGroups - 1;
        const size_t dot = text.find('.', begin);
        if (last != (dot == std::string::npos) || !IsIpGroup(text.substr(begin, dot - begin))) {
            return false;
        }
        begin = dot + 1;
    }
    return true;
}

bool ParsePrivateInfo(const std::string& info, std::string* hostId, std::string* hostPid) {
    const size_t first = info.find(';');
    if (first == std::string::npos) {
        LogBadPrivateInfo(info);
        return false;
    }
    IDE_LOGD("info str check host:port;host_id success");
    const size_t second = info.find(';', first + 1);
    if (second == std::string::npos) {
        LogBadPrivateInfo(info);
        return false;
    }
    IDE_LOGD("info str check host_id;host_pid success");
    *hostId = info.substr(first + 1, second - first - 1);
    *hostPid = info.substr(second + 1);
    if (!IsValidDigit(*hostId)) {
        IDE_LOGE("hostId is not a number, %s", hostId->c_str());
        return false;
    }
    if (!IsValidDigit(*hostPid)) {
        IDE_LOGE("hostPid is not a number, %s", hostPid->c_str());
        return false;
    }
    IDE_LOGI("hostId: %s, hostPid: %s", hostId->c_str(), hostPid->c_str());
    IDE_LOGD("info str check host_id and host_pid number format success");
    return true;
}

std::string ShellWord(const std::string& text) {
    if (!text.empty() && std::all_of(text.begin(), text.end(), IsPlainInShell)) {
        return text;
    }
    return "'" + ReplaceAll(text, "'", "'\\''") + "'";
}
