#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace agent::core::backup::phase {

/// A piece of a volume as it has been read.
struct Chunk {
    std::int64_t offset = 0;          ///< bytes, on the volume
    const std::byte* bytes = nullptr; ///< where they are
    std::uint64_t length = 0;         ///< bytes that have arrived
};

/// Writes a chunk of a volume while the caller reads the next one. One is under way at a time.
/// Owns:    a thread. Where none can be had, each chunk is written by the caller.
/// Threads: one may call. What `write` works with belongs to the thread of the object until it is settled.
/// Fails:   what writing a chunk has thrown is thrown by the next call that waits for it.
class WriteBehind {
public:
    using Write = std::function<void(const Chunk& chunk)>;

    explicit WriteBehind(Write write);
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;
    /// Waits for the chunk that is under way. A failure that nobody has settled is lost.
    ~WriteBehind();

    /// Settles the chunk before and begins with this one, whose bytes have to stay until it is settled.
    void begin(const Chunk& chunk);
    /// Waits until nothing is under way.
    void settle();
    /// Does so too. Whether all that was begun has been written.
    bool isWritten();

private:
    void start();
    void work();
    [[nodiscard]] std::exception_ptr tryWrite(const Chunk& chunk) const noexcept;

    const Write write;
    std::mutex mutex; ///< guards what follows, up to the thread
    std::condition_variable changed;
    std::optional<Chunk> underWay;
    std::exception_ptr failure;
    bool isStopped = false;
    bool isStarted = false;
    std::thread thread;
};

} // namespace agent::core::backup::phase
