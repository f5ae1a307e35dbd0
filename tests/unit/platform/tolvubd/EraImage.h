#pragma once

#include "FileAccess.h"
#include "era/EraMetadata.h"
#include "era/Format.h"
#include "os/Crc32c.h"
#include "support/LoopFileSystem.h"
#include "support/TestDirectory.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

namespace tolvubd::test {

/// Metadata of a dm-era target in a file, made by era_restore from XML or decompressed. Tests can damage it,
/// and read it with the era tools and with the code under test.
class EraImage {
public:
    /// `content` is the content of the XML's superblock element; `kibibytes` is the size of the metadata.
    EraImage(std::uint64_t blocks, std::uint32_t currentEra, const std::string& content,
             int kibibytes = 1024) {
        const std::string xml = (directory / "xml").str();
        agent::test::writeFile(xml, "<superblock uuid=\"\" block_size=\"8\" nr_blocks=\"" +
                                        std::to_string(blocks) + "\" current_era=\"" +
                                        std::to_string(currentEra) + "\">\n" + content + "</superblock>\n");
        agent::test::outputOf("truncate -s " + std::to_string(kibibytes) + "K " + path);
        agent::test::outputOf("era_restore -q -i " + xml + " -o " + path);
        load();
    }
    explicit EraImage(const std::string& packed) {
        agent::test::outputOf("zstd -dqf " + packed + " -o " + path);
        load();
    }

    [[nodiscard]] std::uint64_t blocks() const { return bytes.size() / era::blockSize; }

    [[nodiscard]] std::vector<bool> writtenSince(std::uint32_t first, EraMetadata::View view) const {
        return writtenSince(first, view, bytes.size());
    }
    [[nodiscard]] std::vector<bool> writtenSince(std::uint32_t first, EraMetadata::View view,
                                                 std::uint64_t size) const {
        const os::FileDescriptor file = openFile(path, O_RDONLY);
        return EraMetadata(file, size, view).writtenSince(first);
    }

    /// The same result as computed by era_invalidate, which ignores the writeset of the current era.
    [[nodiscard]] std::vector<bool> writtenSinceByTool(std::uint32_t first, EraMetadata::View view) const {
        const std::string snapshot = view == EraMetadata::View::snapshot ? "--metadata-snapshot " : "";
        const std::string text = agent::test::outputOf("era_invalidate " + snapshot + "--written-since " +
                                                       std::to_string(first) + " " + path);
        std::vector<bool> flags(number<std::uint32_t>(0, era::superblock::blocksOffset));
        const std::regex pattern(R"#((?:begin="(\d+)" *end *= *|block block=)"(\d+)")#");
        for (std::sregex_iterator found(text.begin(), text.end(), pattern); found != std::sregex_iterator();
             ++found) {
            const std::uint64_t last = std::stoull((*found)[2]);
            const bool isRange = (*found)[1].matched;
            for (std::uint64_t at = isRange ? std::stoull((*found)[1]) : last; at < last + (isRange ? 0 : 1);
                 ++at) {
                flags.at(at) = true;
            }
        }
        return flags;
    }

    template <class Number>
    [[nodiscard]] Number number(std::uint64_t block, std::size_t offset) const {
        Number value = 0;
        std::memcpy(&value, &bytes.at(block * era::blockSize + offset), sizeof value);
        return value;
    }

    /// Writes a number into a block and corrects the block's checksum.
    template <class Number>
    void put(std::uint64_t block, const era::BlockKind& kind, std::size_t offset, Number value) {
        std::string changed = blockAt(block);
        std::memcpy(&changed.at(offset), &value, sizeof value);
        putBlock(block, kind, changed);
    }

    /// Writes a block with its correct block number and checksum.
    void putBlock(std::uint64_t block, const era::BlockKind& kind, std::string content) {
        std::memcpy(&content.at(kind.placeOffset), &block, sizeof block);
        const std::uint32_t sum =
            ~os::crc32c(std::as_bytes(std::span(content)).subspan(sizeof(std::uint32_t))) ^ kind.salt;
        std::memcpy(content.data(), &sum, sizeof sum);
        write(block * era::blockSize, content);
    }

    [[nodiscard]] std::string blockAt(std::uint64_t block) const {
        return bytes.substr(block * era::blockSize, era::blockSize);
    }

    /// Inverts one byte; a second call restores it.
    void flip(std::uint64_t block, std::size_t offset) {
        const std::size_t place = block * era::blockSize + offset;
        write(place, {static_cast<char>(~bytes.at(place))});
    }

    /// Truncates the file.
    void cut(std::uint64_t size) const { std::filesystem::resize_file(path, size); }

private:
    void load() { bytes = agent::test::readFile(path); }

    void write(std::size_t offset, const std::string& content) {
        bytes.replace(offset, content.size(), content);
        writeAt(openFile(path, O_WRONLY), std::as_bytes(std::span(content)), offset);
    }

    agent::test::TestDirectory directory;
    std::string path = (directory / "image").str();
    std::string bytes;
};

} // namespace tolvubd::test
