#include <algorithm>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::utils {

namespace {

const char* const kLargestInt = "2147483647";
constexpr size_t kLargestIntDigits = 10;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

std::vector<std::string> Utils::Split(const std::string& text, bool filter,
                                      const std::string& filterToken,
                                      const std::string& delimiter) {
    std::vector<std::string> pieces;
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t found = delimiter.empty() ? std::string::npos : text.find(delimiter, begin);
        const size_t end = std::min(found, text.size());
        std::string piece = text.substr(begin, end - begin);
        if (!filter || piece != filterToken) {
            pieces.push_back(std::move(piece));
        }
        begin = end + delimiter.size();
    }
    return pieces;
}

std::string Utils::Join(const std::vector<std::string>& texts, const std::string& separator) {
    std::string joined;
    for (const std::string& text : texts) {
        joined += (&text == &texts.front() ? "" : separator) + text;
    }
    return joined;
}

std::string Utils::Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string Utils::LeftTrim(const std::string& text, const std::string& chars) {
    const size_t first = text.find_first_not_of(chars);
    return first == std::string::npos ? "" : text.substr(first);
}

std::string Utils::ToLower(const std::string& text) {
    std::string lower = text;
    for (char& c : lower) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return lower;
}

std::string Utils::ToUpper(const std::string& text) {
    std::string upper = text;
    for (char& c : upper) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return upper;
}

bool Utils::IsAllDigit(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), IsDigit);
}

bool Utils::CheckStringIsNonNegativeIntNum(const std::string& text) {
    if (text.empty()) {
        return false;
    }
    if (text.size() > kLargestIntDigits) {
        PROF_LOGE("[Utils::CheckStringIsNonNegativeIntNum]numberStr(%s) is too long", text.c_str());
        return false;
    }
    if (!IsAllDigit(text)) {
        PROF_LOGE("[Utils::CheckStringIsNonNegativeIntNum]numberStr(%s) is not a number",
                  text.c_str());
        return false;
    }
    // Texts of one length compare digit by digit.
    if (text.size() == kLargestIntDigits && text > kLargestInt) {
        PROF_LOGE("[Utils::CheckStringIsNonNegativeIntNum]numberStr(%s) is over than %s",
                  text.c_str(), kLargestInt);
        return false;
    }
    return true;
}

std::string Utils::Int2Str4(int number) {
    char text[16];
    snprintf(text, sizeof(text), "%04d\n", number);
    return text;
}

}  // namespace analysis::nedra::common::utils
