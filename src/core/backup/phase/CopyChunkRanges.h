#pragma once

#include "common/AlignedBuffer.h"
#include "core/backup/IBackupStatusHandler.h"
#include "core/backup/phase/WriteBehind.h"
#include "core/block/IBlockRangeProvider.h"
#include "core/fs/IVolumeReader.h"
#include "core/operation/ICancel.h"
#include "core/operation/IPhase.h"
#include "core/transport/ITransport.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::backup::phase {

/// Copies the chosen blocks, each to where it stands on the volume. While a chunk is written, by a thread of
/// its own that has the writer and the status for as long as the phase runs, the next one is read. A
/// cancelled backup stops before the next chunk.
/// A volume that can't be read is std::runtime_error, a target that can't be written
/// transport_connection_error. A device that ends early ends the copy.
class CopyChunkRanges : public IPhase {
public:
    /// No chunk of `provider` is larger than the buffer, beside which the phase has one of the same size.
    CopyChunkRanges(info::Logger& logger, std::string uuid, IVolumeReader& reader,
                    const std::shared_ptr<ITransport>& writer,
                    const std::unique_ptr<block::IBlockRangeProvider>& provider,
                    const std::uint32_t& blockSize, AlignedBuffer& buffer, IBackupStatusHandler& status,
                    ICancel& cancel);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    void copy(AlignedBuffer& second, WriteBehind& writing);
    Chunk readChunk(const BlockRange& range, AlignedBuffer& into);
    void writeChunk(const Chunk& chunk);

    info::Logger& logger;
    const std::string uuid;
    IVolumeReader& reader;
    const std::shared_ptr<ITransport>& writer;
    const std::unique_ptr<block::IBlockRangeProvider>& provider;
    const std::uint32_t& blockSize;
    AlignedBuffer& buffer;
    IBackupStatusHandler& status;
    ICancel& cancel;
};

} // namespace agent::core::backup::phase
