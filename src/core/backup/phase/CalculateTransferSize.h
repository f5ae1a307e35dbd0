#pragma once

#include "core/backup/IBackupStatusHandler.h"
#include "core/block/IBlockRangeProvider.h"
#include "core/operation/IPhase.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::backup::phase {

/// Sets the total size to copy in the backup's status. It is only an estimate: a backup goes on without it.
class CalculateTransferSize : public IPhase {
public:
    /// `spaceTotal` and `blockSize` are in bytes.
    CalculateTransferSize(info::Logger& logger, std::string uuid, std::uint64_t spaceTotal,
                          std::uint32_t blockSize, IBackupStatusHandler& status,
                          const std::unique_ptr<block::IBlockRangeProvider>& provider);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    void warnOfTail();
    void estimate();

    info::Logger& logger;
    const std::string uuid;
    const std::uint64_t spaceTotal;
    const std::uint32_t blockSize;
    IBackupStatusHandler& status;
    const std::unique_ptr<block::IBlockRangeProvider>& provider;
};

} // namespace agent::core::backup::phase
