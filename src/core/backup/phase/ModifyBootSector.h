#pragma once

#include "common/AlignedBuffer.h"
#include "core/fs/IVolumeReader.h"
#include "core/operation/IPhase.h"
#include "core/transport/ITransport.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::backup::phase {

/// Sets the sectors per track to 63 in the boot sector of an NTFS image with 512-byte sectors. Virtual disks
/// have this geometry, and Windows boots only if the boot sector names it. The volume itself isn't changed.
class ModifyBootSector : public IPhase {
public:
    ModifyBootSector(info::Logger& logger, std::string filesystem, std::uint32_t sectorSize,
                     IVolumeReader& reader, const std::shared_ptr<ITransport>& writer);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    static constexpr std::size_t sectorBytes = 512;

    std::size_t read(AlignedBuffer& sector);
    void write(const AlignedBuffer& sector, std::size_t length);

    info::Logger& logger;
    const std::string filesystem;
    const std::uint32_t sectorSize;
    IVolumeReader& reader;
    const std::shared_ptr<ITransport>& writer;
};

} // namespace agent::core::backup::phase
