#pragma once

#include "common/AlignedBuffer.h"
#include "core/block/IBlockRangeProvider.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <exception>
#include <optional>

namespace agent::core::backup::phase {

/// A chunk of a volume as it has been read.
struct Chunk {
    enum class Kind {
        data,  ///< may have come short; of length 0 at the end of the device
        empty, ///< nothing to copy here
        end,   ///< there are no more chunks
        failed
    };

    Kind kind = Kind::end;
    std::int64_t offset = 0;          ///< bytes, on the volume
    const std::byte* bytes = nullptr; ///< where they have been read to
    std::uint64_t length = 0;         ///< bytes that have arrived
    std::exception_ptr failure = nullptr;

    /// Whether it makes sense to ask for another one.
    [[nodiscard]] bool isLast() const {
        return kind == Kind::end || kind == Kind::failed || (kind == Kind::data && length == 0);
    }
};

/// Takes the chunks of a volume one after the other, and reads each.
/// Threads: one at a time.
/// Fails:   with a chunk that says so; there is no sense in going on then. std::runtime_error of a volume
///          that can't be read, std::logic_error of a chunk that is larger than the buffer, and whatever the
///          provider throws.
class ChunkReader {
public:
    ChunkReader(info::Logger& logger, IVolumeReader& reader, const block::IBlockRangeProvider& provider,
                std::uint32_t blockSize);

    Chunk next(AlignedBuffer& buffer) noexcept;

private:
    Chunk readNext(AlignedBuffer& buffer);
    std::uint64_t read(std::int64_t offset, std::uint64_t length, AlignedBuffer& buffer);

    info::Logger& logger;
    IVolumeReader& reader;
    const block::IBlockRangeProvider& provider;
    const std::uint32_t blockSize;
    std::optional<block::BlockRangeIterator> position; ///< of the chunk before
};

} // namespace agent::core::backup::phase
