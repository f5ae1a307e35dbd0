#include "zephane/wire/Frame.h"

#include "zephane/wire/Digests.h"
#include "zephane/wire/Fields.h"
#include "zephane/wire/ProtocolError.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace zephane::wire {

namespace {

constexpr unsigned lengthBits = 24;

bool isValid(std::uint8_t kind, std::size_t payloadBytes) {
    switch (FrameKind{kind}) {
    case FrameKind::nbd:
        return payloadBytes > 0 && payloadBytes <= frameBytes;
    case FrameKind::digestRequest:
        return payloadBytes == digestRequestBytes;
    case FrameKind::digestAnswer:
        return payloadBytes >= digestCodeBytes && payloadBytes <= digestAnswerBytes;
    }
    return false; // an unknown kind
}

std::string describe(std::uint8_t kind, std::size_t payloadBytes) {
    return "a frame of kind " + std::to_string(kind) + " and " + std::to_string(payloadBytes) + " bytes";
}

} // namespace

std::array<std::uint8_t, frameHeadBytes> frameHead(FrameKind kind, std::size_t payloadBytes) {
    const auto kindByte = static_cast<std::uint8_t>(kind);
    if (!isValid(kindByte, payloadBytes)) {
        throw std::invalid_argument(describe(kindByte, payloadBytes));
    }
    return {kindByte, static_cast<std::uint8_t>(payloadBytes >> 16U),
            static_cast<std::uint8_t>(payloadBytes >> 8U), static_cast<std::uint8_t>(payloadBytes)};
}

std::optional<FrameReader::Piece> FrameReader::next(std::span<const std::uint8_t>& input) {
    if (left == 0 && !takeHead(input)) {
        return std::nullopt;
    }
    const auto part = take(input, left);
    left -= part.size();
    if (kind == FrameKind::nbd) {
        return part.empty() ? std::nullopt : std::optional(Piece{kind, part});
    }
    payload.insert(payload.end(), part.begin(), part.end());
    return left > 0 ? std::nullopt : std::optional(Piece{kind, payload});
}

bool FrameReader::takeHead(std::span<const std::uint8_t>& input) {
    const auto part = take(input, head.size() - headFilled);
    std::ranges::copy(part, head.begin() + static_cast<std::ptrdiff_t>(headFilled));
    headFilled += part.size();
    if (headFilled < head.size()) {
        return false;
    }
    const auto number = FieldReader(head).number<std::uint32_t>();
    const auto kindByte = static_cast<std::uint8_t>(number >> lengthBits);
    const std::size_t length = number & ((1U << lengthBits) - 1);
    if (!isValid(kindByte, length)) {
        throw ProtocolError(describe(kindByte, length));
    }
    kind = FrameKind{kindByte};
    left = length;
    headFilled = 0;
    payload.clear();
    return true;
}

std::span<const std::uint8_t> FrameReader::take(std::span<const std::uint8_t>& input, std::size_t most) {
    const auto part = input.first(std::min(most, input.size()));
    input = input.subspan(part.size());
    return part;
}

} // namespace zephane::wire
