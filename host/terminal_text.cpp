#include "host/terminal_text.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <utf8cpp/utf8.h>

#include <iterator>

namespace orla::host {

namespace {

// Whether a terminal would obey the character rather than show it: the controls of ASCII and those
// above it, and the marks that turn the direction of writing or hide what stands between them.
bool Steers(uint32_t c) {
    return c < 0x20 || (c >= 0x7f && c < 0xa0) || c == 0xad || c == 0x61c ||
           (c >= 0x200b && c <= 0x200f) || (c >= 0x2028 && c <= 0x202e) ||
           (c >= 0x2060 && c <= 0x206f) || c == 0xfeff || (c >= 0xfff9 && c <= 0xfffb) ||
           (c >= 0xe0000 && c <= 0xe007f);
}

std::string WithoutControls(std::string_view foreign, std::string_view allowed) {
    std::string text;
    utf8::replace_invalid(foreign.begin(), foreign.end(), std::back_inserter(text), '?');
    std::string shown;
    shown.reserve(text.size());
    for (auto at = text.cbegin(); at != text.cend();) {
        const auto begin = at;
        const uint32_t c = utf8::unchecked::next(at);
        if (Steers(c) && (c > 0x7f || allowed.find(*begin) == std::string_view::npos)) {
            shown += '?';
        } else {
            shown.append(begin, at);
        }
    }
    return shown;
}

}  // namespace

std::string Printable(std::string_view text) {
    return WithoutControls(text, "");
}

std::string PrintableLines(std::string_view text) {
    return WithoutControls(text, "\n\t");
}

void WriteText(std::FILE* stream, const std::string& text) {
    static_cast<void>(std::fwrite(text.data(), 1, text.size(), stream));
}

std::string Amount(double bytes) {
    constexpr const char* units[] = {"B", "kB", "MB", "GB", "TB", "PB"};
    constexpr double kRoundsUp = 999.95;  // what would be shown as 1000.0
    size_t unit = 0;
    while (bytes >= (unit == 0 ? 1000 : kRoundsUp) && unit + 1 < std::size(units)) {
        bytes /= 1000;
        ++unit;
    }
    return fmt::format(unit == 0 ? "{:.0f} {}" : "{:.1f} {}", bytes, units[unit]);
}

std::string CutToWidth(std::string_view text, size_t columns) {
    auto end = text.begin();
    for (size_t shown = 0; shown < columns && end != text.end(); ++shown) {
        utf8::unchecked::next(end);
    }
    return std::string(text.begin(), end);
}

StatusLine::StatusLine(bool wanted) : shown_(wanted && isatty(STDERR_FILENO) == 1) {}

void StatusLine::Show(std::string_view text) const {
    if (shown_) {
        winsize size = {};
        const bool isKnown = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
        // A text that reaches the edge would begin a second line, which nothing writes over.
        WriteText(stderr,
                  fmt::format("\r\x1b[K{}", CutToWidth(text, isKnown ? size.ws_col - 1 : 79)));
    }
}

}  // namespace orla::host
