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

/// Images are loaded once for all tests. A test that changes a volume must restore it.
RealImage& imageOf(const std::string& name);

/// The names of the images with this verdict.
std::vector<std::string> imagesWith(RealImage::Verdict verdict);

/// The image name in the form that the test framework requires.
std::string testNameOf(std::string imageName);

info::Logger& silentLogger();

/// Throws std::runtime_error if there is no such kind.
const core::fs::FileSystemKind& kindOf(const std::string& name);

/// A new parser for the image's kind of file system. `volume` is the image's volume or a wrapper of it. The
/// sector size suits the image, or is the given one.
std::unique_ptr<core::fs::IFileSystemParser> parserOf(const RealImage& image, core::IVolumeReader& volume);
std::unique_ptr<core::fs::IFileSystemParser> parserOf(const RealImage& image, core::IVolumeReader& volume,
                                                      std::uint32_t sectorSize);

} // namespace agent::contract
