#pragma once

#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupStatusHandler.h"
#include "core/backup/BackupType.h"
#include "core/backup/SnapshotInfo.h"
#include "core/backup/phase/CopyVolume.h"
#include "support/CountedCancel.h"
#include "support/ExtVolume.h"
#include "support/FakeTransport.h"
#include "support/HolePunchOption.h"
#include "support/TestDatabase.h"
#include "unit/info/CowImage.h"

#include <gtest/gtest.h>

namespace agent::core::backup::phase {

inline constexpr int level3 = info::level::info;
inline constexpr std::uint8_t poison = 0xA5;
inline const std::string uuid = "the-volume";

class CopyVolumeTest : public testing::Test {
protected:
    CopyVolumeTest() {
        session->addTransport(uuid, target);
        session->open();
        snapshot.snapshotPath = source.snapshotPath;
        target->holePunching = true;
        log.clear();
    }

    void run(std::uint32_t type = FULL) {
        attributes.setBackupType(uuid, type);
        snapshotInfo = std::make_shared<SnapshotInfo>(VolumeSnapshotInfos{{uuid, snapshot}});
        CopyVolume phase(log.logger, *session, snapshotInfo, source.volume(), attributes, status,
                         database.provider, cancel, config);
        EXPECT_EQ(phase.getName(), "Copy Volume the-volume");
        phase.execute();
    }

    /// The lines of level 3. Parsers and ranges log a lot below it.
    std::vector<std::string> infoLines() {
        std::vector<std::string> texts;
        for (const test::RecordingLogger::Line& line : log.lines()) {
            if (line.level == level3) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    std::vector<std::string> phases() {
        const std::string beginning = "Beginning execution of the ";
        std::vector<std::string> names;
        for (const std::string& line : infoLines()) {
            if (line.starts_with(beginning)) {
                names.push_back(line.substr(beginning.size()));
            }
        }
        return names;
    }

    /// Writes a bitmap of changes with exactly `blocks` set.
    void recordChanges(const std::vector<std::uint32_t>& blocks) {
        test::CowImage cow;
        cow.table.resize(test::ExtVolume::blockCount);
        for (const std::uint32_t block : blocks) {
            cow.table[block] = 1;
        }
        test::writeFile(directory / ".tolvu", cow.bytes());
        snapshot.incrementalBitmap = {directory / ".tolvu", 4096, cow.table.size() * 8, cow.table.size(),
                                      cow.table.size() - blocks.size()};
    }

    VolumeBackupStatus volumeStatus() { return status.getVolumeStatuses().front(); }

    void expectUntouchedTarget() {
        EXPECT_EQ(target->image, test::FakeTransport::Image(source.image.size(), poison));
    }

    test::TestDirectory directory;
    test::ExtVolume source{uuid};
    test::TestDatabase database;
    test::RecordingLogger log;
    std::shared_ptr<test::FakeTransport> target =
        std::make_shared<test::FakeTransport>(test::FakeTransport::Image(source.image.size(), poison));
    std::unique_ptr<BackupSession> session = std::make_unique<BackupSession>(log.logger);
    VolumeSnapshotInfo snapshot;
    std::shared_ptr<ISnapshotInfo> snapshotInfo;
    BackupAttributes attributes{{{uuid, {0, FULL, {}}}}};
    BackupStatusHandler status{log.logger, {uuid}};
    test::CountedCancel cancel;
    test::HolePunchOption config;

    const std::uint64_t usedBytes = source.usedBlocks() * test::ExtVolume::blockSize;
    const std::vector<std::string> plainPhases = {
        "Open Volume I/O phase.", "Create Chunk Range Provider phase.", "Calculate Transfer Size phase.",
        "Copy Chunk Ranges phase.", "Modify Boot Sector phase."};
};

} // namespace agent::core::backup::phase
