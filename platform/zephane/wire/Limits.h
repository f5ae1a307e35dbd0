#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// What both ends hold each other to. docs/formats/zephane.md says why.
namespace zephane::wire {

constexpr std::size_t mebibyte = std::size_t{1} << 20;

/// The largest message of the handshake, with its length; bytes.
constexpr std::size_t messageBytes = 4096;
constexpr std::size_t longestPath = 1024; ///< bytes
/// From the accepted connection to the end of the handshake.
constexpr std::chrono::seconds handshakeTime{10};
/// For each answer, and for what is sent to be taken.
constexpr std::chrono::seconds answerTime{60};
/// The largest read, write or hole that is asked for with one request; bytes.
constexpr std::size_t requestBytes = 32 * mebibyte;
/// The largest payload of one frame; bytes.
constexpr std::size_t frameBytes = mebibyte / 4;
/// What one digest is of; bytes.
constexpr std::size_t digestUnit = mebibyte / 16;
/// The largest range whose digests are asked for with one request; bytes.
constexpr std::size_t digestRange = 4 * mebibyte;
/// The largest window of a compressed stream is 2 to this power; bytes.
constexpr int windowLog = 23;

/// The flags of a client, and of what it is granted.
constexpr std::uint64_t compareFlag = 1;     ///< leave out writes that would change nothing
constexpr std::uint64_t compressionFlag = 2; ///< compress both directions
constexpr std::uint64_t writableFlag = 8;

} // namespace zephane::wire
