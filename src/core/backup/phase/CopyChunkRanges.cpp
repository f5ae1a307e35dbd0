#include "core/backup/phase/CopyChunkRanges.h"

#include "common/Exceptions.h"
#include "info/HumanSize.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace agent::core::backup::phase {

CopyChunkRanges::CopyChunkRanges(info::Logger& logger, std::string uuid, IVolumeReader& reader,
                                 const std::shared_ptr<ITransport>& writer,
                                 const std::unique_ptr<block::IBlockRangeProvider>& provider,
                                 const std::uint32_t& blockSize, AlignedBuffer& buffer,
                                 IBackupStatusHandler& status, ICancel& cancel)
    : logger(logger),
      uuid(std::move(uuid)),
      reader(reader),
      writer(writer),
      provider(provider),
      blockSize(blockSize),
      buffer(buffer),
      status(status),
      cancel(cancel) {}

void CopyChunkRanges::execute() {
    std::uint64_t total = 0;
    for (block::BlockRangeIterator chunk = provider->begin(); chunk != provider->end(); ++chunk) {
        cancel.check();
        if (chunk->empty()) {
            continue;
        }
        const auto offset = static_cast<std::int64_t>(chunk->start * blockSize);
        const std::uint64_t length = readChunk(offset, chunk->length * blockSize);
        if (length == 0) {
            break;
        }
        writeChunk(offset, length);
        total += length;
        status.setVolumeBytesTransferred(uuid, total);
    }
    logger.log(info::level::debug, "Total bytes copied is %lu (%s)", total,
               info::formatHumanSize(total).c_str());
}

std::uint64_t CopyChunkRanges::readChunk(std::int64_t offset, std::uint64_t length) {
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

void CopyChunkRanges::writeChunk(std::int64_t offset, std::uint64_t length) {
    if (writer->seek(offset, SEEK_SET) == -1) {
        throw exception::transport_connection_error("Failed to seek to the write offset!");
    }
    const std::int64_t written = writer->write(buffer.data(), length);
    if (written < static_cast<std::int64_t>(length)) {
        logger.log(info::level::error, "Failed to write the chunk! (%ld bytes written out of %lu)", written,
                   length);
        throw exception::transport_connection_error("Failed to write the chunk!");
    }
}

std::string CopyChunkRanges::getName() const {
    return "Copy Chunk Ranges";
}

} // namespace agent::core::backup::phase
