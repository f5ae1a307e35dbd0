#include "zephane/wire/Hello.h"

#include "zephane/wire/Fields.h"
#include "zephane/wire/Limits.h"
#include "zephane/wire/PlainText.h"
#include "zephane/wire/ProtocolError.h"

#include <algorithm>
#include <stdexcept>

namespace zephane::wire {

namespace {

/// The beginning of a hello; the last byte is the version.
constexpr std::array<std::uint8_t, 8> mark{'Z', 'E', 'P', 'H', 'A', 'N', 'E', 1};
constexpr std::size_t lengthBytes = 2;
constexpr std::uint64_t allFlags = compareFlag | compressionFlag | writableFlag;

bool isValid(const ClientHello& hello) {
    return (hello.flags & ~allFlags) == 0 && !hello.image.path.empty() &&
           hello.image.path.size() <= longestPath && isPlainText(hello.image.path);
}

/// A body, preceded by its length.
Bytes messageOf(const Bytes& body) {
    if (body.size() > messageBytes - lengthBytes) {
        throw std::invalid_argument("a message is too long");
    }
    FieldWriter message;
    message.number(static_cast<std::uint16_t>(body.size()));
    message.bytes(body);
    return message.take();
}

/// The body of a message, whose length field must be right.
FieldReader bodyOf(std::span<const std::uint8_t> message) {
    if (message.size() < lengthBytes || sizeOfMessage(message.first<lengthBytes>()) != message.size()) {
        throw ProtocolError("a message has another length than it says");
    }
    return FieldReader(message.subspan(lengthBytes));
}

void readMark(FieldReader& reader) {
    if (!std::ranges::equal(reader.bytes(mark.size()), mark)) {
        throw ProtocolError("the other end speaks another protocol or another version of it");
    }
}

} // namespace

Bytes encode(const ClientHello& hello) {
    if (!isValid(hello)) {
        throw std::invalid_argument("a path or flags that can't be");
    }
    FieldWriter body;
    body.bytes(mark);
    body.number(hello.flags);
    body.number(hello.image.volumeId);
    body.bytes(hello.client);
    body.bytes(hello.nonce);
    body.text(hello.image.path);
    return messageOf(body.take());
}

Bytes encode(const ServerHello& hello) {
    FieldWriter body;
    body.bytes(mark);
    body.bytes(hello.nonce);
    return messageOf(body.take());
}

Bytes encode(const ClientProof& proof) {
    FieldWriter body;
    body.bytes(proof.proof);
    return messageOf(body.take());
}

Bytes encode(const Verdict& verdict) {
    if (!isPlainText(verdict.text)) {
        throw std::invalid_argument("a text with control characters");
    }
    FieldWriter body;
    body.code(verdict.code);
    if (verdict.code == 0) {
        body.number(verdict.granted);
        body.bytes(verdict.proof);
    } else {
        body.text(verdict.text);
    }
    return messageOf(body.take());
}

std::size_t sizeOfMessage(std::span<const std::uint8_t, 2> head) {
    const std::size_t size = lengthBytes + FieldReader(head).number<std::uint16_t>();
    if (size > messageBytes) {
        throw ProtocolError("a message of " + std::to_string(size) + " bytes");
    }
    return size;
}

ClientHello decodeClientHello(std::span<const std::uint8_t> message) {
    FieldReader body = bodyOf(message);
    readMark(body);
    ClientHello hello;
    hello.flags = body.number<std::uint64_t>();
    hello.image.volumeId = body.number<std::uint64_t>();
    hello.client = body.array<std::tuple_size_v<ClientId>>();
    hello.nonce = body.array<std::tuple_size_v<Nonce>>();
    hello.image.path = body.text();
    body.end();
    if (!isValid(hello)) {
        throw ProtocolError("a hello has a path or flags that can't be");
    }
    return hello;
}

ServerHello decodeServerHello(std::span<const std::uint8_t> message) {
    FieldReader body = bodyOf(message);
    readMark(body);
    const ServerHello hello{body.array<std::tuple_size_v<Nonce>>()};
    body.end();
    return hello;
}

ClientProof decodeClientProof(std::span<const std::uint8_t> message) {
    FieldReader body = bodyOf(message);
    const ClientProof proof{body.array<std::tuple_size_v<Proof>>()};
    body.end();
    return proof;
}

Verdict decodeVerdict(std::span<const std::uint8_t> message) {
    FieldReader body = bodyOf(message);
    Verdict verdict;
    verdict.code = body.code();
    if (verdict.code == 0) {
        verdict.granted = body.number<std::uint64_t>();
        verdict.proof = body.array<std::tuple_size_v<Proof>>();
    } else {
        verdict.text = body.text();
    }
    body.end();
    if (!isPlainText(verdict.text)) {
        throw ProtocolError("a refusal with control characters");
    }
    return verdict;
}

} // namespace zephane::wire
