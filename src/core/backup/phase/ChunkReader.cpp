#include "core/backup/phase/ChunkReader.h"

#include <cstdio>
#include <stdexcept>

namespace agent::core::backup::phase {

ChunkReader::ChunkReader(info::Logger& logger, IVolumeReader& reader,
                         const block::IBlockRangeProvider& provider, std::uint32_t blockSize)
    : logger(logger), reader(reader), provider(provider), blockSize(blockSize) {}

Chunk ChunkReader::next(AlignedBuffer& buffer) noexcept {
    try {
        return readNext(buffer);
    } catch (...) { // a cancelled operation isn't a std::exception
        Chunk failed;
        failed.kind = Chunk::Kind::failed;
        failed.failure = std::current_exception();
        return failed;
    }
}

Chunk ChunkReader::readNext(AlignedBuffer& buffer) {
    if (position) {
        ++*position;
    } else {
        position = provider.begin();
    }
    Chunk chunk;
    if (*position == provider.end()) {
        return chunk;
    }
    const BlockRange& range = **position;
    if (range.empty()) {
        chunk.kind = Chunk::Kind::empty;
        return chunk;
    }
    chunk.kind = Chunk::Kind::data;
    chunk.offset = static_cast<std::int64_t>(range.start * blockSize);
    chunk.bytes = buffer.data();
    chunk.length = read(chunk.offset, range.length * blockSize, buffer);
    return chunk;
}

/// Returns the bytes that have arrived; 0 at the end of the device.
std::uint64_t ChunkReader::read(std::int64_t offset, std::uint64_t length, AlignedBuffer& buffer) {
    if (length > buffer.size()) {
        throw std::logic_error("A chunk to copy is larger than the buffer for it!");
    }
    if (reader.seek(offset, SEEK_SET) == -1) {
        throw std::runtime_error("Failed to seek to the read offset!");
    }
    const std::int64_t bytesRead = reader.read(buffer.data(), length);
    if (bytesRead == -1) {
        logger.log(info::level::error, "Failed to read the chunk at offset %ld", offset);
        throw std::runtime_error("Failed to read the chunk!");
    }
    return static_cast<std::uint64_t>(bytesRead);
}

} // namespace agent::core::backup::phase
