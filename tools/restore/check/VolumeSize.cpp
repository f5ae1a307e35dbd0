#include "VolumeSize.h"

#include "tools/restore/ImageDevice.h"
#include "tools/usedmap/UsedRanges.h"

#include <cstdint>
#include <limits>

namespace restore::check {

namespace {

constexpr std::uint32_t sizeSectorBytes = 512;
constexpr std::size_t sizeMapBytes = 8UL << 20U;

/// Reports an endless size, so that the map isn't cut off at the end of the image.
class EndlessDevice : public ImageDevice {
public:
    using ImageDevice::ImageDevice;

    [[nodiscard]] std::uint64_t getSize() const override {
        return static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    }
};

} // namespace

bool isTruncated(agent::info::Logger& logger, IImage& image, const std::string& kind) {
    if (kind == "ntfs") {
        return false;
    }
    EndlessDevice device(logger, image);
    const usedmap::UsedRanges map = usedmap::findUsedRanges(logger, device, sizeSectorBytes, sizeMapBytes);
    const std::uint64_t there = (image.size() + map.blockSize - 1) / map.blockSize;
    return map.mappedBlocks > there;
}

} // namespace restore::check
