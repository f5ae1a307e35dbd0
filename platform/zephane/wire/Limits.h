#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// The limits that both ends enforce. docs/formats/zephane.md gives the reasons.
namespace zephane::wire {

constexpr std::size_t mebibyte = std::size_t{1} << 20;

/// The size of the largest message of the handshake, including its length field; bytes.
constexpr std::size_t messageBytes = 4096;
constexpr std::size_t longestPath = 1024; ///< bytes
/// The time limit from the accepted connection to the end of the handshake.
constexpr std::chrono::seconds handshakeTime{10};
/// The time limit for each answer, and for the other end to accept what is sent.
constexpr std::chrono::seconds answerTime{60};
/// The largest read, write or hole in one request; bytes.
constexpr std::size_t requestBytes = 32 * mebibyte;
/// The largest payload of one frame; bytes.
constexpr std::size_t frameBytes = mebibyte / 4;
/// The amount of data that one digest covers; bytes.
constexpr std::size_t digestUnit = mebibyte / 16;
/// The largest range in one digest request; bytes.
constexpr std::size_t digestRange = 4 * mebibyte;
/// The base-2 logarithm of the largest window of a compressed stream, in bytes.
constexpr int windowLog = 23;

/// The flags that a client asks for and a server grants.
constexpr std::uint64_t compareFlag = 1;     ///< leave out writes that would change nothing
constexpr std::uint64_t compressionFlag = 2; ///< compress both directions
constexpr std::uint64_t writableFlag = 8;

} // namespace zephane::wire
