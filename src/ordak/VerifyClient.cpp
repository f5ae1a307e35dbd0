#include "ordak/VerifyClient.h"

#include "common/BaseDirectories.h"
#include "common/PeerText.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <vector>

namespace agent::ordak {
namespace {

constexpr std::string_view deviceTypeOid = "2.16.840.1.113730.1.13";
constexpr std::string_view deviceType = "type:device";
constexpr unsigned maxExtensions = 100;
constexpr std::size_t usualExtensionBytes = 100;
constexpr std::size_t maxExtensionBytes = 999;
constexpr unsigned char ia5StringTag = 22;

/// Makes a name from a certificate that isn't verified yet printable, and short enough for a log line.
std::string nameForLog(const std::string& name) {
    constexpr std::size_t maxBytes = 256;
    return printable(shortened(name, maxBytes));
}

bool hasSameIssuer(info::Logger& logger, const Certificate& local, const Certificate& peer) {
    if (local.issuer().commonName == peer.issuer().commonName) {
        return true;
    }
    info::LogEntry(logger, info::level::debug)
        << "Certificate issuer mismatch (ours='" << nameForLog(local.issuer().commonName) << "'; theirs='"
        << nameForLog(peer.issuer().commonName) << "'";
    info::LogEntry(logger, info::level::error, info::reason("client-certificate"))
        << "Certificate issuer mismatch";
    return false;
}

/// Whether `name` is a decimal number of any length, at least 1. Doesn't use std::regex, because the name may
/// be long and std::regex takes stack space for each character.
bool isDeviceId(std::string_view name) {
    const auto isDigit = [](char character) { return character >= '0' && character <= '9'; };
    return !name.empty() && name.front() != '0' && std::all_of(name.begin(), name.end(), isDigit);
}

bool isNamedLikeDevice(info::Logger& logger, const std::string& name) {
    if (isDeviceId(name)) {
        return true;
    }
    if (name.empty()) {
        info::LogEntry(logger, info::level::debug) << "Bad client certificate Common Name";
    } else {
        info::LogEntry(logger, info::level::debug)
            << "Client Common Name '" << nameForLog(name) << "' does not match expected deviceID format";
    }
    info::LogEntry(logger, info::level::error, info::reason("client-certificate"))
        << "Certificate invalid Common Name";
    return false;
}

std::optional<Certificate> loadAuthority(info::Logger& logger) {
    try {
        return Certificate(dir::base() / "certs/ca.crt");
    } catch (const std::exception&) {
        info::LogEntry(logger, info::level::error, info::reason("client-certificate"))
            << "Internal error - failed to import trust file as cert";
        return std::nullopt;
    }
}

struct Verdict {
    bool isValid = false;
    std::vector<std::string> errors;
};

Verdict examine(const Certificate& authority, const Certificate& peer) {
    gnutls_x509_crt_t authorityHandle = authority.handle();
    unsigned status = 0;
    if (gnutls_x509_crt_verify(peer.handle(), &authorityHandle, 1, 0, &status) < 0) {
        return {false, {"Internal error - failed to verify client cert against local certificate"}};
    }
    Verdict verdict{(status & GNUTLS_CERT_INVALID) == 0, {}};
    if ((status & GNUTLS_CERT_NOT_ACTIVATED) != 0) {
        verdict.errors.emplace_back("Cert invalid activation time");
    }
    if ((status & GNUTLS_CERT_SIGNER_NOT_FOUND) != 0) {
        verdict.errors.emplace_back("Cert signer not found");
    }
    if ((status & GNUTLS_CERT_EXPIRED) != 0) {
        verdict.errors.emplace_back("Cert expired");
    }
    return verdict;
}

bool isSignedByAuthority(info::Logger& logger, const Certificate& authority, const Certificate& peer) {
    Verdict verdict = examine(authority, peer);
    if (verdict.isValid) {
        return true;
    }
    if (verdict.errors.empty()) {
        verdict.errors.emplace_back("Unspecified error(s)");
    }
    for (const std::string& error : verdict.errors) {
        info::LogEntry(logger, info::level::error, info::reason("client-certificate"))
            << "Verification of device certificate failed: " << error;
    }
    info::LogEntry(logger, info::level::error, info::reason("client-certificate"))
        << "Failed to verify client certificate";
    return false;
}

/// The indices of the extensions that may contain the device type.
std::vector<unsigned> typeExtensions(gnutls_x509_crt_t certificate) {
    std::vector<unsigned> found;
    for (unsigned index = 0; index < maxExtensions; ++index) {
        std::array<char, 128> oid{}; // a longer OID isn't the one that is searched for
        std::size_t size = oid.size();
        unsigned isCritical = 0;
        const int result =
            gnutls_x509_crt_get_extension_info(certificate, index, oid.data(), &size, &isCritical);
        if (result == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE) {
            break;
        }
        if (result >= 0 && oid.data() == deviceTypeOid) {
            found.push_back(index);
        }
    }
    return found;
}

/// The content of an extension; empty if it can't be read, or is too long to be a device type.
std::vector<unsigned char> extensionData(gnutls_x509_crt_t certificate, unsigned index) {
    std::vector<unsigned char> data(usualExtensionBytes);
    std::size_t size = data.size();
    int result = gnutls_x509_crt_get_extension_data(certificate, index, data.data(), &size);
    if (result == GNUTLS_E_SHORT_MEMORY_BUFFER && size <= maxExtensionBytes) {
        data.resize(size);
        result = gnutls_x509_crt_get_extension_data(certificate, index, data.data(), &size);
    }
    data.resize(result < 0 ? 0 : size);
    return data;
}

bool isDeviceTypeValue(const std::vector<unsigned char>& data) {
    constexpr std::size_t headerBytes = 2;
    return data.size() >= headerBytes + deviceType.size() && data[0] == ia5StringTag &&
           data[1] == deviceType.size() &&
           std::equal(deviceType.begin(), deviceType.end(), data.begin() + headerBytes);
}

} // namespace

int verifyClient(info::Logger& logger, const Certificate& local, const Certificate& peer) {
    constexpr int accepted = 0;
    constexpr int refused = 1;
    if (!hasSameIssuer(logger, local, peer) || !isNamedLikeDevice(logger, peer.subject().commonName)) {
        return refused;
    }
    const std::optional<Certificate> authority = loadAuthority(logger);
    if (!authority || !isSignedByAuthority(logger, *authority, peer)) {
        return refused;
    }
    if (!hasDeviceType(peer)) {
        info::LogEntry(logger, info::level::error, info::reason("client-certificate"))
            << "Failed to find required metadata in client certificate";
        return refused;
    }
    return accepted;
}

bool hasDeviceType(const Certificate& certificate) {
    const std::vector<unsigned> indices = typeExtensions(certificate.handle());
    return std::any_of(indices.begin(), indices.end(), [&](unsigned index) {
        return isDeviceTypeValue(extensionData(certificate.handle(), index));
    });
}

} // namespace agent::ordak
