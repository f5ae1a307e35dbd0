#include "bench/copy/Source.h"

#include "common/AlignedBuffer.h"

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <future>
#include <stdexcept>
#include <unistd.h>

namespace agent::bench {

namespace {

constexpr std::size_t alignment = 4096;

} // namespace

std::vector<Chunk> chunksIn(std::istream& lines) {
    std::vector<Chunk> chunks;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    while (lines >> offset >> length) {
        for (std::uint64_t done = 0; done < length; done += Chunk::largest) {
            chunks.push_back(
                {.offset = offset + done, .length = std::min<std::uint64_t>(Chunk::largest, length - done)});
        }
    }
    return chunks;
}

Source::Source(const std::string& device) : volume(::open(device.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC)) {
    if (!volume) {
        throw std::runtime_error(device + " can't be opened");
    }
}

void Source::read(const Chunk& chunk, std::byte* data) const {
    if (::pread(volume.get(), data, chunk.length, static_cast<off_t>(chunk.offset)) !=
        static_cast<ssize_t>(chunk.length)) {
        throw std::runtime_error("the volume can't be read at " + std::to_string(chunk.offset));
    }
}

void Source::readAll(const std::vector<Chunk>& chunks, std::size_t threads) const {
    std::atomic<std::size_t> next = 0;
    const auto readSome = [&] {
        AlignedBuffer buffer(Chunk::largest, alignment);
        for (std::size_t number = next++; number < chunks.size(); number = next++) {
            read(chunks[number], buffer.data());
        }
    };
    std::vector<std::future<void>> readers;
    for (std::size_t thread = 0; thread < threads; ++thread) {
        readers.push_back(std::async(std::launch::async, readSome));
    }
    for (std::future<void>& reader : readers) {
        reader.get();
    }
}

} // namespace agent::bench
