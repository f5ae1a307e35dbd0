#pragma once

#include "os/FileDescriptor.h"

#include <cstddef>
#include <string>
#include <vector>

namespace agent::ordak {

/// Reads a log file line by line, in constant memory.
/// Owns:    the open file and one buffer.
/// Threads: one thread at a time.
/// Fails:   throws PosixError if the file can't be opened or read. The constructor throws std::runtime_error
///          if it isn't a regular file: reading from a pipe would block the request forever.
class LogFileReader {
public:
    /// In bytes. The rest of a longer line is dropped.
    static constexpr std::size_t maxLineBytes = 1024UL * 1024;

    explicit LogFileReader(const std::string& path);

    /// Puts the next line, without its newline, into `line`. Returns false at the end of the file.
    bool next(std::string& line);

private:
    bool fill();

    os::FileDescriptor file;
    std::vector<char> buffer;
    std::size_t position = 0; // of the next unread byte in the buffer
    std::size_t end = 0;
};

} // namespace agent::ordak
