#pragma once

#include "common/Path.h"
#include "os/FileDescriptor.h"

#include <cstddef>
#include <string>
#include <vector>

namespace bekctl {

/// Reads the lines of the agent's log as they are written, and goes on from one day's file to the next one's.
/// Owns:    the open file, and the part of an incomplete line that has been read.
/// Threads: one at a time.
/// Fails:   throws PosixError if a file can't be read. A missing directory has no lines yet.
class LogTail {
public:
    /// In bytes. A longer line is returned in pieces.
    static constexpr std::size_t longestLine = 1024UL * 1024;

    explicit LogTail(agent::Path directory) : directory(std::move(directory)) {}

    /// Goes to the beginning of the last `lines` lines; 0 goes to the end.
    void goToLast(std::size_t lines);

    /// Stores the next whole line, without its newline, in `line`. Returns false if there is none yet.
    bool next(std::string& line);

private:
    bool takeLine(std::string& line);
    bool fill();
    void open(const std::string& file);
    std::size_t goBack(std::size_t lines);
    [[nodiscard]] std::vector<std::string> names() const;
    [[nodiscard]] std::string nextFileName() const;

    agent::Path directory;
    std::string name; // of the open file; empty before the first one
    os::FileDescriptor file;
    std::string pending;
};

} // namespace bekctl
