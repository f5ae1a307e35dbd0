#pragma once

#include "SparseVolume.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

namespace agent::fuzz {

/// Asks a parser for the map of the volume that an input describes, in a few chunks. Ends the process if it
/// tells of more blocks than the buffer holds; what else goes wrong is for the sanitizers to see.
template <typename Parser>
void parse(std::span<const std::uint8_t> input) {
    constexpr int mostChunks = 4;
    SparseVolume image(input);
    info::Logger logger([](const std::string&, int, info::LogTime) {},
                        [](int level) { return level < info::level::debug; });
    Parser parser(logger, image.volume, image.sectorSize);
    if (!parser.recognize()) {
        return;
    }
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

} // namespace agent::fuzz
