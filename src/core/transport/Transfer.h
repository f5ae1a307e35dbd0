#pragma once

#include "core/transport/CommandWindow.h"
#include "core/transport/IscsiLibrary.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <span>

namespace agent::core::iscsi {

/// What commands are sent to: a unit of a target, logged in to.
struct Unit {
    iscsi_context* context;
    int lun;
    std::uint32_t blockSize; ///< bytes; not 0
};

/// One read or write, cut into commands that are under way together. Of a large command a target fetches the
/// data burst by burst, each after a round trip.
/// Owns:    its commands, of which none is left with the session in the end.
/// Threads: the calling one, which does all of the work within the call.
/// Fails:   by return value, with the first command that has failed: refused, answered with less data than
///          asked for, not answered in time, or sent by a session that has broken. One that is refused
///          because the target is busy or has no room for it is sent again, once others have been answered,
///          and has failed if it was alone. The session can't be used any more then.
///
/// The target carries the commands out in any order.
class Transfer {
public:
    /// Takes a piece of what is read, and where that stands in bytes from the first one on. What has been
    /// delivered is worth nothing if the read fails after all.
    using Deliver = std::function<void(std::uint64_t offset, std::span<const unsigned char> piece)>;

    /// The longest burst that the library agrees to, and what targets agree to that aren't told otherwise.
    static constexpr std::uint32_t writeBytes = 256U << 10U;
    /// More in one piece the library takes from the kernel and gives back with each command.
    static constexpr std::uint32_t readBytes = 128U << 10U;

    Transfer(const Unit& unit, CommandWindow& window,
             std::chrono::seconds patience = std::chrono::minutes{1});

    /// Asks for `asked` bytes, whole blocks, from block `lba` on, and delivers the first `length` of them: in
    /// pieces, as they arrive and in any order.
    bool read(std::uint64_t lba, std::uint64_t asked, std::uint64_t length, const Deliver& to);
    /// Writes `length` bytes, whole blocks.
    bool write(std::uint64_t lba, const unsigned char* from, std::uint64_t length);

private:
    using Clock = std::chrono::steady_clock;

    enum class State { idle, sent, refused };

    struct Command {
        Transfer* transfer = nullptr;
        State state = State::idle;
        std::uint64_t offset = 0; ///< bytes, from the start of the transfer on
        std::uint32_t bytes = 0;
        bool isAlone = false; ///< nothing else was under way when it was sent, nor could be since
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
    bool serve();
    [[nodiscard]] bool isOverdue() const;
    void abandon();
    static void onAnswer(iscsi_context* context, int status, void* data, void* command);
    void take(Command& command, int status);
    bool handOver(const Command& command, const scsi_task& task);

    Unit unit;
    CommandWindow& window;
    const std::chrono::seconds patience;
    std::array<Command, CommandWindow::most> commands;
    std::uint32_t underWay = 0;
    std::uint64_t firstBlock = 0;
    std::uint64_t total = 0; ///< bytes to be asked for or written
    std::uint32_t commandBytes = 0;
    std::uint64_t begun = 0;               ///< bytes that commands have been made of
    const Deliver* deliver = nullptr;      ///< of a read
    std::uint64_t wanted = 0;              ///< bytes of a read to be delivered
    const unsigned char* source = nullptr; ///< of a write
    bool wasRefused = false;
    bool hasFailed = false;
};

} // namespace agent::core::iscsi
