#include "core/backup/phase/CopyChunkRanges.h"

#include "common/Exceptions.h"
#include "core/fs/LoggedBuffer.h"
#include "info/HumanSize.h"
#include "info/log/LogGate.h"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace agent::core::backup::phase {

namespace {

/// At the end of the image a transport writes less than requested, or sets `errno` to ENOSPC.
const info::Reason& whyNotWritten(std::int64_t written) {
    return written >= 0 || errno == ENOSPC ? info::reason("image-too-small") : info::reason("target-lost");
}

} // namespace

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
    std::uint64_t total = 0;
    WriteBehind writing([&](const Chunk& chunk) {
        writeChunk(chunk);
        total += chunk.length;
        status.setVolumeBytesTransferred(uuid, total);
    });
    try {
        copy(second, writing);
    } catch (...) {
        writing.waitOrThrow(); // a failed write of the previous chunk happened first, so that is thrown
        throw;
    }
    writing.waitOrThrow();
    logger.log(info::level::debug, "Total bytes copied is %lu (%s)", total,
               info::formatHumanSize(total).c_str());
}

/// Returns when the last write has begun. Log lines about reading a chunk wait until the previous chunk has
/// been written, and are dropped if that write failed.
void CopyChunkRanges::copy(AlignedBuffer& second, WriteBehind& writing) {
    const info::LogGate gate([&] { return writing.waitUntilWritten(); });
    AlignedBuffer* free = &buffer;
    for (block::BlockRangeIterator range = provider->begin(); range != provider->end(); ++range) {
        cancel.check();
        if (range->empty()) {
            continue;
        }
        const Chunk chunk = readChunk(*range, *free);
        if (chunk.length == 0) {
            return;
        }
        writing.begin(chunk);
        free = free == &buffer ? &second : &buffer;
    }
}

/// Returns a chunk of length 0 at the end of the device.
Chunk CopyChunkRanges::readChunk(const BlockRange& range, AlignedBuffer& into) {
    const auto offset = static_cast<std::int64_t>(range.start * blockSize);
    const std::uint64_t length = range.length * blockSize;
    if (length > into.size()) {
        throw std::logic_error("A chunk to copy is larger than the buffer for it!");
    }
    if (reader.seek(offset, SEEK_SET) == -1) {
        throw info::WithReason<std::runtime_error>(info::reason("volume-unreadable"),
                                                   "Failed to seek to the read offset!");
    }
    const std::int64_t bytesRead = reader.read(into.data(), length);
    if (bytesRead == -1) {
        logger.log(info::level::error, info::reason("volume-unreadable"),
                   "Failed to read the chunk at offset %ld", offset);
        throw info::WithReason<std::runtime_error>(info::reason("volume-unreadable"),
                                                   "Failed to read the chunk!");
    }
    return {offset, into.data(), static_cast<std::uint64_t>(bytesRead)};
}

void CopyChunkRanges::writeChunk(const Chunk& chunk) {
    if (writer->seek(chunk.offset, SEEK_SET) == -1) {
        throw info::WithReason<exception::transport_connection_error>(info::reason("image-too-small"),
                                                                      "Failed to seek to the write offset!");
    }
    const std::int64_t written = writer->write(chunk.bytes, chunk.length);
    if (written < static_cast<std::int64_t>(chunk.length)) {
        const info::Reason& reason = whyNotWritten(written);
        logger.log(info::level::error, reason, "Failed to write the chunk! (%ld bytes written out of %lu)",
                   written, chunk.length);
        throw info::WithReason<exception::transport_connection_error>(reason, "Failed to write the chunk!");
    }
}

std::string CopyChunkRanges::getName() const {
    return "Copy Chunk Ranges";
}

} // namespace agent::core::backup::phase
