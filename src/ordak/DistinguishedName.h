#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace agent::ordak {

/// The parts of the name of a certificate's issuer or subject that the agent uses.
struct DistinguishedName {
    std::string commonName;
    std::string organization;
    std::string organizationalUnit;
    std::int32_t number = -1; ///< The Common Name as a decimal integer; -1 if it isn't one or doesn't fit.
};

/// Parses a name in the form that GnuTLS writes (RFC 4514): pieces "KEY=value", separated by "," or "+". A
/// backslash escapes the next character, or forms a byte with the two hexadecimal digits after it. If several
/// pieces have the same key, the last one counts. Accepts any bytes.
DistinguishedName parseDistinguishedName(std::string_view text);

} // namespace agent::ordak
