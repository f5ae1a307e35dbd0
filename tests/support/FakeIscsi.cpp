#include "support/FakeIscsi.h"

#include "core/transport/Libiscsi.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace agent::test {

using Outcome = FakeIscsi::Outcome;

namespace {

FakeIscsi* current = nullptr;

struct Task : scsi_task {
    std::vector<unsigned char> data;
    scsi_readcapacity16 capacity{};
};

/// An asynchronous command.
struct Command {
    Task* task = nullptr;
    Outcome outcome = Outcome::good;
    std::uint64_t begin = 0;                ///< offset on the disk, in bytes
    const unsigned char* written = nullptr; ///< the data of a write; null for a read
    std::uint32_t length = 0;
    int busyStatus = SCSI_STATUS_BUSY;
    iscsi_command_cb answered = nullptr;
    void* callbackData = nullptr;
};

} // namespace

} // namespace agent::test

struct iscsi_context {
    std::string error;
    std::deque<agent::test::Command> commands;
};

namespace agent::test {

namespace {

/// The result of a function that returns a number: 0, or negative on failure.
int finish(iscsi_context* context, const std::string& function, Outcome outcome) {
    if (outcome == Outcome::good) {
        return 0;
    }
    context->error = function + " has failed\n";
    return -1;
}

template <typename... Arguments>
int perform(iscsi_context* context, const std::string& function, const Arguments&... arguments) {
    return finish(context, function, FakeIscsi::get().call(function, arguments...));
}

/// Makes the task that answers a command, with `bytes` bytes from the target.
Task* answer(iscsi_context* context, const std::string& function, Outcome outcome, std::size_t bytes) {
    if (finish(context, function, outcome) != 0 && outcome == Outcome::failed) {
        return nullptr;
    }
    auto* const task = new Task{};
    ++FakeIscsi::get().tasks;
    task->status = outcome == Outcome::refused ? SCSI_STATUS_CHECK_CONDITION : SCSI_STATUS_GOOD;
    if (outcome != Outcome::refused) {
        task->data.resize(outcome == Outcome::shorter ? bytes - 1 : bytes);
    }
    task->datain.size = static_cast<int>(task->data.size());
    task->datain.data = task->data.data();
    return task;
}

void readFromDisk(Task& task, std::uint64_t begin) {
    const FakeIscsi& fake = FakeIscsi::get();
    if (begin < fake.disk.size()) {
        const std::size_t count = std::min<std::uint64_t>(task.data.size(), fake.disk.size() - begin);
        std::copy_n(fake.disk.begin() + static_cast<std::ptrdiff_t>(begin), count, task.data.begin());
    }
}

void writeToDisk(const unsigned char* data, std::uint64_t begin, std::uint32_t length) {
    FakeIscsi& fake = FakeIscsi::get();
    if (begin < fake.disk.size()) {
        std::copy_n(data, std::min<std::uint64_t>(length, fake.disk.size() - begin), &fake.disk[begin]);
    }
}

/// Queues a command. Null if the function itself fails.
scsi_task* accept(iscsi_context* context, const std::string& function, Command command) {
    FakeIscsi& fake = FakeIscsi::get();
    if (command.outcome == Outcome::good && context->commands.size() >= fake.queueDepth) {
        command.outcome = Outcome::busy;
        command.busyStatus = SCSI_STATUS_TASK_SET_FULL;
        ++fake.refusals;
    }
    command.task =
        answer(context, function, command.outcome, command.written == nullptr ? command.length : 0);
    if (command.task != nullptr) {
        context->commands.push_back(command);
        fake.mostInFlight = std::max(fake.mostInFlight, context->commands.size());
    }
    return command.task;
}

int statusOf(const Command& command) {
    return command.outcome == Outcome::busy ? command.busyStatus : command.task->status;
}

void carryOut(iscsi_context* context, const Command& command) {
    if (command.outcome == Outcome::good || command.outcome == Outcome::shorter) {
        if (command.written == nullptr) {
            readFromDisk(*command.task, command.begin);
        } else {
            writeToDisk(command.written, command.begin, command.length);
        }
    }
    command.answered(context, statusOf(command), command.task, command.callbackData);
}

Command takeNext(iscsi_context* context) {
    const bool newestFirst = FakeIscsi::get().newestFirst;
    const Command next = newestFirst ? context->commands.back() : context->commands.front();
    if (newestFirst) {
        context->commands.pop_back();
    } else {
        context->commands.pop_front();
    }
    return next;
}

} // namespace

FakeIscsi::ActionInCalls::ActionInCalls(FakeIscsi& iscsi, Action action) : iscsi(iscsi) {
    iscsi.action = std::move(action);
}

FakeIscsi::ActionInCalls::~ActionInCalls() {
    iscsi.action = nullptr;
}

FakeIscsi::FakeIscsi() {
    if (current != nullptr) {
        std::abort();
    }
    current = this;
    readable = os::FileDescriptor(eventfd(1, EFD_CLOEXEC));
    if (dup3(readable.get(), fd, O_CLOEXEC) < 0) {
        std::abort();
    }
}

FakeIscsi::~FakeIscsi() {
    ::close(fd);
    current = nullptr;
}

FakeIscsi& FakeIscsi::get() {
    return *current;
}

void FakeIscsi::script(const std::string& function, const std::vector<Outcome>& next) {
    outcomes[function].assign(next.begin(), next.end());
}

Outcome FakeIscsi::outcomeOf(const std::string& function) {
    if (action) {
        action(function);
    }
    auto& next = outcomes[function];
    if (next.empty()) {
        return Outcome::good;
    }
    const Outcome outcome = next.front();
    next.pop_front();
    return outcome;
}

extern "C" {

iscsi_context* iscsi_create_context(const char* initiatorName) {
    if (FakeIscsi::get().call("iscsi_create_context", initiatorName) != Outcome::good) {
        return nullptr;
    }
    ++FakeIscsi::get().contexts;
    return new iscsi_context;
}

int iscsi_destroy_context(iscsi_context* context) {
    FakeIscsi::get().call("iscsi_destroy_context");
    --FakeIscsi::get().contexts;
    FakeIscsi::get().lostCommands += static_cast<int>(context->commands.size());
    delete context;
    return 0;
}

void iscsi_set_tcp_user_timeout(iscsi_context* /*context*/, int milliseconds) {
    FakeIscsi::get().call("iscsi_set_tcp_user_timeout", milliseconds);
}

void iscsi_set_noautoreconnect(iscsi_context* /*context*/, int state) {
    FakeIscsi::get().call("iscsi_set_noautoreconnect", state);
}

void iscsi_set_reconnect_max_retries(iscsi_context* /*context*/, int count) {
    FakeIscsi::get().call("iscsi_set_reconnect_max_retries", count);
}

int iscsi_set_targetname(iscsi_context* context, const char* targetname) {
    return perform(context, __func__, targetname);
}

int iscsi_set_session_type(iscsi_context* context, iscsi_session_type type) {
    return perform(context, __func__, type);
}

int iscsi_set_header_digest(iscsi_context* context, iscsi_header_digest digest) {
    return perform(context, __func__, digest);
}

int iscsi_set_initiator_username_pwd(iscsi_context* context, const char* user, const char* passwd) {
    return perform(context, __func__, user, passwd);
}

int iscsi_set_immediate_data(iscsi_context* context, iscsi_immediate_data immediate) {
    return perform(context, __func__, immediate);
}

int iscsi_set_initial_r2t(iscsi_context* context, iscsi_initial_r2t r2t) {
    return perform(context, __func__, r2t);
}

int iscsi_set_timeout(iscsi_context* context, int timeout) {
    return perform(context, __func__, timeout);
}

const char* iscsi_get_error(iscsi_context* context) {
    return context->error.c_str();
}

int iscsi_get_fd(iscsi_context* /*context*/) {
    return FakeIscsi::fd;
}

int iscsi_which_events(iscsi_context* /*context*/) {
    return POLLIN;
}

int iscsi_service(iscsi_context* context, int /*events*/) {
    if (context->commands.empty() || context->commands.front().outcome == Outcome::silent) {
        return 0;
    }
    const Command next = takeNext(context);
    if (next.outcome == Outcome::broken) {
        context->commands.push_front(next); // only cancelling the tasks answers it
        return finish(context, __func__, next.outcome);
    }
    carryOut(context, next);
    return 0;
}

void iscsi_scsi_cancel_all_tasks(iscsi_context* context) {
    for (const Command& command : std::exchange(context->commands, {})) {
        command.answered(context, SCSI_STATUS_CANCELLED, command.task, command.callbackData);
    }
}

int iscsi_full_connect_sync(iscsi_context* context, const char* portal, int lun) {
    const int result = perform(context, __func__, portal, lun);
    FakeIscsi::get().isLoggedIn = result == 0;
    return result;
}

int iscsi_is_logged_in(iscsi_context* /*context*/) {
    return FakeIscsi::get().isLoggedIn ? 1 : 0;
}

int iscsi_logout_sync(iscsi_context* context) {
    return perform(context, __func__);
}

int iscsi_disconnect(iscsi_context* context) {
    return perform(context, __func__);
}

scsi_task* iscsi_readcapacity16_sync(iscsi_context* context, int lun) {
    FakeIscsi& fake = FakeIscsi::get();
    auto* const task = answer(context, __func__, fake.call(__func__, lun), sizeof(scsi_readcapacity16));
    if (task != nullptr) {
        task->capacity.block_length = fake.blockSize;
        task->capacity.returned_lba = fake.lastBlock;
    }
    return task;
}

void* scsi_datain_unmarshall(scsi_task* task) {
    const Outcome outcome = FakeIscsi::get().call(__func__);
    return outcome == Outcome::good ? &static_cast<Task*>(task)->capacity : nullptr;
}

scsi_task* iscsi_read16_sync(iscsi_context* context, int lun, uint64_t lba, uint32_t datalen, int blocksize,
                             int rdprotect, int dpo, int fua, int fuaNv, int group) {
    FakeIscsi& fake = FakeIscsi::get();
    const Outcome outcome =
        fake.call(__func__, lun, lba, datalen, blocksize, rdprotect, dpo, fua, fuaNv, group);
    auto* const task = answer(context, __func__, outcome, datalen);
    if (task != nullptr) {
        readFromDisk(*task, lba * fake.blockSize);
    }
    return task;
}

scsi_task* iscsi_read16_task(iscsi_context* context, int lun, uint64_t lba, uint32_t datalen, int blocksize,
                             int rdprotect, int dpo, int fua, int fuaNv, int group, iscsi_command_cb answered,
                             void* callbackData) {
    FakeIscsi& fake = FakeIscsi::get();
    return accept(
        context, __func__,
        {.outcome = fake.call(__func__, lun, lba, datalen, blocksize, rdprotect, dpo, fua, fuaNv, group),
         .begin = lba * fake.blockSize,
         .length = datalen,
         .answered = answered,
         .callbackData = callbackData});
}

scsi_task* iscsi_write16_task(iscsi_context* context, int lun, uint64_t lba, unsigned char* data,
                              uint32_t datalen, int blocksize, int wrprotect, int dpo, int fua, int fuaNv,
                              int group, iscsi_command_cb answered, void* callbackData) {
    FakeIscsi& fake = FakeIscsi::get();
    return accept(
        context, __func__,
        {.outcome = fake.call(__func__, lun, lba, datalen, blocksize, wrprotect, dpo, fua, fuaNv, group),
         .begin = lba * fake.blockSize,
         .written = data,
         .length = datalen,
         .answered = answered,
         .callbackData = callbackData});
}

void scsi_free_scsi_task(scsi_task* task) {
    --FakeIscsi::get().tasks;
    delete static_cast<Task*>(task);
}

} // extern "C"

} // namespace agent::test
