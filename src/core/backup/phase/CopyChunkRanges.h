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

/// Copies the chosen blocks to the same offsets in the image. A second thread writes a chunk while the
/// backup's thread reads the next one; only the second thread uses the writer and updates the status while
/// the phase runs. A cancelled backup stops before the next chunk.
///
/// Throws std::runtime_error if the volume can't be read, and transport_connection_error if the target can't
/// be written. A device that ends early ends the copy without an error.
class CopyChunkRanges : public IPhase {
public:
    /// No chunk of `provider` may be larger than `buffer`. The phase allocates a second buffer of the same
    /// size.
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
