#include "core/backup/phase/CopyChunkRanges.h"

#include "common/Exceptions.h"
#include "core/backup/phase/ReadAhead.h"
#include "core/fs/LoggedBuffer.h"
#include "info/HumanSize.h"

#include <cstdio>
#include <exception>
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
    AlignedBuffer second = fs::createLoggedBuffer(buffer.size(), buffer.alignment(), logger);
    ChunkReader reading(logger, reader, *provider, blockSize);
    ReadAhead chunks(reading, buffer, second);
    std::uint64_t total = 0;
    for (Chunk chunk = chunks.next(); chunk.kind != Chunk::Kind::end; chunk = chunks.next()) {
        cancel.check();
        if (chunk.kind == Chunk::Kind::empty) {
            continue;
        }
        if (chunk.kind == Chunk::Kind::failed) {
            std::rethrow_exception(chunk.failure);
        }
        if (chunk.length == 0) {
            break;
        }
        writeChunk(chunk);
        total += chunk.length;
        status.setVolumeBytesTransferred(uuid, total);
    }
    logger.log(info::level::debug, "Total bytes copied is %lu (%s)", total,
               info::formatHumanSize(total).c_str());
}

void CopyChunkRanges::writeChunk(const Chunk& chunk) {
    if (writer->seek(chunk.offset, SEEK_SET) == -1) {
        throw exception::transport_connection_error("Failed to seek to the write offset!");
    }
    const std::int64_t written = writer->write(chunk.bytes, chunk.length);
    if (written < static_cast<std::int64_t>(chunk.length)) {
        logger.log(info::level::error, "Failed to write the chunk! (%ld bytes written out of %lu)", written,
                   chunk.length);
        throw exception::transport_connection_error("Failed to write the chunk!");
    }
}

std::string CopyChunkRanges::getName() const {
    return "Copy Chunk Ranges";
}

} // namespace agent::core::backup::phase
