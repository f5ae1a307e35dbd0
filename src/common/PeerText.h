#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Texts that somebody else has sent, on their way into the log, to a terminal or back to the sender.
namespace agent {

/// What is shown of a peer's text, in bytes: plenty for people, and nothing that fills a disk.
inline constexpr std::size_t longestPeerText = 16UL * 1024;

/// The text with every control character written out, as \n, \t, \r or \x1b: shown on a terminal it
/// can't move the cursor, and in a log it stays one line. That goes for those of UTF-8 and those of single
/// bytes.
std::string printable(std::string_view text);

/// The beginning of a text that is longer than `most` bytes, followed by how long it is; any other as it is.
/// Cuts between characters.
std::string shortened(std::string_view text, std::size_t most = longestPeerText);

} // namespace agent
