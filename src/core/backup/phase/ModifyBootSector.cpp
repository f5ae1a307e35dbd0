#include "core/backup/phase/ModifyBootSector.h"

#include "common/Exceptions.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace agent::core::backup::phase {

namespace {

constexpr std::uint8_t sectorsPerTrack = 63;
constexpr std::size_t sectorsPerTrackOffset = 24; // 16 bits, little-endian

} // namespace

ModifyBootSector::ModifyBootSector(info::Logger& logger, std::string filesystem, std::uint32_t sectorSize,
                                   IVolumeReader& reader, const std::shared_ptr<ITransport>& writer)
    : logger(logger),
      filesystem(std::move(filesystem)),
      sectorSize(sectorSize),
      reader(reader),
      writer(writer) {}

void ModifyBootSector::execute() {
    if (filesystem != "NTFS" || sectorSize != sectorBytes) {
        return;
    }
    AlignedBuffer sector(sectorBytes, sectorBytes); // aligned for O_DIRECT
    const std::size_t length = read(sector);
    info::LogEntry(logger, info::level::info) << "Setting the sectors per track to " << +sectorsPerTrack;
    std::byte& low = sector.data()[sectorsPerTrackOffset];
    std::byte& high = sector.data()[sectorsPerTrackOffset + 1];
    if (low == std::byte{sectorsPerTrack} && high == std::byte{0}) {
        return;
    }
    low = std::byte{sectorsPerTrack};
    high = std::byte{0};
    write(sector, length);
}

std::size_t ModifyBootSector::read(AlignedBuffer& sector) {
    info::LogEntry(logger, info::level::debug) << "Seeking to 0 for the boot sector";
    if (reader.seek(0, SEEK_SET) < 0) {
        throw std::runtime_error("Failed to seek to boot sector, offset 0!");
    }
    info::LogEntry(logger, info::level::debug)
        << "Reading " << sectorBytes << " bytes out of the boot sector";
    const std::int64_t length = reader.read(sector.data(), sectorBytes);
    if (length == -1) {
        throw std::runtime_error("Failed to read boot sector, offset 0!");
    }
    if (static_cast<std::size_t>(length) < sectorBytes) {
        info::LogEntry(logger, info::level::warning)
            << "Read only " << length << " bytes instead of the expected " << sectorBytes << " bytes";
    }
    return static_cast<std::size_t>(length);
}

void ModifyBootSector::write(const AlignedBuffer& sector, std::size_t length) {
    info::LogEntry(logger, info::level::debug) << "Seeking to 0 to write remote boot sector";
    if (writer->seek(0, SEEK_SET) < 0) {
        throw exception::transport_connection_error("Failed to seek to remote boot sector offset!");
    }
    info::LogEntry(logger, info::level::debug) << "Writing " << length << " to remote boot sector";
    const std::int64_t written = writer->write(sector.data(), length);
    if (written < static_cast<std::int64_t>(length)) {
        info::LogEntry(logger, info::level::error)
            << "Only written " << written << " instead of " << length << " bytes to the remote boot sector!";
        throw exception::transport_connection_error("Failed to write the remote boot sector back!");
    }
}

std::string ModifyBootSector::getName() const {
    return "Modify Boot Sector";
}

} // namespace agent::core::backup::phase
