#include "zephane/wire/Fields.h"

#include "zephane/wire/ProtocolError.h"

#include <bit>
#include <limits>
#include <stdexcept>

namespace zephane::wire {

namespace {

constexpr std::int32_t largestError = 4095; // the largest errno of Linux

bool isCode(std::int32_t value) {
    return value <= 0 && value >= -largestError;
}

} // namespace

std::span<const std::uint8_t> bytesOf(const std::string& text) {
    return {static_cast<const std::uint8_t*>(static_cast<const void*>(text.data())), text.size()};
}

void FieldWriter::bytes(std::span<const std::uint8_t> value) {
    written.insert(written.end(), value.begin(), value.end());
}

void FieldWriter::text(const std::string& value) {
    if (value.size() > std::numeric_limits<std::uint16_t>::max()) {
        throw std::invalid_argument("a text of " + std::to_string(value.size()) + " bytes");
    }
    number(static_cast<std::uint16_t>(value.size()));
    bytes(bytesOf(value));
}

void FieldWriter::code(std::int32_t value) {
    if (!isCode(value)) {
        throw std::invalid_argument(std::to_string(value) + " isn't a code");
    }
    number(std::bit_cast<std::uint32_t>(value));
}

std::span<const std::uint8_t> FieldReader::bytes(std::size_t count) {
    if (count > rest.size()) {
        throw ProtocolError("a message is cut short");
    }
    const auto taken = rest.first(count);
    rest = rest.subspan(count);
    return taken;
}

std::string FieldReader::text() {
    const auto value = bytes(number<std::uint16_t>());
    return {value.begin(), value.end()};
}

std::int32_t FieldReader::code() {
    const auto value = std::bit_cast<std::int32_t>(number<std::uint32_t>());
    if (!isCode(value)) {
        throw ProtocolError(std::to_string(value) + " isn't a code");
    }
    return value;
}

void FieldReader::end() const {
    if (!rest.empty()) {
        throw ProtocolError("a message is too long");
    }
}

} // namespace zephane::wire
