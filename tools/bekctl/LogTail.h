#pragma once

#include "common/Path.h"
#include "os/FileDescriptor.h"

#include <cstddef>
#include <string>
#include <vector>

namespace bekctl {

/// The lines of the agent's log as they come, from one day's file on to the next one's.
/// Owns:    the open file, and what has been read of a line that isn't whole yet.
/// Threads: one at a time.
/// Fails:   PosixError if a file can't be read. A directory that isn't there has no lines yet.
class LogTail {
public:
    /// In bytes. A longer line comes in pieces.
    static constexpr std::size_t longestLine = 1024UL * 1024;

    explicit LogTail(agent::Path directory) : directory(std::move(directory)) {}

    /// Goes to where the last `lines` lines begin; 0 is the end.
    void goToLast(std::size_t lines);

    /// Puts the next whole line, without its newline, into `line`. False if there is none yet.
    bool next(std::string& line);

private:
    bool takeLine(std::string& line);
    bool fill();
    void open(const std::string& file);
    std::size_t goBack(std::size_t lines);
    [[nodiscard]] std::vector<std::string> names() const;
    [[nodiscard]] std::string nameBehind() const;

    agent::Path directory;
    std::string name; // of the open file; empty before the first one
    os::FileDescriptor file;
    std::string pending;
};

} // namespace bekctl
