#pragma once

#include "core/IEngine.h"
#include "core/backup/BackupSession.h"
#include "core/backup/IBackupAttributes.h"
#include "core/backup/ISnapshotAttributes.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

namespace agent::test {

class MockEngine : public core::IEngine {
public:
    MOCK_METHOD(void, start, (), (override));
    MOCK_METHOD(void, stop, (), (override));
    MOCK_METHOD(std::string, createBackup,
                (std::unique_ptr<core::backup::BackupSession>,
                 std::shared_ptr<core::backup::IBackupAttributes>,
                 std::shared_ptr<core::backup::ISnapshotAttributes>),
                (override));
    MOCK_METHOD(void, cancelBackup, (const std::string&), (override));
    MOCK_METHOD(bool, isBackupRunning, (), (override));
    MOCK_METHOD(std::vector<std::string>, getQuiesceScripts, (), (override));
    MOCK_METHOD(void, waitForBackup, (), (override));
};

} // namespace agent::test
