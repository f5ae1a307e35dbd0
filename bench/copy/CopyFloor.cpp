#include "bench/copy/CommandStream.h"
#include "bench/copy/Disk.h"
#include "bench/copy/Source.h"
#include "common/AlignedBuffer.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <numeric>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

/// The least time that a copy of a volume's used blocks to a target can take, and the least that each of its
/// sides can take alone. Standard input has one range per line, `OFFSET LENGTH` in bytes.
///
/// - copy, compare: direct reads of at most 4 MiB and, after each, one synchronous command to the target,
///   which writes what was read, or reads the target instead;
/// - source: only the direct reads, by several threads;
/// - write, read: only commands to the target, of limited size, several of them in flight. Noise is
///   written.
///
/// Prints what was moved, and the seconds of each side, without the login.
namespace agent::bench {
namespace {

constexpr const char* usage = "usage: bench_copy_floor copy|compare DEVICE PORTAL TARGET LUN < RANGES\n"
                              "       bench_copy_floor source DEVICE THREADS < RANGES\n"
                              "       bench_copy_floor write|read PORTAL TARGET LUN BYTES COMMANDS < RANGES";
constexpr std::size_t alignment = 4096;

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Arguments = std::span<const std::string>;
using Chunks = std::vector<Chunk>;

struct Times {
    Seconds local{};
    Seconds remote{};
};

Disk diskOf(Arguments place) {
    return {place[0], place[1], std::stoi(place[2])};
}

Times moveInTurns(bool isCopy, Arguments arguments, const Chunks& chunks) {
    const Source source(arguments[0]);
    Disk disk = diskOf(arguments.subspan(1));
    AlignedBuffer buffer(Chunk::largest, alignment);
    Times times;
    for (const Chunk& chunk : chunks) {
        const Clock::time_point begin = Clock::now();
        source.read(chunk, buffer.data());
        const Clock::time_point between = Clock::now();
        if (isCopy) {
            disk.write(chunk.offset, buffer.data(), chunk.length);
        } else {
            disk.read(chunk.offset, chunk.length);
        }
        times.local += between - begin;
        times.remote += Clock::now() - between;
    }
    disk.logOut();
    return times;
}

Times readSource(Arguments arguments, const Chunks& chunks) {
    const Source source(arguments[0]);
    const Clock::time_point begin = Clock::now();
    source.readAll(chunks, std::stoul(arguments[1]));
    return {.local = Clock::now() - begin};
}

Times moveRemote(CommandStream::Direction direction, Arguments arguments, const Chunks& chunks) {
    CommandStream stream(diskOf(arguments), direction, std::stoul(arguments[3]), std::stoul(arguments[4]));
    const Clock::time_point begin = Clock::now();
    for (const Chunk& chunk : chunks) {
        stream.move(chunk.offset, chunk.length);
    }
    stream.finish();
    const Seconds taken = Clock::now() - begin;
    stream.logOut();
    return {.remote = taken};
}

Times run(const std::string& mode, Arguments arguments, const Chunks& chunks) {
    if ((mode == "copy" || mode == "compare") && arguments.size() == 4) {
        return moveInTurns(mode == "copy", arguments, chunks);
    }
    if (mode == "source" && arguments.size() == 2) {
        return readSource(arguments, chunks);
    }
    if ((mode == "write" || mode == "read") && arguments.size() == 5) {
        const bool isWrite = mode == "write";
        return moveRemote(isWrite ? CommandStream::Direction::write : CommandStream::Direction::read,
                          arguments, chunks);
    }
    throw std::invalid_argument(usage);
}

void measure(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        throw std::invalid_argument(usage);
    }
    const Chunks chunks = chunksIn(std::cin);
    const Times times = run(arguments.front(), Arguments(arguments).subspan(1), chunks);
    const std::uint64_t bytes =
        std::accumulate(chunks.begin(), chunks.end(), std::uint64_t{0},
                        [](std::uint64_t sum, const Chunk& chunk) { return sum + chunk.length; });
    std::printf(R"({"chunks": %zu, "bytes": %lu, "local": %.6f, "remote": %.6f})"
                "\n",
                chunks.size(), bytes, times.local.count(), times.remote.count());
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    try {
        agent::bench::measure({arguments + 1, arguments + argumentCount});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
