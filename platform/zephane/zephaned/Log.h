#pragma once

#include <string>

namespace zephane {

/// A log of timestamped lines.
/// Owns:    nothing; the descriptor must stay open.
/// Threads: any; each line is written in one piece.
/// Fails:   never; a line that can't be written is lost.
///
/// A line may contain text that others have sent: control characters are replaced with question marks, and
/// the line is cut at 2000 bytes.
class Log {
public:
    explicit Log(int descriptor) : descriptor(descriptor) {}

    void info(const std::string& text) const { write("info", text); }
    void warning(const std::string& text) const { write("warning", text); }
    void error(const std::string& text) const { write("error", text); }

private:
    void write(const char* level, const std::string& text) const;

    int descriptor;
};

} // namespace zephane
