#pragma once

#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace agent::bench {

/// A run of bytes on a volume, at most as long as a backup's largest read.
struct Chunk {
    static constexpr std::size_t largest = 0x400000;

    std::uint64_t offset;
    std::size_t length;
};

/// Reads ranges, one per line as `OFFSET LENGTH` in bytes, and cuts them into chunks.
std::vector<Chunk> chunksIn(std::istream& lines);

/// The volume, read by direct I/O.
/// Owns:    the open device.
/// Threads: any.
/// Fails:   throws std::runtime_error.
class Source {
public:
    explicit Source(const std::string& device);
    void read(const Chunk& chunk, std::byte* data) const;
    /// Reads all chunks, in any order, by this many threads at once.
    void readAll(const std::vector<Chunk>& chunks, std::size_t threads) const;

private:
    os::FileDescriptor volume;
};

} // namespace agent::bench
