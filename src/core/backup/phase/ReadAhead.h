#pragma once

#include "core/backup/phase/ChunkReader.h"

#include <array>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace agent::core::backup::phase {

/// Reads the next chunk of a volume while the one before is dealt with.
/// Owns:    a thread. Where none can be had, each chunk is read when it is asked for.
/// Threads: the volume and its ranges belong to the thread of the object from the first `next` on, and until
///          the destructor has returned, which waits for a read that is under way.
/// Fails:   with the chunk to which it happens, after those before it. What the reader logs about a chunk
///          comes when it is asked for.
class ReadAhead {
public:
    /// The two buffers, of one size, are used in turns.
    ReadAhead(ChunkReader& chunks, AlignedBuffer& buffer, AlignedBuffer& second);
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;
    ~ReadAhead();

    /// Waits for the next chunk. The one before isn't to be used any more.
    Chunk next();

private:
    void start();
    void work();
    bool handOver(const Chunk& chunk);
    bool awaitTurn();

    ChunkReader& chunks;
    const std::array<AlignedBuffer*, 2> buffers;
    std::mutex mutex; ///< guards what follows, up to the thread
    std::condition_variable changed;
    std::optional<Chunk> read;
    bool isAwaited = false; ///< the chunk before is done with, and `next` waits
    bool isStopped = false;
    bool isStarted = false;
    std::thread thread;
};

} // namespace agent::core::backup::phase
