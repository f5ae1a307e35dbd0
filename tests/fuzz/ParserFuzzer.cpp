#include "SparseVolume.h"
#include "core/fs/FileSystemKinds.h"
#include "info/log/Logger.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <vector>

/// The parser of the kind of file system that the build sets, on an arbitrary volume: reads the map in a few
/// chunks or, if the volume isn't recognized, asks what the volume may be. Aborts if the parser reports more
/// blocks than the buffer holds, or throws anything but std::runtime_error. The sanitizers detect other
/// errors.
namespace {

using agent::core::fs::FileSystemKind;

const FileSystemKind& fuzzedKind() {
    const auto kinds = agent::core::fs::fileSystemKinds();
    const auto kind = std::ranges::find(kinds, std::string_view(FUZZED_KIND), &FileSystemKind::name);
    if (kind == kinds.end()) {
        std::abort(); // the folder's kind isn't in the table
    }
    return *kind;
}

void readMap(agent::core::fs::IFileSystemParser& parser, const agent::fuzz::SparseVolume& image) {
    constexpr int mostChunks = 4;
    std::uint64_t start = image.startBlock;
    for (int chunk = 0; chunk < mostChunks; ++chunk) {
        std::vector<std::uint8_t> buffer(image.bufferBytes);
        const std::int64_t blocks = parser.getBitmapChunk(start, buffer.data(), buffer.size());
        if (blocks > static_cast<std::int64_t>(buffer.size() * 8)) {
            std::abort();
        }
        if (blocks <= 0) {
            return;
        }
        start += static_cast<std::uint64_t>(blocks);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const FileSystemKind& kind = fuzzedKind();
    agent::fuzz::SparseVolume image({data, size});
    agent::info::Logger logger([](const std::string&, int, agent::info::LogTime) {},
                               [](int level) { return level < agent::info::level::debug; });
    const auto parser = kind.makeParser(logger, image.volume, image.sectorSize);
    if (parser->recognize()) {
        try {
            readMap(*parser, image);
        } catch (const std::runtime_error&) { // the interface allows this exception
        }
    } else if (kind.findNearMiss != nullptr) {
        kind.findNearMiss(logger, image.volume, image.sectorSize);
    }
    return 0;
}
