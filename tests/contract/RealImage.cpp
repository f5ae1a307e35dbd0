#include "RealImage.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <zstd.h>

namespace agent::contract {

namespace {

constexpr const char* folder = REAL_IMAGES;
constexpr const char* imageEnding = ".img.zst";
constexpr const char* truthEnding = ".txt";
constexpr std::size_t pageSize = 4096;

void require(bool holds, const std::string& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

std::ifstream open(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    require(file.is_open(), path + " is missing");
    return file;
}

bool isZeros(std::span<const std::uint8_t> bytes) {
    return bytes.empty() ||
           (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

/// Appends to a volume. Zeros need no memory.
void append(test::MemoryVolume& volume, std::span<const std::uint8_t> bytes) {
    const std::uint64_t begin = volume.size;
    volume.size += bytes.size();
    if (isZeros(bytes)) {
        return;
    }
    for (std::size_t done = 0; done < bytes.size(); done += pageSize) {
        const auto page = bytes.subspan(done, std::min(pageSize, bytes.size() - done));
        if (!isZeros(page)) {
            volume.write(begin + done, page);
        }
    }
}

} // namespace

std::vector<std::string> RealImage::names() {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        const std::string path = std::filesystem::relative(entry.path(), folder).string();
        for (const std::string ending : {imageEnding, truthEnding}) {
            if (path.ends_with(ending)) {
                found.insert(path.substr(0, path.size() - ending.size()));
            }
        }
    }
    return {found.begin(), found.end()};
}

RealImage::RealImage(const std::string& name) : kind(name.substr(0, name.find('/'))), volume(0) {
    const std::string path = std::string(folder) + "/" + name;
    load(path + imageEnding);
    readTruth(path + truthEnding);
}

void RealImage::load(const std::string& path) {
    std::ifstream file = open(path);
    const std::vector<char> packed(std::istreambuf_iterator<char>(file), {});
    const std::unique_ptr<ZSTD_DStream, decltype(&ZSTD_freeDStream)> stream(ZSTD_createDStream(),
                                                                            &ZSTD_freeDStream);
    std::vector<std::uint8_t> bytes(ZSTD_DStreamOutSize());
    ZSTD_inBuffer input{packed.data(), packed.size(), 0};
    for (std::size_t left = 1; left != 0;) {
        ZSTD_outBuffer output{bytes.data(), bytes.size(), 0};
        left = ZSTD_decompressStream(stream.get(), &output, &input);
        require(ZSTD_isError(left) == 0 && (left == 0 || output.pos > 0 || input.pos < input.size),
                path + " can't be unpacked");
        append(volume, {bytes.data(), output.pos});
    }
}

void RealImage::readTruth(const std::string& path) {
    std::ifstream file = open(path);
    for (std::string line; std::getline(file, line);) {
        try {
            readLine(line);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error(path + ": " + error.what() + ": " + line);
        }
    }
    require((verdict == Verdict::readable) == (blockSize > 0 && used.size > 0), path + " says too little");
}

// Repeated "used" and "kept" lines add up. An unknown word is an error, so that a misspelled line can't make
// the tests of an image weaker.
void RealImage::readLine(const std::string& line) {
    std::istringstream text(line);
    std::string word;
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    text >> word;
    if (word == "refused" || word == "unknown") {
        verdict = word == "refused" ? Verdict::refused : Verdict::unknown;
    } else if (word == "block-size") {
        text >> blockSize;
    } else if (word == "sector-size") {
        text >> sectorSize;
    } else if (word == "from-the-begin") {
        mustStartAtFirstBlock = true;
    } else if (word == "blocks") {
        text >> count;
        used = ElementMap(count);
    } else if (word == "used" || word == "kept") {
        text >> first >> count;
        setUsed(first, count);
    } else {
        require(word.starts_with('#'), "a word that nobody knows");
    }
    require(!text.fail(), "a number is missing");
}

void RealImage::setUsed(std::uint64_t first, std::uint64_t count) {
    require(count > 0 && first < used.size && count <= used.size - first, "no blocks of the volume");
    for (std::uint64_t block = first; block < first + count; ++block) {
        require(!used.bit(block), "a block is named twice");
        used.setBit(block);
    }
}

} // namespace agent::contract
