#include "core/transport/Transfer.h"

#include "core/transport/Libiscsi.h"

#include <algorithm>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace agent::core::iscsi {

namespace {

constexpr int pollMilliseconds = 1000; ///< the interval of the checks for overdue commands

bool isBusyOrFull(int status) {
    return status == SCSI_STATUS_BUSY || status == SCSI_STATUS_TASK_SET_FULL;
}

std::uint32_t wholeBlocks(std::uint32_t bytes, std::uint32_t blockSize) {
    return std::max(blockSize, bytes / blockSize * blockSize);
}

/// While it exists, TCP_CORK makes the socket send whole packets only. The library sends each header on its
/// own, followed by as little data as the target accepts at once.
class CorkedSocket {
public:
    explicit CorkedSocket(int socket) : socket(socket) { set(1); }
    CorkedSocket(const CorkedSocket&) = delete;
    CorkedSocket& operator=(const CorkedSocket&) = delete;
    ~CorkedSocket() { set(0); }

private:
    /// If setsockopt fails, packets are merely smaller.
    void set(int value) const { ::setsockopt(socket, IPPROTO_TCP, TCP_CORK, &value, sizeof value); }

    int socket;
};

} // namespace

Transfer::Transfer(const Unit& unit, CommandWindow& window, std::chrono::seconds commandTimeout)
    : unit(unit), window(window), commandTimeout(commandTimeout) {}

bool Transfer::read(std::uint64_t lba, std::uint64_t asked, std::uint64_t length, const Deliver& to) {
    firstBlock = lba;
    total = asked;
    commandBytes = wholeBlocks(readBytes, unit.blockSize);
    deliver = &to;
    bytesToDeliver = length;
    return run();
}

bool Transfer::write(std::uint64_t lba, const unsigned char* from, std::uint64_t length) {
    firstBlock = lba;
    total = length;
    commandBytes = wholeBlocks(writeBytes, unit.blockSize);
    source = from;
    return run();
}

bool Transfer::run() {
    while (inFlight > 0 || hasMore()) {
        if (!sendWhatFits() || !pollOnce()) {
            cancelCommands();
            return false;
        }
    }
    if (!wasRefused) {
        window.grow();
    }
    return true;
}

bool Transfer::hasMore() const {
    return begun < total || std::ranges::find(commands, State::refused, &Command::state) != commands.end();
}

bool Transfer::sendWhatFits() {
    while (inFlight < window.size()) {
        Command* const command = nextCommand();
        if (command == nullptr) {
            return true;
        }
        if (!send(*command)) {
            return false;
        }
    }
    return true;
}

/// The next command to send, or null. Refused commands come first. There is always an idle command while the
/// window has space.
Transfer::Command* Transfer::nextCommand() {
    Command* command = find(State::refused);
    if (command == nullptr && begun < total) {
        command = find(State::idle);
        command->transfer = this;
        command->offset = begun;
        command->bytes = static_cast<std::uint32_t>(std::min<std::uint64_t>(commandBytes, total - begun));
        begun += command->bytes;
    }
    return command;
}

Transfer::Command* Transfer::find(State state) {
    for (Command& command : commands) {
        if (command.state == state) {
            return &command;
        }
    }
    return nullptr;
}

bool Transfer::send(Command& command) {
    command.state = State::sent;
    command.isAlone = inFlight == 0 && (window.size() == 1 || !hasMore());
    command.deadline = Clock::now() + commandTimeout;
    command.task = makeTask(command);
    if (!command.task) {
        return false;
    }
    ++inFlight;
    return true;
}

Task Transfer::makeTask(Command& command) {
    const std::uint64_t lba = firstBlock + command.offset / unit.blockSize;
    const int blockSize = static_cast<int>(unit.blockSize);
    if (deliver != nullptr) {
        return Task(iscsi_read16_task(unit.context, unit.lun, lba, command.bytes, blockSize, 0, 0, 0, 0, 0,
                                      &Transfer::onAnswer, &command));
    }
    // The library only reads these bytes, but its parameter isn't const.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
    auto* const bytes = const_cast<unsigned char*>(source + command.offset);
    return Task(iscsi_write16_task(unit.context, unit.lun, lba, bytes, command.bytes, blockSize, 0, 0, 0, 0,
                                   0, &Transfer::onAnswer, &command));
}

/// Waits until the session's socket is ready, and lets the library process it.
bool Transfer::pollOnce() {
    pollfd session{iscsi_get_fd(unit.context), static_cast<short>(iscsi_which_events(unit.context)), 0};
    const int ready = ::poll(&session, 1, pollMilliseconds);
    if (ready < 0 && errno != EINTR) {
        return false;
    }
    const CorkedSocket corked(session.fd);
    return iscsi_service(unit.context, ready > 0 ? session.revents : 0) >= 0 && !hasFailed && !isOverdue();
}

/// Whether a command has waited for too long. The time of a command that is sent again starts anew.
bool Transfer::isOverdue() const {
    const Clock::time_point now = Clock::now();
    return std::ranges::any_of(commands, [&](const Command& command) {
        return command.state == State::sent && command.deadline < now;
    });
}

/// Cancels all commands, because the memory that they refer to won't exist any more when answers arrive.
void Transfer::cancelCommands() {
    hasFailed = true;
    iscsi_scsi_cancel_all_tasks(unit.context);
}

/// Called by the library, during one of its calls above.
void Transfer::onAnswer(iscsi_context* /*context*/, int status, void* /*data*/, void* command) {
    auto& answered = *static_cast<Command*>(command);
    answered.transfer->onCommandDone(answered, status);
}

void Transfer::onCommandDone(Command& command, int status) {
    const Task task = std::move(command.task);
    --inFlight;
    command.state = State::idle;
    if (isBusyOrFull(status) && !command.isAlone) {
        command.state = State::refused;
        window.shrink(inFlight);
        wasRefused = true;
    } else if (status != SCSI_STATUS_GOOD || !handOver(command, *task)) {
        hasFailed = true;
    }
}

/// Delivers the data of a read. False if the target reports success but has sent less data than requested.
bool Transfer::handOver(const Command& command, const scsi_task& task) {
    if (deliver == nullptr || command.offset >= bytesToDeliver) {
        return true; // a write, or the part of the last block past the bytes to deliver
    }
    const std::uint64_t length = std::min<std::uint64_t>(command.bytes, bytesToDeliver - command.offset);
    const scsi_data& data = task.datain;
    if (data.size < 0 || static_cast<std::uint64_t>(data.size) < length) {
        return false;
    }
    (*deliver)(command.offset, {data.data, length});
    return true;
}

} // namespace agent::core::iscsi
