#pragma once

#include <string>

namespace zephane {

/// Says what happens, a line at a time, with the time before it.
/// Owns:    nothing; the descriptor has to stay open.
/// Threads: any; a line is written as a whole.
/// Fails:   never; a line that can't be written is lost.
///
/// What others have sent may stand in a line: control characters become question marks, and it is cut at 2000
/// bytes.
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
