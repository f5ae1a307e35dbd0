#include "zephane/wire/Handshake.h"

#include "zephane/wire/Limits.h"
#include "zephane/wire/ProtocolError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zephane::wire {
namespace {

const std::string secret = "the secret of an image";
const std::string otherSecret = "the secret of another one";
const ImageName image{"host1/data", 7};
const ImageName otherImage{"host2/data", 7};
const ImageName noImage{"host1/data", 8};
constexpr std::uint64_t flags = compareFlag | writableFlag;
constexpr std::size_t grantedAt = 6; // after the length and the code
constexpr std::size_t proofBytes = 32;

/// The channel bindings of two TLS connections.
constexpr ChannelBinding channel{1, 2, 3};
constexpr ChannelBinding otherChannel{1, 2, 4};

/// The server's lookup: it knows two images.
std::optional<ProofKey> find(const ImageName& name) {
    static const std::map<ImageName, ProofKey> keys{{image, ProofKey(secret)},
                                                    {otherImage, ProofKey(otherSecret)}};
    const auto found = keys.find(name);
    return found == keys.end() ? std::nullopt : std::optional(found->second);
}

ClientHandshake clientOf(const ImageName& name, const std::string& itsSecret,
                         const ChannelBinding& binding = channel) {
    ClientHello hello;
    hello.flags = flags;
    hello.image = name;
    return {hello, itsSecret, binding};
}

/// An attacker between the two ends, who may change any message. Messages are numbered from 0.
using Attacker = std::function<void(std::size_t number, Bytes& message)>;

void doNothing(std::size_t /*number*/, Bytes& /*message*/) {}

/// Performs a whole handshake. Returns the client's result, or std::nullopt if either end has disconnected.
std::optional<Verdict> converse(ClientHandshake client, ServerHandshake server,
                                const Attacker& attack = doNothing) {
    try {
        Bytes message = client.hello();
        attack(0, message);
        message = server.answer(message, find);
        attack(1, message);
        message = client.answer(message);
        attack(2, message);
        message = server.check(message) ? server.grant(server.asked().flags)
                                        : ServerHandshake::refuse(-EACCES, "no");
        attack(3, message);
        return client.finish(message);
    } catch (const ProtocolError&) {
        return std::nullopt;
    }
}

bool isGranted(const std::optional<Verdict>& verdict) {
    return verdict && verdict->code == 0;
}

bool isGranted(ClientHandshake client, const Attacker& attack = doNothing) {
    return isGranted(converse(std::move(client), ServerHandshake(channel), attack));
}

/// The messages of a handshake without an attacker.
std::vector<Bytes> honestMessages() {
    std::vector<Bytes> messages;
    EXPECT_TRUE(isGranted(clientOf(image, secret),
                          [&](std::size_t, Bytes& message) { messages.push_back(message); }));
    return messages;
}

/// Whether the server accepts that the client knows the secret.
bool isProven(ClientHandshake& client, ServerHandshake& server) {
    return server.check(client.answer(server.answer(client.hello(), find)));
}

/// The last message of a server that knows the secret but violates the protocol.
Bytes verdictOf(const Bytes& transcript, std::uint64_t granted, Role role = Role::server,
                const ChannelBinding& binding = channel) {
    Bytes verdict = encode(Verdict{0, {}, granted, {}});
    Bytes proven = transcript;
    proven.insert(proven.end(), verdict.begin(), verdict.end() - proofBytes);
    return encode(Verdict{0, {}, granted, ProofKey(secret).prove(role, proven, binding)});
}

/// A client that has sent its proof, and all messages so far.
class ProvingClient {
public:
    ProvingClient() {
        ServerHandshake server(channel);
        const Bytes hello = server.answer(client.hello(), find);
        proof = client.answer(hello);
        transcript = client.hello();
        transcript.insert(transcript.end(), hello.begin(), hello.end());
        transcript.insert(transcript.end(), proof.begin(), proof.end());
    }

    ClientHandshake client = clientOf(image, secret);
    Bytes proof;
    Bytes transcript;
};

TEST(HandshakeTest, ProvesBothEnds) {
    const auto verdict = converse(clientOf(image, secret), ServerHandshake(channel));
    ASSERT_TRUE(verdict);
    EXPECT_EQ(verdict->code, 0);
    EXPECT_EQ(verdict->granted, flags);
    EXPECT_TRUE(isGranted(clientOf(otherImage, otherSecret)));
}

TEST(HandshakeTest, TellsWhatIsAskedFor) {
    ClientHello hello;
    hello.flags = flags;
    hello.image = image;
    hello.client.fill(9);
    ClientHandshake client(hello, secret, channel);
    ServerHandshake server(channel);
    EXPECT_TRUE(isProven(client, server));
    EXPECT_EQ(server.asked().image, image);
    EXPECT_EQ(server.asked().flags, flags);
    EXPECT_EQ(server.asked().client, hello.client);
    EXPECT_EQ(client.finish(server.grant(writableFlag)).granted, writableFlag);
}

TEST(HandshakeTest, IsNeverTheSameTwice) {
    const std::vector<Bytes> one = honestMessages();
    const std::vector<Bytes> other = honestMessages();
    for (std::size_t number = 0; number < one.size(); ++number) {
        EXPECT_NE(one.at(number), other.at(number)) << number;
    }
}

TEST(HandshakeTest, TellsWhyItIsRefused) {
    const auto refused = converse(clientOf(image, otherSecret), ServerHandshake(channel));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, -EACCES);
    EXPECT_EQ(refused->text, "no");
    EXPECT_EQ(refused->granted, 0U);
}

TEST(HandshakeTest, RefusesTheSecretsOfOtherImages) {
    EXPECT_FALSE(isGranted(clientOf(image, otherSecret)));
    EXPECT_FALSE(isGranted(clientOf(otherImage, secret)));
    EXPECT_FALSE(isGranted(clientOf(image, secret + " ")));
    EXPECT_FALSE(isGranted(clientOf(noImage, secret)));
}

TEST(HandshakeTest, NeedsASecretAndAPath) {
    EXPECT_THROW(clientOf(image, ""), std::invalid_argument);
    EXPECT_THROW(clientOf({"", 7}, secret), std::invalid_argument);
    EXPECT_THROW(clientOf({"a\nb", 7}, secret), std::invalid_argument);
    ClientHello hello;
    hello.image = image;
    hello.flags = 4;
    EXPECT_THROW(ClientHandshake(hello, secret, channel), std::invalid_argument);
}

TEST(HandshakeTest, IsWorthNothingOverAnotherChannel) {
    EXPECT_FALSE(isGranted(clientOf(image, secret, otherChannel)));
    ProvingClient proving;
    EXPECT_THROW(proving.client.finish(verdictOf(proving.transcript, flags, Role::server, otherChannel)),
                 ProtocolError);
    EXPECT_EQ(proving.client.finish(verdictOf(proving.transcript, flags)).code, 0);
}

TEST(HandshakeTest, CannotBePlayedAgain) {
    ClientHandshake client = clientOf(image, secret);
    ServerHandshake first(channel);
    const Bytes proof = client.answer(first.answer(client.hello(), find));
    ASSERT_TRUE(first.check(proof));

    ServerHandshake second(channel);
    second.answer(client.hello(), find);
    EXPECT_FALSE(second.check(proof));
    EXPECT_THROW(second.grant(flags), std::logic_error);
}

TEST(HandshakeTest, DoesNotTakeAnOldVerdict) {
    const Bytes verdict = honestMessages().at(3);
    ProvingClient proving;
    EXPECT_THROW(proving.client.finish(verdict), ProtocolError);
}

TEST(HandshakeTest, DoesNotTakeTheClientsProofForTheServers) {
    ProvingClient proving;
    Verdict verdict{0, {}, flags, {}};
    std::copy(proving.proof.end() - proofBytes, proving.proof.end(), verdict.proof.begin());
    EXPECT_THROW(proving.client.finish(encode(verdict)), ProtocolError);
    EXPECT_THROW(proving.client.finish(verdictOf(proving.transcript, flags, Role::client)), ProtocolError);
}

TEST(HandshakeTest, DoesNotTakeTheServersProofForTheClients) {
    ClientHandshake client = clientOf(image, secret);
    ServerHandshake server(channel);
    Bytes transcript = client.hello();
    const Bytes hello = server.answer(transcript, find);
    transcript.insert(transcript.end(), hello.begin(), hello.end());
    EXPECT_FALSE(
        server.check(encode(ClientProof{ProofKey(secret).prove(Role::server, transcript, channel)})));
}

TEST(HandshakeTest, SuffersNoFlippedBit) {
    const std::vector<Bytes> messages = honestMessages();
    for (std::size_t number = 0; number < messages.size(); ++number) {
        for (std::size_t bit = 0; bit < messages.at(number).size() * 8; ++bit) {
            const auto flip = [&](std::size_t current, Bytes& message) {
                if (current == number) {
                    message.at(bit / 8) ^= static_cast<std::uint8_t>(1U << (bit % 8));
                }
            };
            EXPECT_FALSE(isGranted(clientOf(image, secret), flip)) << "message " << number << ", bit " << bit;
        }
    }
}

TEST(HandshakeTest, SuffersNoCut) {
    const std::vector<Bytes> messages = honestMessages();
    for (std::size_t number = 0; number < messages.size(); ++number) {
        for (std::size_t length = 0; length < messages.at(number).size(); ++length) {
            const auto cut = [&](std::size_t current, Bytes& message) {
                if (current == number) {
                    message.resize(length);
                }
            };
            EXPECT_FALSE(isGranted(clientOf(image, secret), cut))
                << "message " << number << ", " << length << " bytes";
        }
    }
}

TEST(HandshakeTest, ARefusalNeverBecomesAGrant) {
    const Bytes refusal = ServerHandshake::refuse(-EACCES, std::string(34, 'x')); // as long as a grant
    for (std::size_t bit = 0; bit < refusal.size() * 8; ++bit) {
        const auto flip = [&](std::size_t number, Bytes& message) {
            if (number == 3) {
                message = refusal;
                message.at(bit / 8) ^= static_cast<std::uint8_t>(1U << (bit % 8));
            }
        };
        EXPECT_FALSE(isGranted(clientOf(image, secret), flip)) << bit;
    }
}

TEST(HandshakeTest, NoFlagCanBeTakenAwayOrAdded) {
    for (const std::uint64_t other : {std::uint64_t{0}, writableFlag, flags | compressionFlag}) {
        const auto changeWhatIsAsked = [&](std::size_t number, Bytes& message) {
            if (number == 0) {
                ClientHello hello = decodeClientHello(message);
                hello.flags = other;
                message = encode(hello);
            }
        };
        const auto changeWhatIsGranted = [&](std::size_t number, Bytes& message) {
            if (number == 3) {
                message.at(grantedAt + 7) = static_cast<std::uint8_t>(other);
            }
        };
        EXPECT_FALSE(isGranted(clientOf(image, secret), changeWhatIsAsked)) << other;
        EXPECT_FALSE(isGranted(clientOf(image, secret), changeWhatIsGranted)) << other;
    }
}

TEST(HandshakeTest, AnotherImageCannotBePutInItsPlace) {
    const auto change = [](std::size_t number, Bytes& message) {
        if (number == 0) {
            ClientHello hello = decodeClientHello(message);
            hello.image = otherImage;
            message = encode(hello);
        }
    };
    EXPECT_FALSE(isGranted(clientOf(image, secret), change));
    EXPECT_FALSE(isGranted(clientOf(image, otherSecret), change)) << "not even with the secret of that one";
}

TEST(HandshakeTest, TheClientIsGrantedNoMoreThanItAskedFor) {
    ProvingClient proving;
    EXPECT_EQ(proving.client.finish(verdictOf(proving.transcript, 0)).granted, 0U);
    EXPECT_EQ(proving.client.finish(verdictOf(proving.transcript, writableFlag)).granted, writableFlag);
    EXPECT_THROW(proving.client.finish(verdictOf(proving.transcript, flags | compressionFlag)),
                 ProtocolError);
    EXPECT_THROW(proving.client.finish(verdictOf(proving.transcript, flags | 1ULL << 63U)), ProtocolError);
}

TEST(HandshakeTest, TheServerGrantsNothingBeforeAProof) {
    ServerHandshake server(channel);
    EXPECT_THROW(server.grant(0), std::logic_error);
    EXPECT_THROW((void)server.check(encode(ClientProof{})), std::logic_error);
    ClientHandshake client = clientOf(image, secret);
    const Bytes proof = client.answer(server.answer(client.hello(), find));
    EXPECT_THROW(server.grant(0), std::logic_error);
    ASSERT_TRUE(server.check(proof));
    EXPECT_THROW(server.grant(flags | compressionFlag), std::logic_error);
    EXPECT_NO_THROW(server.grant(flags));
}

TEST(HandshakeTest, AProofHoldsOnce) {
    ClientHandshake client = clientOf(image, secret);
    ServerHandshake server(channel);
    const Bytes proof = client.answer(server.answer(client.hello(), find));
    EXPECT_TRUE(server.check(proof));
    EXPECT_FALSE(server.check(proof));
    EXPECT_THROW(server.grant(flags), std::logic_error);
}

TEST(HandshakeTest, ARefusalHasACode) {
    EXPECT_THROW(ServerHandshake::refuse(0, "fine"), std::invalid_argument);
    EXPECT_THROW(ServerHandshake::refuse(EACCES, "no"), std::invalid_argument);
}

/// The shortest time that the server needs for a client. Longer times are due to the machine's load.
std::chrono::nanoseconds shortestTime(const ImageName& name, const std::string& itsSecret) {
    auto shortest = std::chrono::nanoseconds::max();
    for (int i = 0; i < 300; ++i) {
        ClientHandshake client = clientOf(name, itsSecret);
        ServerHandshake server(channel);
        const auto begin = std::chrono::steady_clock::now();
        const Bytes hello = server.answer(client.hello(), find);
        const auto answered = std::chrono::steady_clock::now() - begin;
        const Bytes proof = client.answer(hello);
        const auto checking = std::chrono::steady_clock::now();
        EXPECT_FALSE(server.check(proof));
        shortest = std::min(shortest, answered + (std::chrono::steady_clock::now() - checking));
    }
    return shortest;
}

TEST(HandshakeTest, AnUnknownImageLooksLikeAWrongSecret) {
    ClientHandshake wrong = clientOf(image, otherSecret);
    ClientHandshake unknown = clientOf(noImage, secret);
    ServerHandshake first(channel);
    ServerHandshake second(channel);
    const Bytes toWrong = first.answer(wrong.hello(), find);
    const Bytes toUnknown = second.answer(unknown.hello(), find);
    EXPECT_EQ(toWrong.size(), toUnknown.size());
    EXPECT_TRUE(std::equal(toWrong.begin(), toWrong.end() - proofBytes, toUnknown.begin()))
        << "up to the nonce";
    EXPECT_FALSE(first.check(wrong.answer(toWrong)));
    EXPECT_FALSE(second.check(unknown.answer(toUnknown)));
}

TEST(HandshakeTest, AnUnknownImageTakesTheTimeOfAWrongSecret) {
    const auto wrong = shortestTime(image, otherSecret);
    const auto unknown = shortestTime(noImage, secret);
    EXPECT_LT(wrong, unknown * 3 / 2);
    EXPECT_LT(unknown, wrong * 3 / 2);
}

} // namespace
} // namespace zephane::wire
