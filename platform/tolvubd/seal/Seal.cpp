#include "seal/Seal.h"

#include "Failure.h"
#include "FileAccess.h"
#include "JsonFields.h"
#include "seal/Checksum.h"
#include "seal/DirectDevice.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>

namespace tolvubd {

namespace {

using nlohmann::json;

constexpr std::size_t slots = 2;
constexpr std::size_t slotSize = sealSize / slots;
constexpr std::uint64_t magic = 0x314C414553564C54; // "TLVSEAL1"

/// A slot: four little-endian numbers, and the text. The checksum covers everything in the slot after itself.
namespace slot {
constexpr Field magic{0, 8};
constexpr Field checksum{8, 8};
constexpr Field sequence{16, 8};
constexpr Field length{24, 8};
constexpr std::size_t summed = 16;
constexpr std::size_t text = 32;
} // namespace slot

struct Slot {
    std::size_t number = 0;
    std::uint64_t sequence = 0;
    std::string text;
};

constexpr std::array<const char*, 3> ends = {"open", "clean", "broken"};

Seal::End endFrom(const json& name) {
    const auto* const found = std::ranges::find(ends, name.get<std::string>());
    fields::require(found != ends.end(), "end");
    return static_cast<Seal::End>(found - ends.begin());
}

Fingerprint fingerprintFrom(const json& object) {
    return {object.at("kind").get<std::string>(), object.at("mount").get<std::string>(),
            object.at("content").get<std::string>(), object.at("is_clean").get<bool>()};
}

json fromFingerprint(const Fingerprint& fingerprint) {
    return {{"kind", fingerprint.kind},
            {"mount", fingerprint.mount},
            {"content", fingerprint.content},
            {"is_clean", fingerprint.isClean}};
}

std::string textOf(const Seal& seal) {
    json object = {{"end", ends.at(static_cast<std::size_t>(seal.end))},
                   {"start", seal.bootId},
                   {"device", json::parse(writeDevice(seal.device))}};
    if (seal.fingerprint) {
        object["fingerprint"] = fromFingerprint(*seal.fingerprint);
    }
    return object.dump();
}

/// None if the text isn't that of a seal.
std::optional<Seal> sealFrom(const std::string& text) {
    constexpr int deepest = 5;
    try {
        const json object = fields::parse(text, deepest);
        Seal seal{endFrom(object.at("end")),
                  fields::uuid(object, "start"),
                  readDevice(object.at("device").dump()),
                  {}};
        if (object.contains("fingerprint")) {
            seal.fingerprint = fingerprintFrom(object.at("fingerprint"));
        }
        return seal;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<Slot> readSlot(const os::FileDescriptor& device, const std::vector<Extent>& eraFile,
                             std::size_t number) {
    os::AlignedBuffer buffer(slotSize, slotSize);
    const bool isWhole = readPlaces(device, eraFile, number * slotSize, buffer);
    const std::span<const std::byte> bytes(buffer.data(), buffer.size());
    const Fields numbers(std::vector<std::byte>(bytes.begin(), bytes.begin() + slot::text), isWhole);
    const std::uint64_t length = numbers.little(slot::length);
    if (!isWhole || numbers.little(slot::magic) != magic || length > slotSize - slot::text ||
        numbers.little(slot::checksum) != checksumOf(bytes.subspan(slot::summed)) ||
        numbers.little(slot::sequence) == std::numeric_limits<std::uint64_t>::max()) {
        return std::nullopt;
    }
    const std::span<const std::byte> text = bytes.subspan(slot::text, length);
    Slot found{number, numbers.little(slot::sequence), {}};
    std::ranges::transform(text, std::back_inserter(found.text),
                           [](std::byte byte) { return std::to_integer<char>(byte); });
    return found;
}

std::optional<Slot> newestSlot(const os::FileDescriptor& device, const std::vector<Extent>& eraFile) {
    std::optional<Slot> newest;
    for (std::size_t number = 0; number < slots; ++number) {
        std::optional<Slot> found = readSlot(device, eraFile, number);
        if (found && (!newest || found->sequence > newest->sequence)) {
            newest = std::move(found);
        }
    }
    return newest;
}

void put(std::span<std::byte> slot, Field field, std::uint64_t value) {
    constexpr unsigned byteBits = 8;
    for (std::size_t index = 0; index < field.width; ++index) {
        slot[field.offset + index] = static_cast<std::byte>(value >> byteBits * index);
    }
}

} // namespace

void writeSeal(const os::FileDescriptor& device, const std::vector<Extent>& eraFile, const Seal& seal) {
    const std::string text = textOf(seal);
    if (text.size() > slotSize - slot::text) {
        fail(EFBIG, "the seal");
    }
    const std::optional<Slot> before = newestSlot(device, eraFile);
    os::AlignedBuffer buffer(slotSize, slotSize);
    const std::span<std::byte> bytes(buffer.data(), buffer.size());
    put(bytes, slot::magic, magic);
    put(bytes, slot::sequence, before ? before->sequence + 1 : 1);
    put(bytes, slot::length, text.size());
    std::ranges::copy(std::as_bytes(std::span(text)), bytes.subspan(slot::text).begin());
    put(bytes, slot::checksum, checksumOf(bytes.subspan(slot::summed)));
    writePlaces(device, eraFile, before ? (before->number + 1) % slots * slotSize : 0, buffer);
}

std::optional<Seal> readSeal(const os::FileDescriptor& device, const std::vector<Extent>& eraFile,
                             const std::string& id) {
    const std::optional<Slot> newest = newestSlot(device, eraFile);
    std::optional<Seal> seal = newest ? sealFrom(newest->text) : std::nullopt;
    return seal && seal->device.layers && seal->device.layers->id == id ? seal : std::nullopt;
}

std::string currentBootId() {
    std::string name = readToEnd("/proc/sys/kernel/random/boot_id");
    while (name.ends_with('\n')) {
        name.pop_back();
    }
    return name;
}

} // namespace tolvubd
