#pragma once

#include "RealImage.h"
#include "core/fs/FileSystemKind.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace agent::contract {

/// Images are read once for all tests, which put back what they change of a volume.
RealImage& imageOf(const std::string& name);

/// The names of the images about which this is said.
std::vector<std::string> imagesWith(RealImage::Verdict verdict);

/// As test frameworks want them.
std::string testNameOf(std::string imageName);

info::Logger& silentLogger();

/// Throws std::runtime_error if there is no such kind.
const core::fs::FileSystemKind& kindOf(const std::string& name);

/// A parser of the image's kind, that has read nothing yet, of the image's volume or of one around it; on a
/// device with sectors that suit it, or with others.
std::unique_ptr<core::fs::IFileSystemParser> parserOf(const RealImage& image, core::IVolumeReader& volume);
std::unique_ptr<core::fs::IFileSystemParser> parserOf(const RealImage& image, core::IVolumeReader& volume,
                                                      std::uint32_t sectorSize);

} // namespace agent::contract
