#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace agent::ordak {

/// What the agent looks at in the name of a certificate's issuer or subject.
struct DistinguishedName {
    std::string commonName;
    std::string organization;
    std::string organizationalUnit;
    std::int32_t number = -1; ///< The Common Name as a decimal integer; -1 if it is none, or doesn't fit.
};

/// Takes a name apart as GnuTLS writes it (RFC 4514): pieces "KEY=value" between "," and "+". A backslash
/// takes the special meaning from the character behind it, or stands with two hexadecimal digits for a byte.
/// Of pieces with the same key the last one counts. Any bytes are accepted.
DistinguishedName parseDistinguishedName(std::string_view text);

} // namespace agent::ordak
