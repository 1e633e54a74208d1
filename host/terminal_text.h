// How orlactl speaks: its lines on standard output and standard error, and how texts of a device
// and numbers of bytes are shown in them. Any thread.
//
// A reader or a terminal that has gone ends nothing: what runs is ended in order, and main tells
// at the end when not all of standard output went out.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

namespace orla::host {

// The text as UTF-8, with '?' for each byte that is none, and for each character that a terminal
// would obey or that hides or turns round others: foreign text must not steer a terminal.
[[nodiscard]] std::string Printable(std::string_view text);

// The same for an answer of several lines: line feeds and tabs stay.
[[nodiscard]] std::string PrintableLines(std::string_view text);

// Returns the first characters of a printable text, at most so many as there are columns.
[[nodiscard]] std::string CutToWidth(std::string_view text, size_t columns);

// Writes a text as it is.
void WriteText(std::FILE* stream, const std::string& text);

// What the user asked for, on standard output.
template <typename... Values>
void Say(fmt::format_string<Values...> format, Values&&... values) {
    WriteText(stdout, fmt::format(format, std::forward<Values>(values)...));
}

// What went wrong, as one line on standard error: "orlactl: …".
template <typename... Values>
void Complain(fmt::format_string<Values...> format, Values&&... values) {
    WriteText(stderr, "orlactl: " + fmt::format(format, std::forward<Values>(values)...) + "\n");
}

// "512 B", "1.5 kB", "2.0 GB": at most four digits and the unit, below 1000 PB.
[[nodiscard]] std::string Amount(double bytes);

// One line on stderr that is written over, cut to the terminal's width. Shows nothing unless stderr
// is a terminal.
class StatusLine {
public:
    explicit StatusLine(bool wanted);
    ~StatusLine() { Clear(); }
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    bool shown() const { return shown_; }
    void Show(std::string_view text) const;
    // What is printed next begins on an empty line.
    void Clear() const { Show(""); }

private:
    const bool shown_;
};

}  // namespace orla::host
