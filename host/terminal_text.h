// How texts of a device and numbers of bytes are shown on a terminal. Any thread.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace orla::host {

// The text with '?' for each control character: foreign text must not steer a terminal.
[[nodiscard]] std::string Printable(std::string text);

// "512 B", "1.5 kB", "2.0 GB": at most four digits and the unit.
[[nodiscard]] std::string Amount(double bytes);

// One line on stderr that is written over. Shows nothing unless stderr is a terminal.
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
