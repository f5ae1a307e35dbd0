#include "fuzz/ZephanePeer.h"
#include "zephane/wire/Digests.h"
#include "zephane/wire/Handshake.h"
#include "zephane/wire/Limits.h"
#include "zephane/wire/ProtocolError.h"

#include <algorithm>
#include <string>

/// The client with an arbitrary server: a server without the secret must not be believed, and no more may be
/// granted than was requested.
namespace {

using namespace zephane;
using test::require;

constexpr wire::ChannelBinding channel{1};
constexpr std::uint64_t asked = wire::compareFlag | wire::writableFlag;
constexpr std::size_t proofBytes = 32;
const std::string secret = "secret";

wire::ClientHandshake makeClient() {
    wire::ClientHello hello;
    hello.flags = asked;
    hello.image = {"host1/data", 7};
    return {hello, secret, channel};
}

/// The verdict, with the proof of a server that knows the secret if it is a grant.
wire::Bytes proven(std::span<const std::uint8_t> verdict, wire::Bytes transcript) {
    wire::Bytes message(verdict.begin(), verdict.end());
    if (wire::decodeVerdict(verdict).code == 0) {
        transcript.insert(transcript.end(), message.begin(), message.end() - proofBytes);
        std::ranges::copy(wire::ProofKey(secret).prove(wire::Role::server, transcript, channel),
                          message.end() - proofBytes);
    }
    return message;
}

/// Whether the client accepts the server's grant.
bool shakeHands(test::ZephanePeer& server) {
    wire::ClientHandshake client = makeClient();
    wire::Bytes transcript = client.hello();
    const auto hello = server.message();
    const wire::Bytes proof = client.answer(hello);
    transcript.insert(transcript.end(), hello.begin(), hello.end());
    transcript.insert(transcript.end(), proof.begin(), proof.end());

    const auto verdict = server.message();
    if (!server.holdsSecret()) {
        require(client.finish(verdict).code != 0);
        return false;
    }
    const wire::Verdict finished = client.finish(proven(verdict, transcript));
    require((finished.granted & ~asked) == 0);
    require(finished.code == 0 || finished.granted == 0);
    return finished.code == 0;
}

void handle(const wire::FrameReader::Piece& piece) {
    if (piece.kind != wire::FrameKind::digestAnswer) {
        return;
    }
    const wire::DigestAnswer answer = wire::decodeDigestAnswer(piece.payload);
    require(answer.code <= 0 && answer.digests.empty() == (answer.code != 0));
    require(answer.digests.size() <= wire::digestsIn(wire::digestRange));
    require(std::ranges::equal(wire::encode(answer), piece.payload));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::ZephanePeer server({data, size});
    try {
        if (shakeHands(server)) {
            server.readStream(handle);
        }
    } catch (const wire::ProtocolError&) {
        // the client must refuse an untrustworthy server
    }
    return 0;
}
