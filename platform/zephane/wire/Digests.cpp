#include "zephane/wire/Digests.h"

#include "zephane/wire/Fields.h"
#include "zephane/wire/Limits.h"
#include "zephane/wire/ProtocolError.h"
#include "zephane/wire/Sha256.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace zephane::wire {

namespace {

bool isValid(const DigestRequest& request) {
    return request.length > 0 && request.length <= digestRange &&
           request.offset <= std::numeric_limits<std::uint64_t>::max() - request.length;
}

/// An answer has digests if its code is 0, and only then.
bool isValid(const DigestAnswer& answer) {
    return answer.digests.empty() == (answer.code != 0) && answer.digests.size() <= digestsIn(digestRange);
}

} // namespace

std::vector<Digest> digestsOf(std::span<const std::uint8_t> data) {
    const Sha256 sha256;
    std::vector<Digest> digests;
    digests.reserve(digestsIn(data.size()));
    while (!data.empty()) {
        const auto unit = data.first(std::min(digestUnit, data.size()));
        digests.push_back(sha256.of(unit));
        data = data.subspan(unit.size());
    }
    return digests;
}

Bytes encode(const DigestRequest& request) {
    if (!isValid(request)) {
        throw std::invalid_argument("a digest request that can't be");
    }
    FieldWriter writer;
    writer.number(request.offset);
    writer.number(request.length);
    return writer.take();
}

Bytes encode(const DigestAnswer& answer) {
    if (!isValid(answer)) {
        throw std::invalid_argument("a digest answer that can't be");
    }
    FieldWriter writer;
    writer.code(answer.code);
    for (const Digest& digest : answer.digests) {
        writer.bytes(digest);
    }
    return writer.take();
}

DigestRequest decodeDigestRequest(std::span<const std::uint8_t> payload) {
    FieldReader reader(payload);
    DigestRequest request;
    request.offset = reader.number<std::uint64_t>();
    request.length = reader.number<std::uint32_t>();
    reader.end();
    if (!isValid(request)) {
        throw ProtocolError("a digest request that can't be");
    }
    return request;
}

DigestAnswer decodeDigestAnswer(std::span<const std::uint8_t> payload) {
    if (payload.size() > digestAnswerBytes) {
        throw ProtocolError("a digest answer is too long");
    }
    FieldReader reader(payload);
    DigestAnswer answer;
    answer.code = reader.code();
    while (reader.left() > 0) {
        answer.digests.push_back(reader.array<std::tuple_size_v<Digest>>());
    }
    if (!isValid(answer)) {
        throw ProtocolError("a digest answer that can't be");
    }
    return answer;
}

} // namespace zephane::wire
