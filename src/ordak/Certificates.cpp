#include "ordak/Certificates.h"

#include "common/BaseDirectories.h"
#include "common/Directory.h"
#include "common/File.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace agent::ordak {

namespace {

constexpr const char* keyName = "server.key";
constexpr const char* certificateName = "server.pem";
constexpr const char* caName = "ca.crt";

std::string read(const char* name) {
    std::ifstream file((certificatesDirectory() / name).str(), std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.fail() ? "" : content.str(); // empty, too, if only part of the file could be read
}

Certificates readAll() {
    return {read(keyName), read(certificateName), read(caName)};
}

/// If others than the owner can use the key, restricts its permissions and warns the administrator: somebody
/// may have read the key before.
void restrictKeyPermissions(info::Logger& logger) {
    const std::string path = certificatesDirectory() / keyName;
    constexpr mode_t others = S_IRWXG | S_IRWXO;
    struct ::stat found{};
    if (::stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode) || (found.st_mode & others) == 0) {
        return;
    }
    const bool isClosed = ::chmod(path.c_str(), S_IRUSR | S_IWUSR) == 0;
    logger.log(info::level::warning, "%s could be used by others than its owner (mode %04o)%s", path.c_str(),
               found.st_mode & 07777U,
               isClosed ? "; now it can't. Have a new one made if anybody may have read it"
                        : ", and this can't be changed");
}

/// The names of the files that have no content, each with a blank before it; empty if nothing is missing.
std::string missing(const Certificates& certificates) {
    std::string names;
    names += certificates.key.empty() ? " server.key" : "";
    names += certificates.certificate.empty() ? " server.pem" : "";
    names += certificates.ca.empty() ? " ca.crt" : "";
    return names;
}

[[noreturn]] void fail(info::Logger& logger, const std::string& message) {
    info::LogEntry(logger, info::level::error, info::reason("certificate-unavailable")) << message;
    throw std::runtime_error(message);
}

/// Calls `action`, which changes one of the files. On failure logs the reason and throws std::runtime_error.
void changeOrThrow(info::Logger& logger, const char* name, const std::function<void(const Path&)>& action) {
    try {
        action(certificatesDirectory() / name);
    } catch (const std::exception& error) {
        info::LogEntry(logger, info::level::error, info::reason("certificate-unavailable")) << error.what();
        throw std::runtime_error("could not open file " + std::string(name) + " for writing");
    }
}

void write(info::Logger& logger, const char* name, const std::string& content, mode_t mode) {
    changeOrThrow(logger, name, [&](const Path& path) { file::replace(path, content, mode); });
}

} // namespace

Path certificatesDirectory() {
    return dir::base() / "certs";
}

void loadOrCreate(Certificates& certificates, info::Logger& logger, const std::function<void()>& generate) {
    restrictKeyPermissions(logger);
    certificates = readAll();
    const std::string missingAtFirst = missing(certificates);
    if (missingAtFirst.empty()) {
        return;
    }
    try {
        generate();
    } catch (const std::exception& error) {
        fail(logger, "Could not find certificate files:" + missingAtFirst +
                         "; subsequently failed to create them with error message: " + error.what());
    }
    certificates = readAll();
    if (const std::string stillMissing = missing(certificates); !stillMissing.empty()) {
        fail(logger, "Could not find certificates after their presumed creation: " + stillMissing);
    }
}

void storeCertificates(const Certificates& certificates, info::Logger& logger) {
    dir::make(certificatesDirectory());
    changeOrThrow(logger, caName, [](const Path& path) {
        if (file::exists(path)) {
            file::remove(path);
        }
    });
    write(logger, keyName, certificates.key, S_IRUSR | S_IWUSR);
    write(logger, certificateName, certificates.certificate, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
    write(logger, caName, certificates.ca, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
}

} // namespace agent::ordak
