#include "host/terminal_text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <iterator>

namespace orla::host {

std::string Printable(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') {
            c = '?';
        }
    }
    return text;
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
        fmt::print(stderr, "\r\x1b[K{}", text);
    }
}

}  // namespace orla::host
