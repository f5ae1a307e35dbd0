#include "SparseVolume.h"
#include "core/fs/ntfs/NTFSFileBlocks.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

/// The search for a file in a directory of a directory of NTFS, on any volume. Ends the process if it tells
/// of clusters of no size; what else goes wrong is for the sanitizers to see.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    agent::fuzz::SparseVolume image({data, size});
    agent::info::Logger logger([](const std::string&, int, agent::info::LogTime) {},
                               [](int level) { return level < agent::info::level::debug; });
    try {
        const auto file = agent::core::fs::findNTFSFile(logger, image.volume, image.sectorSize, "a\\b");
        if (file.blockSize == 0) {
            std::abort();
        }
    } catch (const std::runtime_error&) {
        return 0; // there is no such file
    }
    return 0;
}
