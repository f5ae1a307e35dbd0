#include "core/backup/phase/CalculateTransferSize.h"

#include "info/HumanSize.h"

#include <exception>
#include <utility>

namespace agent::core::backup::phase {

CalculateTransferSize::CalculateTransferSize(info::Logger& logger, std::string uuid, std::uint64_t spaceTotal,
                                             std::uint32_t blockSize, IBackupStatusHandler& status,
                                             const std::unique_ptr<block::IBlockRangeProvider>& provider)
    : logger(logger),
      uuid(std::move(uuid)),
      spaceTotal(spaceTotal),
      blockSize(blockSize),
      status(status),
      provider(provider) {}

void CalculateTransferSize::execute() {
    try {
        warnOfTail();
        estimate();
    } catch (const std::exception& error) {
        info::LogEntry(logger, info::level::warning)
            << "Could not estimate volume " << uuid << " transfer size. Error: " << error.what();
    }
}

void CalculateTransferSize::warnOfTail() {
    const std::uint64_t tail = spaceTotal % blockSize;
    if (tail != 0) {
        info::LogEntry(logger, info::level::warning)
            << "The total volume size " << spaceTotal << " is not divisible by the block size " << blockSize
            << ", you will lose " << tail << " bytes at the end.";
    }
}

void CalculateTransferSize::estimate() {
    const std::uint64_t bytes = provider ? provider->size() * blockSize : 0;
    status.setVolumeTotalSize(uuid, static_cast<std::int64_t>(bytes));
    info::LogEntry(logger, info::level::info)
        << "The total estimated bytes to copy for volume " << uuid << " is " << bytes << " ("
        << info::formatHumanSize(bytes) << ")";
}

std::string CalculateTransferSize::getName() const {
    return "Calculate Transfer Size";
}

} // namespace agent::core::backup::phase
