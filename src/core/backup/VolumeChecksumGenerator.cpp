#include "core/backup/VolumeChecksumGenerator.h"

#include "common/AlignedBuffer.h"
#include "core/checksum/BufferChecksumGeneratorFactory.h"
#include "core/transport/ITransport.h"

#include <utility>

namespace agent::core::backup {

namespace {

constexpr std::size_t sectorBytes = 4096;
constexpr int fromTheStart = 0;

} // namespace

VolumeChecksumGenerator::VolumeChecksumGenerator(info::Logger& logger, std::shared_ptr<ITransport> transport)
    : transport(std::move(transport)), logger(logger) {}

bool VolumeChecksumGenerator::generate(db::ChecksumType type, std::uint32_t& out) {
    if (transport->seek(0, fromTheStart) < 0) {
        return false;
    }
    AlignedBuffer buffer = createAlignedBuffer(regionBytes, sectorBytes);
    const std::int64_t bytesRead = transport->read(buffer.data(), buffer.size());
    if (bytesRead < static_cast<std::int64_t>(buffer.size())) {
        info::LogEntry(logger, info::level::debug)
            << "The checksum of a remote image needs " << buffer.size() << " bytes, read: " << bytesRead;
        return false;
    }
    return BufferChecksumGeneratorFactory().create(type)->generate(buffer.data(), buffer.size(), out);
}

} // namespace agent::core::backup
