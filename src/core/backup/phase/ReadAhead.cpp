#include "core/backup/phase/ReadAhead.h"

#include "info/log/LogTurn.h"

#include <csignal>
#include <system_error>
#include <utility>

namespace agent::core::backup::phase {

namespace {

/// Leaves the signals of the process to the threads that have them now. What a thread does wrong itself can't
/// be left to others.
class SignalsOfOthers {
public:
    SignalsOfOthers() {
        sigset_t others;
        sigfillset(&others);
        for (const int own : {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}) {
            sigdelset(&others, own);
        }
        pthread_sigmask(SIG_BLOCK, &others, &previous);
    }
    SignalsOfOthers(const SignalsOfOthers&) = delete;
    SignalsOfOthers& operator=(const SignalsOfOthers&) = delete;
    ~SignalsOfOthers() { pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

private:
    sigset_t previous{};
};

} // namespace

ReadAhead::ReadAhead(ChunkReader& chunks, AlignedBuffer& buffer, AlignedBuffer& second)
    : chunks(chunks), buffers{&buffer, &second} {}

ReadAhead::~ReadAhead() {
    {
        const std::lock_guard lock(mutex);
        isStopped = true;
    }
    changed.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

Chunk ReadAhead::next() {
    if (!std::exchange(isStarted, true)) {
        start();
    }
    if (!thread.joinable()) {
        return chunks.next(*buffers.front());
    }
    std::unique_lock lock(mutex);
    isAwaited = true;
    changed.notify_all();
    changed.wait(lock, [this] { return read.has_value(); });
    isAwaited = false;
    const Chunk chunk = *std::exchange(read, std::nullopt);
    changed.notify_all();
    return chunk;
}

void ReadAhead::start() {
    const SignalsOfOthers inherited;
    try {
        thread = std::thread([this] { work(); });
    } catch (const std::system_error&) { // NOLINT(bugprone-empty-catch): slower without, but no worse
    }
}

void ReadAhead::work() {
    const info::LogTurn turn([this] { return awaitTurn(); });
    for (std::size_t number = 0; handOver(chunks.next(*buffers[number % buffers.size()])); ++number) {
    }
}

/// Returns when the buffer before is free again: true; false if nothing more is to be read.
bool ReadAhead::handOver(const Chunk& chunk) {
    std::unique_lock lock(mutex);
    read = chunk;
    changed.notify_all();
    changed.wait(lock, [this] { return !read || isStopped; });
    return !isStopped && !chunk.isLast();
}

bool ReadAhead::awaitTurn() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return isAwaited || isStopped; });
    return !isStopped;
}

} // namespace agent::core::backup::phase
