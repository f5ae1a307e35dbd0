#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace tolvubd {

using UuidBytes = std::array<std::uint8_t, 16>;

std::string makeUuid();
/// Whether the text is a UUID in the usual form, and so is safe as a file name.
bool isUuid(const std::string& text);
std::string uuidText(const UuidBytes& bytes);
/// Throws EINVAL for a text that isn't a UUID.
UuidBytes uuidBytes(const std::string& text);

} // namespace tolvubd
