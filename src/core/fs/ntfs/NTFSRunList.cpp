#include "core/fs/ntfs/NTFSRunList.h"

#include "core/fs/ntfs/NTFSLayout.h"
#include "info/log/Reason.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <stdexcept>

namespace agent::core::fs {

namespace {

namespace layout = ntfs_layout::attribute;

constexpr const char* runWithoutLength = "NTFS: A run of clusters has no length.";
constexpr const char* numberTooLarge = "NTFS: A number in a run list is too large.";
constexpr const char* runsIntoTheEnd = "NTFS: A run list goes on behind its end.";

/// Decodes a signed little-endian number; nullopt if it needs more than 64 bits.
std::optional<std::int64_t> signedNumber(Bytes bytes) {
    constexpr std::size_t wordSize = sizeof(std::uint64_t);
    const bool isNegative = (bytes.back() & 0x80U) != 0;
    std::uint64_t value = isNegative ? UINT64_MAX : 0;
    for (std::size_t i = std::min(bytes.size(), wordSize); i-- > 0;) {
        value = value << 8U | bytes[i];
    }
    const Bytes rest = bytes.subspan(std::min(bytes.size(), wordSize));
    const std::uint8_t extension = isNegative ? 0xFF : 0;
    const auto number = static_cast<std::int64_t>(value);
    const bool fits = std::ranges::all_of(rest, [extension](std::uint8_t byte) { return byte == extension; });
    return fits && (number < 0) == isNegative ? std::optional(number) : std::nullopt;
}

std::optional<std::int64_t> sum(std::int64_t first, std::optional<std::int64_t> second) {
    std::int64_t result = 0;
    if (!second || __builtin_add_overflow(first, *second, &result)) {
        return std::nullopt;
    }
    return result;
}

/// An element of a run list: a byte with the widths of two numbers, followed by these numbers.
struct Element {
    Element(Bytes attribute, std::size_t position)
        : attribute(attribute),
          position(position),
          lengthBytes(attribute[position] & 0xFU),
          offsetBytes(attribute[position] >> 4U) {}

    [[nodiscard]] bool hasLength() const { return lengthBytes > 0; }
    [[nodiscard]] bool hasPlace() const { return offsetBytes > 0; }
    [[nodiscard]] std::size_t last() const { return position + lengthBytes + offsetBytes; }

    [[nodiscard]] std::optional<std::int64_t> length() const {
        return signedNumber(attribute.subspan(position + 1, lengthBytes));
    }
    [[nodiscard]] std::optional<std::int64_t> offset() const {
        return hasPlace() ? signedNumber(attribute.subspan(position + 1 + lengthBytes, offsetBytes))
                          : std::optional<std::int64_t>(0);
    }

    /// Throws unless both numbers end within the attribute. One byte past it is allowed here; `append`
    /// refuses that.
    void requireBounds() const {
        if (position + lengthBytes > attribute.size()) {
            throw info::WithReason<std::runtime_error>(info::reason("file-system-broken"), "Invalid runlist");
        }
        if (last() > attribute.size()) {
            throw info::WithReason<std::runtime_error>(info::reason("file-system-broken"), "Corrupt runlist");
        }
    }

    Bytes attribute;
    std::size_t position;
    std::size_t lengthBytes;
    std::size_t offsetBytes;
};

/// Appends the run of `element`. Returns the reason if the list can't be decoded further, or null.
const char* append(NTFSRunList& list, const Element& element) {
    if (element.last() == element.attribute.size()) {
        return runsIntoTheEnd;
    }
    const std::optional<std::int64_t> length = element.length();
    const std::optional<std::int64_t> lcn =
        sum(list.runs.empty() ? 0 : list.runs.back().lcn, element.offset());
    if (!length || !lcn) {
        return numberTooLarge;
    }
    list.runs.push_back({*lcn, *length, !element.hasPlace()});
    if (*length <= 0) {
        list.whyUnusable = runWithoutLength;
    }
    return nullptr;
}

} // namespace

/// Decodes elements until a zero byte or the attribute's end. A run without a length makes the list
/// unreliable, but the decoding goes on.
NTFSRunList decodeRunList(const NTFSAttribute& attribute) {
    const std::size_t limit = attribute.bytes.size();
    std::size_t position = attribute.runListOffset();
    if (position > limit) {
        throw info::WithReason<std::runtime_error>(info::reason("file-system-broken"),
                                                   "No run list can be found");
    }
    NTFSRunList list;
    while (position < limit && attribute.bytes[position] != 0) {
        const Element element(attribute.bytes, position);
        if (!element.hasLength()) {
            list.whyUnusable = runWithoutLength;
        } else {
            element.requireBounds();
            if (const char* reason = append(list, element)) {
                list.whyUnusable = reason;
                return list;
            }
        }
        position = element.last() + 1;
    }
    return list;
}

NTFSRunList runsOf(const NTFSAttribute& attribute) {
    if (attribute.type() != layout::typeData) {
        throw std::runtime_error("Attribute type is not DATA.");
    }
    if (attribute.isResident()) {
        throw info::WithReason<std::runtime_error>(info::reason("file-system-broken"),
                                                   "Attribute is resident. Can't find data-runs.");
    }
    return decodeRunList(attribute);
}

} // namespace agent::core::fs
