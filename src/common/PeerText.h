#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Makes texts from a peer safe to show in the log, on a terminal, or in an answer to the peer.
namespace agent {

/// How many bytes of a peer's text are shown: plenty for people to read, but too few to fill a disk.
inline constexpr std::size_t maxPeerTextBytes = 16UL * 1024;

/// Returns `text` with every control character escaped, as \n, \t, \r or \x1b: on a terminal it can't move
/// the cursor, and in a log it stays one line. This includes the control characters of single-byte encodings.
std::string printable(std::string_view text);

/// If `text` is longer than `maxBytes` bytes, returns its beginning, cut between characters, followed by its
/// length. Otherwise returns it unchanged.
std::string shortened(std::string_view text, std::size_t maxBytes = maxPeerTextBytes);

} // namespace agent
