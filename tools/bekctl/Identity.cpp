#include "Identity.h"

#include "AgentPaths.h"
#include "tools/common/Text.h"

#include <exception>
#include <utility>

namespace bekctl {

using tools::plain;

namespace {

constexpr const char* valid = "valid";

IdentityPart readPart(std::string name, std::string path) {
    IdentityPart part{std::move(name), std::move(path), std::nullopt, ""};
    try {
        part.certificate.emplace(part.path);
    } catch (const std::exception& error) {
        part.problem = plain(error.what());
    }
    return part;
}

void compareKey(Identity& identity) {
    try {
        identity.keyMatches = identity.agent.certificate->belongsTo(keyPath());
    } catch (const std::exception& error) {
        identity.keyProblem = plain(error.what());
    }
}

bool isValid(const IdentityPart& part, std::time_t now) {
    return part.certificate && validityOf(*part.certificate, now) == valid;
}

} // namespace

Identity readIdentity() {
    Identity identity{
        readPart("agent", certificatePath()), readPart("authority", authorityPath()), {}, "", {}};
    if (identity.agent.certificate) {
        compareKey(identity);
    }
    if (identity.agent.certificate && identity.authority.certificate) {
        identity.isSignedByAuthority =
            identity.agent.certificate->isSignedBy(*identity.authority.certificate);
    }
    return identity;
}

bool Identity::isSound(std::time_t now) const {
    return isValid(agent, now) && isValid(authority, now) && keyMatches.value_or(false) &&
           isSignedByAuthority.value_or(false);
}

std::string validityOf(const CertificateFile& certificate, std::time_t now) {
    if (now < certificate.begin) {
        return "not valid yet";
    }
    return now > certificate.end ? "has ended" : valid;
}

} // namespace bekctl
