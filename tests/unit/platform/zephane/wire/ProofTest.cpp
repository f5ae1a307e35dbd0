#include "zephane/wire/Proof.h"

#include "zephane/wire/Fields.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace zephane::wire {
namespace {

const std::string transcript = "transcript";

/// The bytes 0, 1, 2…
ChannelBinding channel() {
    ChannelBinding binding{};
    std::iota(binding.begin(), binding.end(), std::uint8_t{0});
    return binding;
}

std::string hex(const Proof& proof) {
    std::ostringstream text;
    for (const unsigned byte : proof) {
        text << std::hex << std::setw(2) << std::setfill('0') << byte;
    }
    return text.str();
}

Proof proofOf(const std::string& secret, Role role = Role::client) {
    return ProofKey(secret).prove(role, bytesOf(transcript), channel());
}

// python3 -c 'import hmac
// from hashlib import sha256
// mac = lambda key, data: hmac.new(key, data, sha256).digest()
// key = mac(mac(b"zephane 1", b"secret"), b"proof\x01")
// for role in (b"client", b"server"):
//     print(mac(key, role + b"\0" + sha256(b"transcript").digest() + bytes(range(32))).hex())'
TEST(ProofTest, IsWhatThePageSays) {
    EXPECT_EQ(hex(proofOf("secret", Role::client)),
              "99ee15c817bcb8a4874b25246523ab902e0b29a2ace902fdbe3daceb13beec40");
    EXPECT_EQ(hex(proofOf("secret", Role::server)),
              "974f55739e64ab0bd131c6c0c7f3b21980c194a2d78c1e59e035cf0041070832");
}

TEST(ProofTest, DependsOnEachPart) {
    const ProofKey key("secret");
    const Proof proof = proofOf("secret");
    ChannelBinding other = channel();
    other.back() ^= 1U;
    EXPECT_NE(proof, proofOf("secret "));
    EXPECT_NE(proof, key.prove(Role::client, bytesOf("Transcript"), channel()));
    EXPECT_NE(proof, key.prove(Role::client, {}, channel()));
    EXPECT_NE(proof, key.prove(Role::client, bytesOf(transcript), other));
}

TEST(ProofTest, TakesSecretsOfAnyLengthAndBytes) {
    const std::string zeros(3, '\0');
    EXPECT_NE(proofOf(zeros), proofOf(zeros + '\0'));
    EXPECT_NE(proofOf(std::string(1 << 20U, 'x')), proofOf(std::string((1 << 20U) - 1, 'x')));
}

TEST(ProofTest, RefusesAnEmptySecret) {
    EXPECT_THROW(ProofKey(""), std::invalid_argument);
}

TEST(ProofTest, ARandomKeyIsNobodys) {
    EXPECT_NE(ProofKey::random().prove(Role::client, {}, channel()),
              ProofKey::random().prove(Role::client, {}, channel()));
}

TEST(ProofTest, ComparesAllBytes) {
    const Proof proof = proofOf("secret");
    EXPECT_TRUE(areEqual(proof, proofOf("secret")));
    for (std::size_t i = 0; i < proof.size(); ++i) {
        Proof other = proof;
        other.at(i) ^= 0x80U;
        EXPECT_FALSE(areEqual(proof, other)) << i;
    }
}

TEST(ProofTest, FillsAllBytesRandomly) {
    std::vector<std::uint8_t> one(4096);
    std::vector<std::uint8_t> other(4096);
    fillRandomly(one);
    fillRandomly(other);
    EXPECT_NE(one, other);
    EXPECT_LT(std::ranges::count(one, 0), 100); // 16 are expected
    fillRandomly({});
}

} // namespace
} // namespace zephane::wire
