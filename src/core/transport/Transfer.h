#pragma once

#include "core/transport/CommandWindow.h"
#include "core/transport/IscsiLibrary.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <span>

namespace agent::core::iscsi {

/// A logical unit of a target, with a session that is logged in.
struct Unit {
    iscsi_context* context;
    int lun;
    std::uint32_t blockSize; ///< in bytes; not 0
};

/// One read or write, split into commands that are in flight at the same time. One large command would be
/// slower: the target fetches its data burst by burst, with a round trip for each burst.
/// Owns:    its commands, none of which is left in the session at the end.
/// Threads: the calling thread, which does all of the work during the call.
/// Fails:   by return value, at the first command that fails: it is refused, gets less data than requested,
///          gets no answer in time, or the session has broken. A command that is refused because the target
///          is busy or its queue is full is sent again after other commands have been answered; it only fails
///          if it was alone. After a failure the session can't be used any more.
///
/// The target carries the commands out in any order.
class Transfer {
public:
    /// Receives a piece of the data, and its byte offset from the start of the transfer. If the read fails
    /// later, the delivered pieces must not be used.
    using Deliver = std::function<void(std::uint64_t offset, std::span<const unsigned char> piece)>;

    /// The longest burst that the library negotiates, and that targets accept by default.
    static constexpr std::uint32_t writeBytes = 256U << 10U;
    /// For longer reads, each command would make the library map a new buffer from the kernel and unmap it.
    static constexpr std::uint32_t readBytes = 128U << 10U;

    Transfer(const Unit& unit, CommandWindow& window,
             std::chrono::seconds commandTimeout = std::chrono::minutes{1});

    /// Reads `asked` bytes, which are whole blocks, from block `lba` on, and delivers the first `length`
    /// bytes in pieces, as they arrive and in any order.
    bool read(std::uint64_t lba, std::uint64_t asked, std::uint64_t length, const Deliver& to);
    /// Writes `length` bytes, which are whole blocks, from block `lba` on.
    bool write(std::uint64_t lba, const unsigned char* from, std::uint64_t length);

private:
    using Clock = std::chrono::steady_clock;

    enum class State { idle, sent, refused };

    struct Command {
        Transfer* transfer = nullptr;
        State state = State::idle;
        std::uint64_t offset = 0; ///< in bytes, from the start of the transfer
        std::uint32_t bytes = 0;
        bool isAlone = false; ///< no other command has been in flight since it was sent
        Clock::time_point deadline;
        Task task;
    };

    bool run();
    [[nodiscard]] bool hasMore() const;
    bool sendWhatFits();
    Command* nextCommand();
    Command* find(State state);
    bool send(Command& command);
    Task makeTask(Command& command);
    bool pollOnce();
    [[nodiscard]] bool isOverdue() const;
    void cancelCommands();
    static void onAnswer(iscsi_context* context, int status, void* data, void* command);
    void onCommandDone(Command& command, int status);
    bool handOver(const Command& command, const scsi_task& task);

    Unit unit;
    CommandWindow& window;
    const std::chrono::seconds commandTimeout;
    std::array<Command, CommandWindow::maxCommands> commands;
    std::uint32_t inFlight = 0;
    std::uint64_t firstBlock = 0;
    std::uint64_t total = 0; ///< how many bytes to request or write
    std::uint32_t commandBytes = 0;
    std::uint64_t begun = 0;               ///< how many bytes have been assigned to commands
    const Deliver* deliver = nullptr;      ///< null for a write
    std::uint64_t bytesToDeliver = 0;      ///< how many bytes of a read to deliver
    const unsigned char* source = nullptr; ///< null for a read
    bool wasRefused = false;
    bool hasFailed = false;
};

} // namespace agent::core::iscsi
