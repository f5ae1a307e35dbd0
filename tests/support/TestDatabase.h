#pragma once

#include "common/File.h"
#include "db/DataProvider.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

namespace agent::test {

/// A real database in a directory of its own, with its tables.
class TestDatabase {
    TestDirectory directory;
    UUIDGenerator uuids;

public:
    TestDatabase() { provider.validateProvider(); }

    /// Puts a directory where the file was: from here on no operation can open it.
    void destroy() const {
        const Path file = directory / "agent.sqlite";
        file::remove(file);
        dir::make(file);
    }

    RecordingLogger log; ///< What the provider itself has to say.
    db::DataProvider provider{log.logger, uuids, directory.path()};
};

} // namespace agent::test
