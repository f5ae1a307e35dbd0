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

constexpr int pollMilliseconds = 1000; ///< between looks at what is overdue

bool isForWantOfRoom(int status) {
    return status == SCSI_STATUS_BUSY || status == SCSI_STATUS_TASK_SET_FULL;
}

std::uint32_t wholeBlocks(std::uint32_t bytes, std::uint32_t blockSize) {
    return std::max(blockSize, bytes / blockSize * blockSize);
}

/// Has what is sent fill whole packets, for as long as it lives: the library sends each header by itself, and
/// after it as little as the target takes at once.
class WholePackets {
public:
    explicit WholePackets(int socket) : socket(socket) { set(1); }
    WholePackets(const WholePackets&) = delete;
    WholePackets& operator=(const WholePackets&) = delete;
    ~WholePackets() { set(0); }

private:
    /// Where that can't be, the packets are small.
    void set(int value) const { ::setsockopt(socket, IPPROTO_TCP, TCP_CORK, &value, sizeof value); }

    int socket;
};

} // namespace

Transfer::Transfer(const Unit& unit, CommandWindow& window, std::chrono::seconds patience)
    : unit(unit), window(window), patience(patience) {}

bool Transfer::read(std::uint64_t lba, std::uint64_t asked, std::uint64_t length, const Deliver& to) {
    firstBlock = lba;
    total = asked;
    commandBytes = wholeBlocks(readBytes, unit.blockSize);
    deliver = &to;
    wanted = length;
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
    while (underWay > 0 || hasMore()) {
        if (!sendWhatFits() || !serve()) {
            abandon();
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
    while (underWay < window.size()) {
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

/// What was refused goes first. There is an idle command for each that the window has room for.
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
    command.isAlone = underWay == 0 && (window.size() == 1 || !hasMore());
    command.deadline = Clock::now() + patience;
    command.task = makeTask(command);
    if (!command.task) {
        return false;
    }
    ++underWay;
    return true;
}

Task Transfer::makeTask(Command& command) {
    const std::uint64_t lba = firstBlock + command.offset / unit.blockSize;
    const int blockSize = static_cast<int>(unit.blockSize);
    if (deliver != nullptr) {
        return Task(iscsi_read16_task(unit.context, unit.lun, lba, command.bytes, blockSize, 0, 0, 0, 0, 0,
                                      &Transfer::onAnswer, &command));
    }
    // The library takes what it only reads as a pointer to what it could change.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
    auto* const bytes = const_cast<unsigned char*>(source + command.offset);
    return Task(iscsi_write16_task(unit.context, unit.lun, lba, bytes, command.bytes, blockSize, 0, 0, 0, 0,
                                   0, &Transfer::onAnswer, &command));
}

/// Waits until the session can go on, and lets it.
bool Transfer::serve() {
    pollfd session{iscsi_get_fd(unit.context), static_cast<short>(iscsi_which_events(unit.context)), 0};
    const int ready = ::poll(&session, 1, pollMilliseconds);
    if (ready < 0 && errno != EINTR) {
        return false;
    }
    const WholePackets packets(session.fd);
    return iscsi_service(unit.context, ready > 0 ? session.revents : 0) >= 0 && !hasFailed && !isOverdue();
}

/// Whether the oldest command has waited for too long. One that is sent again begins anew.
bool Transfer::isOverdue() const {
    const Clock::time_point now = Clock::now();
    return std::ranges::any_of(commands, [&](const Command& command) {
        return command.state == State::sent && command.deadline < now;
    });
}

/// Takes the commands back, as what they refer to won't be there any more when an answer comes.
void Transfer::abandon() {
    hasFailed = true;
    iscsi_scsi_cancel_all_tasks(unit.context);
}

/// Called by the library, from within one of the calls above.
void Transfer::onAnswer(iscsi_context* /*context*/, int status, void* /*data*/, void* command) {
    auto& answered = *static_cast<Command*>(command);
    answered.transfer->take(answered, status);
}

void Transfer::take(Command& command, int status) {
    const Task task = std::move(command.task);
    --underWay;
    command.state = State::idle;
    if (isForWantOfRoom(status) && !command.isAlone) {
        command.state = State::refused;
        window.shrink(underWay);
        wasRefused = true;
    } else if (status != SCSI_STATUS_GOOD || !handOver(command, *task)) {
        hasFailed = true;
    }
}

/// False if a target says that all is well and yet has delivered less.
bool Transfer::handOver(const Command& command, const scsi_task& task) {
    if (deliver == nullptr || command.offset >= wanted) {
        return true; // a write, or the end of a block of which no more is wanted
    }
    const std::uint64_t length = std::min<std::uint64_t>(command.bytes, wanted - command.offset);
    const scsi_data& data = task.datain;
    if (data.size < 0 || static_cast<std::uint64_t>(data.size) < length) {
        return false;
    }
    (*deliver)(command.offset, {data.data, length});
    return true;
}

} // namespace agent::core::iscsi
