#include "host/terminal_text.h"

#include <unistd.h>

#include <iterator>

namespace orla::host {

namespace {

std::string WithoutControls(std::string text, std::string_view allowed) {
    for (char& c : text) {
        const bool isControl = static_cast<unsigned char>(c) < ' ' || c == '\x7f';
        if (isControl && allowed.find(c) == std::string_view::npos) {
            c = '?';
        }
    }
    return text;
}

}  // namespace

std::string Printable(std::string text) {
    return WithoutControls(std::move(text), "");
}

std::string PrintableLines(std::string text) {
    return WithoutControls(std::move(text), "\n\t");
}

void WriteText(std::FILE* stream, const std::string& text) {
    static_cast<void>(std::fwrite(text.data(), 1, text.size(), stream));
}

std::string Amount(double bytes) {
    const char* units[] = {"B", "kB", "MB", "GB"};
    size_t unit = 0;
    while (bytes >= 1000 && unit + 1 < std::size(units)) {
        bytes /= 1000;
        ++unit;
    }
    return fmt::format(unit == 0 ? "{:.0f} {}" : "{:.1f} {}", bytes, units[unit]);
}

StatusLine::StatusLine(bool wanted) : shown_(wanted && isatty(STDERR_FILENO) == 1) {}

void StatusLine::Show(std::string_view text) const {
    if (shown_) {
        WriteText(stderr, fmt::format("\r\x1b[K{}", text));
    }
}

}  // namespace orla::host
