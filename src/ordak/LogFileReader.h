#pragma once

#include "os/FileDescriptor.h"

#include <cstddef>
#include <string>
#include <vector>

namespace agent::ordak {

/// Reads a log file line by line, in constant memory.
/// Owns:    the open file and one buffer.
/// Threads: one at a time.
/// Fails:   PosixError if the file can't be opened or read, std::runtime_error if it is no regular file: a
///          pipe of that name would keep the request waiting for ever.
class LogFileReader {
public:
    /// In bytes. What a longer line holds beyond them is dropped.
    static constexpr std::size_t longestLine = 1024UL * 1024;

    explicit LogFileReader(const std::string& path);

    /// Puts the next line, without its newline, into `line`. False at the end of the file.
    bool next(std::string& line);

private:
    bool fill();

    os::FileDescriptor file;
    std::vector<char> buffer;
    std::size_t position = 0; // of what is not yet consumed of the buffer
    std::size_t end = 0;
};

} // namespace agent::ordak
