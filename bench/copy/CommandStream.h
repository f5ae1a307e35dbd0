#pragma once

#include "bench/copy/Disk.h"
#include "common/AlignedBuffer.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::bench {

/// One direction of a transfer with a disk: short commands, a number of them in flight at once.
/// Owns:    the disk, and memory for all commands. What is written is noise of no use to anybody.
/// Threads: one at a time.
/// Fails:   by std::runtime_error, where a target refuses a command too.
class CommandStream {
public:
    enum class Direction { read, write };

    /// Up to `depth` commands of at most `commandBytes`.
    CommandStream(Disk disk, Direction direction, std::size_t commandBytes, std::size_t depth);
    CommandStream(const CommandStream&) = delete;
    CommandStream& operator=(const CommandStream&) = delete;
    CommandStream(CommandStream&&) = delete;
    CommandStream& operator=(CommandStream&&) = delete;
    ~CommandStream() = default;

    /// Sends the commands for these bytes. The last ones may not be answered yet when it returns.
    void move(std::uint64_t offset, std::uint64_t length);
    /// Waits for all answers.
    void finish();
    void logOut() { disk.logOut(); }

private:
    struct Slot {
        CommandStream* stream;
        std::byte* data;
    };

    static void answered(iscsi_context* context, int status, void* task, void* place);
    void send(std::uint64_t offset, std::size_t length);
    void serve();

    Direction direction;
    std::size_t commandBytes;
    AlignedBuffer buffer;
    std::vector<Slot> slots;
    std::vector<Slot*> free;
    bool isRefused = false;
    Disk disk; // the last, as its end answers what is in flight
};

} // namespace agent::bench
