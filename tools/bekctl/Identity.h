#pragma once

#include "CertificateFile.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace bekctl {

/// One of the two certificates in the agent's directory.
struct IdentityPart {
    std::string name; ///< "agent" or "authority"
    std::string path;
    std::optional<CertificateFile> certificate;
    std::string problem; ///< why it can't be read
};

/// The agent's certificates and its key, each on its own and compared with each other.
struct Identity {
    IdentityPart agent;
    IdentityPart authority;
    std::optional<bool> keyMatches;          ///< the key belongs to the agent's certificate
    std::string keyProblem;                  ///< why that can't be checked
    std::optional<bool> isSignedByAuthority; ///< the authority has signed the agent's certificate

    [[nodiscard]] bool isSound(std::time_t now) const;
};

Identity readIdentity();

/// "valid", "not valid yet" or "has ended".
std::string validityOf(const CertificateFile& certificate, std::time_t now);

} // namespace bekctl
