#pragma once

#include "bench/copy/Disk.h"
#include "common/AlignedBuffer.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::bench {

/// One direction of a transfer with a disk: short commands, several of them in flight.
/// Owns:    the disk, and a buffer for all commands. It writes noise.
/// Threads: one at a time.
/// Fails:   throws std::runtime_error, also if the target refuses a command.
class CommandStream {
public:
    enum class Direction { read, write };

    /// Keeps up to `depth` commands of at most `commandBytes` in flight.
    CommandStream(Disk disk, Direction direction, std::size_t commandBytes, std::size_t depth);
    CommandStream(const CommandStream&) = delete;
    CommandStream& operator=(const CommandStream&) = delete;
    CommandStream(CommandStream&&) = delete;
    CommandStream& operator=(CommandStream&&) = delete;
    ~CommandStream() = default;

    /// Sends the commands for these bytes. The last ones may still be unanswered when it returns.
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
    Disk disk; // declared last, as its destructor answers the commands in flight
};

} // namespace agent::bench
