#include "zephane/wire/Handshake.h"

#include "zephane/wire/ProtocolError.h"

#include <stdexcept>
#include <utility>

namespace zephane::wire {

namespace {

void append(Bytes& transcript, std::span<const std::uint8_t> message) {
    transcript.insert(transcript.end(), message.begin(), message.end());
}

/// The data that the server's proof covers: all messages, and the verdict without the proof at its end.
Bytes withVerdict(Bytes transcript, std::span<const std::uint8_t> verdict) {
    append(transcript, verdict.first(verdict.size() - std::tuple_size_v<Proof>));
    return transcript;
}

ClientHello withNonce(ClientHello hello) {
    fillRandomly(hello.nonce);
    return hello;
}

} // namespace

ClientHandshake::ClientHandshake(ClientHello hello, const std::string& secret, const ChannelBinding& channel)
    : helloMessage(encode(withNonce(std::move(hello)))),
      asked(decodeClientHello(helloMessage).flags),
      key(secret),
      channel(channel),
      transcript(helloMessage) {}

Bytes ClientHandshake::answer(std::span<const std::uint8_t> serverHello) {
    decodeServerHello(serverHello);
    append(transcript, serverHello);
    Bytes proof = encode(ClientProof{key.prove(Role::client, transcript, channel)});
    append(transcript, proof);
    return proof;
}

Verdict ClientHandshake::finish(std::span<const std::uint8_t> verdict) {
    Verdict decoded = decodeVerdict(verdict);
    if (decoded.code != 0) {
        return decoded;
    }
    if (!areEqual(decoded.proof, key.prove(Role::server, withVerdict(transcript, verdict), channel))) {
        throw ProtocolError(
            "the server doesn't hold the secret, or isn't at the other end of the connection");
    }
    if ((decoded.granted & ~asked) != 0) {
        throw ProtocolError("the server grants more than it was asked for");
    }
    return decoded;
}

Bytes ServerHandshake::answer(std::span<const std::uint8_t> clientHello, const FindKey& find) {
    hello = decodeClientHello(clientHello);
    const ProofKey decoy = ProofKey::random();
    key = find(hello.image).value_or(decoy);
    ServerHello reply;
    fillRandomly(reply.nonce);
    Bytes message = encode(reply);
    append(transcript, clientHello);
    append(transcript, message);
    return message;
}

bool ServerHandshake::check(std::span<const std::uint8_t> clientProof) {
    const ClientProof claimed = decodeClientProof(clientProof);
    if (!key) {
        throw std::logic_error("a proof comes after the hello");
    }
    isProven = areEqual(claimed.proof, key->prove(Role::client, transcript, channel));
    append(transcript, clientProof);
    return isProven;
}

Bytes ServerHandshake::grant(std::uint64_t flags) {
    if (!isProven || (flags & ~hello.flags) != 0) {
        throw std::logic_error("nothing is granted but to who has proven itself, and what it has asked for");
    }
    Verdict verdict{0, {}, flags, {}};
    verdict.proof = key->prove(Role::server, withVerdict(transcript, encode(verdict)), channel);
    return encode(verdict);
}

Bytes ServerHandshake::refuse(std::int32_t code, const std::string& text) {
    if (code == 0) {
        throw std::invalid_argument("a refusal has a code");
    }
    return encode(Verdict{code, text, 0, {}});
}

} // namespace zephane::wire
