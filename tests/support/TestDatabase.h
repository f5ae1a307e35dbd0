#pragma once

#include "common/File.h"
#include "db/DataProvider.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <cstdint>
#include <stdexcept>
#include <string>

namespace agent::test {

/// A real database with its tables, in a directory of its own.
/// Owns:    the directory with the database file.
/// Threads: the provider is safe from any; the rest is for one.
/// Fails:   by std::runtime_error.
class TestDatabase {
    TestDirectory directory;
    UUIDGenerator uuids;

public:
    TestDatabase() { provider.validateProvider(); }

    /// Replaces the database file by a directory: from now on no operation can open it.
    void destroy() const {
        const Path file = directory / "agent.sqlite";
        file::remove(file);
        dir::make(file);
    }

    /// The checksum of a volume. Throws if it isn't of the type that the agent stores.
    std::uint32_t storedChecksum(const std::string& uuid) {
        std::uint32_t checksum = 0;
        auto type = db::ChecksumType::gcrypt32crc;
        provider.getVolumeChecksum(uuid, checksum, type);
        if (type != db::ChecksumType::libcrc32c) {
            throw std::runtime_error("the checksum of " + uuid + " is of another type");
        }
        return checksum;
    }

    RecordingLogger log; ///< what the provider logs
    db::DataProvider provider{log.logger, uuids, directory.path()};
};

} // namespace agent::test
