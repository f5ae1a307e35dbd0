#include "common/AlignedBuffer.h"
#include "core/backup/VolumeReader.h"
#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "info/log/Logger.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

/// Measures the map of a volume's used blocks, compared with the least that it needs: reading the same bytes
/// in the same order, and clearing the buffer at each call. Both use direct I/O, in turns. If the parser
/// reads directly into the map, its peer reads into the same memory, as that makes a difference. Prints one
/// line per volume, with the peak memory for the map.
namespace agent::bench {
namespace {

constexpr std::size_t bufferBytes = 40UL * 1024 * 1024; // as in a backup
constexpr std::uint32_t sectorSize = 512;
constexpr int rounds = 25;

struct Request {
    std::int64_t offset;
    std::size_t length;
    void* target;
};

/// Passes all reads on to the volume, and records them.
class RecordingReader : public core::IVolumeReader {
public:
    explicit RecordingReader(core::IVolumeReader& volume) : volume(volume) {}

    std::int64_t read(void* buffer, std::size_t length) override {
        requests.push_back({position, length, buffer});
        const std::int64_t count = volume.read(buffer, length);
        position += std::max<std::int64_t>(count, 0);
        return count;
    }

    std::int64_t seek(std::int64_t offset, int whence) override {
        position = volume.seek(offset, whence);
        return position;
    }

    std::vector<Request> requests;

private:
    core::IVolumeReader& volume;
    std::int64_t position = 0;
};

std::uint8_t* bytesOf(AlignedBuffer& buffer) {
    return static_cast<std::uint8_t*>(static_cast<void*>(buffer.data()));
}

/// Walks the whole map. Returns the number of blocks.
std::uint64_t walk(info::Logger& logger, core::IVolumeReader& volume, AlignedBuffer& buffer) {
    const auto provider = core::fs::UsedBlockBitmapChunkProviderFactory(logger, sectorSize, &volume).create();
    if (!provider) {
        throw std::runtime_error("unknown file system");
    }
    std::uint64_t blocks = 0;
    for (;;) {
        const std::int64_t chunk = provider->getBitmapChunk(blocks, bytesOf(buffer), buffer.size());
        if (chunk < 0) {
            throw std::runtime_error("the map can't be read");
        }
        if (chunk == 0) {
            return blocks;
        }
        blocks += static_cast<std::uint64_t>(chunk);
    }
}

/// The last call, which finds nothing more, clears the buffer too.
void clearBuffers(AlignedBuffer& buffer, std::uint64_t blocks) {
    for (std::uint64_t done = 0; done < blocks + buffer.size() * 8; done += buffer.size() * 8) {
        std::memset(buffer.data(), static_cast<int>(done), buffer.size());
    }
}

bool isWithin(AlignedBuffer& buffer, const void* place) {
    const std::less<> isBefore;
    return !isBefore(place, buffer.data()) && isBefore(place, buffer.data() + buffer.size());
}

void readPlainly(int descriptor, const std::vector<Request>& requests, AlignedBuffer& map,
                 AlignedBuffer& scratch) {
    for (const Request& request : requests) {
        void* const target = isWithin(map, request.target) ? request.target : scratch.data();
        if (::pread(descriptor, target, request.length, request.offset) < 0) {
            throw std::runtime_error("pread failed");
        }
    }
}

template <typename Action>
double secondsOf(const Action& action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

long peakMebibytes() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}

std::size_t longest(const std::vector<Request>& requests) {
    std::size_t length = 0;
    for (const Request& request : requests) {
        length = std::max(length, request.length);
    }
    return length;
}

/// Takes the peak memory before the peer's buffer is allocated, so that it is that of the map alone.
void measure(const std::string& path) {
    info::Logger silent({});
    core::backup::VolumeReader volume(silent, path);
    if (!volume.open()) {
        throw std::runtime_error("the volume can't be opened");
    }
    AlignedBuffer map(bufferBytes, sectorSize);
    RecordingReader recorder(volume);
    const std::uint64_t blocks = walk(silent, recorder, map);
    const long peak = peakMebibytes();
    AlignedBuffer scratch(longest(recorder.requests), sectorSize);
    std::vector<double> own;
    std::vector<double> reads;
    std::vector<double> peer;
    for (int round = 0; round < rounds; ++round) {
        own.push_back(secondsOf([&] { walk(silent, volume, map); }));
        reads.push_back(secondsOf([&] { readPlainly(volume.getFd(), recorder.requests, map, scratch); }));
        peer.push_back(reads.back() + secondsOf([&] { clearBuffers(map, blocks); }));
    }
    std::printf("%s: %lu blocks, %zu reads, map %.4f s, plain reads %.4f s (ratio %.2f), with clear buffers "
                "%.4f s, ratio %.2f, peak %ld MiB\n",
                path.c_str(), blocks, recorder.requests.size(), median(own), median(reads),
                median(own) / median(reads), median(peer), median(own) / median(peer), peak);
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    for (int i = 1; i < argumentCount; ++i) {
        try {
            agent::bench::measure(arguments[i]);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: %s\n", arguments[i], error.what());
            return EXIT_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}
