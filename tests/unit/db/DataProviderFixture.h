#pragma once

#include "db/DataProvider.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"
#include "unit/db/RawDatabase.h"

#include <gtest/gtest.h>

#include <string>

namespace agent::test {

/// Runs `operation` and returns the message of its exception, or "" if it throws nothing.
template <typename Failure = std::runtime_error, typename Operation>
std::string failureOf(const Operation& operation) {
    try {
        operation();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return {};
}

/// A data provider with a directory of its own, not yet validated.
class DataProviderFixture : public testing::Test {
protected:
    [[nodiscard]] std::string path() const { return directory / "agent.sqlite"; }
    std::optional<std::string> stored(const std::string& sql) { return RawDatabase(path()).value(sql); }

    TestDirectory directory;
    RecordingLogger recorder;
    UUIDGenerator generator;
    db::DataProvider provider{recorder.logger, generator, directory.path()};
};

} // namespace agent::test
