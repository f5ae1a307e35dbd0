#include "ImageParsers.h"

#include "core/fs/FileSystemKinds.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <stdexcept>

namespace agent::contract {

RealImage& imageOf(const std::string& name) {
    static std::map<std::string, RealImage> images;
    return images.try_emplace(name, name).first->second;
}

std::vector<std::string> imagesWith(RealImage::Verdict verdict) {
    std::vector<std::string> names = RealImage::names();
    std::erase_if(names, [verdict](const std::string& name) { return imageOf(name).verdict != verdict; });
    return names;
}

std::string testNameOf(std::string imageName) {
    std::ranges::replace_if(
        imageName, [](unsigned char character) { return std::isalnum(character) == 0; }, '_');
    return imageName;
}

info::Logger& silentLogger() {
    static info::Logger logger({});
    return logger;
}

const core::fs::FileSystemKind& kindOf(const std::string& name) {
    const auto kinds = core::fs::fileSystemKinds();
    const auto kind = std::ranges::find(kinds, name, &core::fs::FileSystemKind::name);
    if (kind == kinds.end()) {
        throw std::runtime_error("there is no kind of file system called " + name);
    }
    return *kind;
}

std::unique_ptr<core::fs::IFileSystemParser> parserOf(const RealImage& image, core::IVolumeReader& volume) {
    constexpr std::uint32_t usualSectorSize = 512;
    return parserOf(image, volume, image.sectorSize == 0 ? usualSectorSize : image.sectorSize);
}

std::unique_ptr<core::fs::IFileSystemParser> parserOf(const RealImage& image, core::IVolumeReader& volume,
                                                      std::uint32_t sectorSize) {
    return kindOf(image.kind).makeParser(silentLogger(), volume, sectorSize);
}

} // namespace agent::contract
