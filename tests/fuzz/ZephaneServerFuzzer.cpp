#include "fuzz/ZephanePeer.h"
#include "zephane/wire/Digests.h"
#include "zephane/wire/Handshake.h"
#include "zephane/wire/Limits.h"
#include "zephane/wire/ProtocolError.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string>

/// The server with an arbitrary client: a client without the secret must not pass, and no invalid request may
/// be accepted.
namespace {

using namespace zephane;
using test::require;

constexpr wire::ChannelBinding channel{1};
const std::string path = "host1/data";

const wire::ProofKey& key() {
    static const wire::ProofKey made("secret");
    return made;
}

std::optional<wire::ProofKey> find(const wire::ImageName& image) {
    return image.path == path ? std::optional(key()) : std::nullopt;
}

/// Whether the server accepts the client.
bool shakeHands(test::ZephanePeer& client) {
    wire::ServerHandshake server(channel);
    const auto hello = client.message();
    const wire::Bytes answer = server.answer(hello, find);
    static_cast<void>(wire::decodeServerHello(answer));
    require(wire::encode(server.asked()) == wire::Bytes(hello.begin(), hello.end()));

    const auto proof = client.message();
    if (!client.holdsSecret()) {
        require(!server.check(proof));
        return false;
    }
    static_cast<void>(wire::decodeClientProof(proof));
    wire::Bytes transcript(hello.begin(), hello.end());
    transcript.insert(transcript.end(), answer.begin(), answer.end());
    const wire::ClientProof right{key().prove(wire::Role::client, transcript, channel)};
    require(server.check(wire::encode(right)) == (server.asked().image.path == path));
    return true;
}

void handle(const wire::FrameReader::Piece& piece) {
    if (piece.kind != wire::FrameKind::digestRequest) {
        return;
    }
    const wire::DigestRequest request = wire::decodeDigestRequest(piece.payload);
    require(request.length > 0 && request.length <= wire::digestRange);
    require(request.offset <= std::numeric_limits<std::uint64_t>::max() - request.length);
    require(std::ranges::equal(wire::encode(request), piece.payload));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::ZephanePeer client({data, size});
    try {
        if (shakeHands(client)) {
            client.readStream(handle);
        }
    } catch (const wire::ProtocolError&) {
        // the server must refuse an untrustworthy client
    }
    return 0;
}
