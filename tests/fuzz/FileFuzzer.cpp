#include "SparseVolume.h"
#include "core/fs/ntfs/NTFSFileBlocks.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

/// The search for a file in a subdirectory on NTFS, on an arbitrary volume. Aborts if it returns clusters
/// without a size; the sanitizers detect other errors.
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
