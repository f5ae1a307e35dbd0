#pragma once

#include "os/Mutex.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <thread>

namespace agent::core::backup::phase {

/// A piece of a volume that has been read.
struct Chunk {
    std::int64_t offset = 0;          ///< in bytes, on the volume
    const std::byte* bytes = nullptr; ///< in a buffer that the caller owns
    std::uint64_t length = 0;         ///< the number of bytes read
};

/// Writes a chunk of a volume while the caller reads the next one. Only one write is in progress at a time.
/// Owns:    a thread. If the thread can't be created, `begin` writes each chunk itself.
/// Threads: one caller. After `begin`, the object's thread uses whatever `write` refers to, until
///          `waitOrThrow` returns.
/// Fails:   the next `begin` or `waitOrThrow` throws what writing a chunk threw.
class WriteBehind {
public:
    using Write = std::function<void(const Chunk& chunk)>;

    explicit WriteBehind(Write write);
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;
    /// Waits for the write in progress. A failure that hasn't been thrown by then is lost.
    ~WriteBehind();

    /// Waits for the previous write like `waitOrThrow`, then starts to write `chunk`, whose bytes must stay
    /// valid until the next `begin` or `waitOrThrow`.
    void begin(const Chunk& chunk);
    /// Waits until no write is in progress, and throws if the last one failed.
    void waitOrThrow();
    /// Waits until no write is in progress. False if the last one failed; doesn't throw.
    bool waitUntilWritten();

private:
    void start();
    void work();
    [[nodiscard]] std::exception_ptr tryWrite(const Chunk& chunk) const noexcept;

    const Write write;
    os::Mutex mutex;
    std::condition_variable changed;
    std::optional<Chunk> pending GUARDED_BY(mutex);
    std::exception_ptr failure GUARDED_BY(mutex);
    bool isStopped GUARDED_BY(mutex) = false;
    bool isStarted = false;
    std::thread thread;
};

} // namespace agent::core::backup::phase
