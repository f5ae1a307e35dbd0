#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace agent::test {

/// The contents of a CoW file as the driver writes it.
struct CowImage {
    std::uint32_t magic = 4776;
    std::uint64_t version = 3;
    std::uint64_t changedBlocks = 7;
    std::vector<std::uint64_t> table = {};

    static constexpr const char* uuid = "00112233-4455-6677-8899-aabbccddeeff";

    [[nodiscard]] std::string bytes() const {
        std::string text(headerArea, 'h');
        put(text, 0, magic);
        for (std::size_t index = 0; index < 16; ++index) {
            text[32 + index] = static_cast<char>(index * 0x11);
        }
        put(text, 48, version);
        put(text, 56, changedBlocks);
        return text + tableBytes(table);
    }

    static std::string tableBytes(const std::vector<std::uint64_t>& entries) {
        std::string text(entries.size() * sizeof(std::uint64_t), '\0');
        for (std::size_t index = 0; index < entries.size(); ++index) {
            put(text, index * sizeof(std::uint64_t), entries[index]);
        }
        return text;
    }

private:
    static constexpr std::size_t headerArea = 4096;

    template <typename Number>
    static void put(std::string& text, std::size_t offset, Number number) {
        for (std::size_t index = 0; index < sizeof(Number); ++index) {
            text[offset + index] = static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * index));
        }
    }
};

} // namespace agent::test
