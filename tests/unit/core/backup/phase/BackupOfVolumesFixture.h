#pragma once

#include "core/backup/Backup.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupType.h"
#include "core/backup/VolumeChecksumGenerator.h"
#include "core/operation/CancelableOperation.h"
#include "support/BackupHarness.h"
#include "support/ExtVolume.h"
#include "support/FakeTransport.h"
#include "unit/info/CowImage.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>

namespace agent::core::backup::phase {

using Image = test::FakeTransport::Image;

inline constexpr int level3 = info::level::info;
inline constexpr std::uint8_t poison = 0xA5;

/// A target that reports its destruction in `closed`, and calls the test before each write.
class WatchedTransport : public test::FakeTransport {
public:
    using FakeTransport::FakeTransport;
    WatchedTransport(const WatchedTransport&) = delete;
    WatchedTransport& operator=(const WatchedTransport&) = delete;
    ~WatchedTransport() override {
        if (closed) {
            *closed = true;
        }
    }

    std::int64_t write(const void* data, std::uint64_t length) override {
        if (onWrite) {
            onWrite();
        }
        return FakeTransport::write(data, length);
    }

    std::function<void()> onWrite;
    bool* closed = nullptr;
};

/// Backups of real volumes to targets in memory. Only the snapshots are fake: a file stands for each volume's
/// snapshot.
class BackupOfVolumes : public testing::Test {
protected:
    BackupOfVolumes() {
        harness.volumes.find = [this](const std::string& uuid) { return sources.at(uuid)->volume(); };
    }

    /// Adds a volume and a target of its own, filled with a poison value.
    test::ExtVolume& add(const std::string& uuid) {
        sources.emplace(uuid, std::make_unique<test::ExtVolume>(uuid));
        test::ExtVolume& source = *sources.at(uuid);
        targets[uuid] = std::make_shared<WatchedTransport>(Image(source.image.size(), poison));
        snapshots.started[uuid].snapshotPath = source.snapshotPath;
        snapshots.started[uuid].incrementalPreserved = true;
        snapshots.ended[uuid].incrementalPreserved = true;
        volumeAttributes[uuid] = {0, FULL, {}};
        return source;
    }

    void request(std::uint32_t type) {
        for (auto& [uuid, attributes] : volumeAttributes) {
            attributes.backupType = type;
        }
    }

    /// Prepares a backup of all volumes as currently described.
    void makeBackup() {
        attributes = std::make_shared<BackupAttributes>(volumeAttributes);
        backup = harness.make(attributes, std::make_unique<CancelableOperation>(), nullptr, "backup");
        session = std::make_unique<BackupSession>(log.logger);
        for (const auto& [uuid, target] : targets) {
            session->addTransport(uuid, connect(target));
        }
        log.clear();
    }

    void run() {
        makeBackup();
        backup->run(std::move(session));
    }

    /// Writes the bitmap of the blocks that have changed since the last backup.
    void recordChanges(const std::string& uuid, const std::vector<std::uint32_t>& blocks) {
        test::CowImage cow;
        cow.table.resize(test::ExtVolume::blockCount);
        for (const std::uint32_t block : blocks) {
            cow.table[block] = 1;
        }
        const std::string path = directory / (uuid + ".tolvu");
        test::writeFile(path, cow.bytes());
        snapshots.started[uuid].incrementalBitmap = {path, 4096, cow.table.size() * 8, cow.table.size(),
                                                     cow.table.size() - blocks.size()};
    }

    /// The names of the phases that began, without those inside the copy of a volume.
    std::vector<std::string> phases() {
        const std::string beginning = "Beginning execution of the ";
        const std::string end = " phase.";
        std::vector<std::string> names;
        for (const test::RecordingLogger::Line& line : log.lines()) {
            if (line.level == level3 && line.text.starts_with(beginning)) {
                names.push_back(
                    line.text.substr(beginning.size(), line.text.size() - beginning.size() - end.size()));
            }
        }
        std::erase_if(names, [](const std::string& name) {
            return name == "Open Volume I/O" || name == "Create Chunk Range Provider" ||
                   name == "Calculate Transfer Size" || name == "Copy Chunk Ranges" ||
                   name == "Punch Holes" || name == "Modify Boot Sector";
        });
        return names;
    }

    BackupStatus status() {
        BackupStatus out;
        backup->getStatus(out);
        return out;
    }

    std::vector<std::uint32_t> states() {
        std::vector<std::uint32_t> all;
        for (const VolumeBackupStatus& volume : status().volumes) {
            all.push_back(volume.state);
        }
        return all;
    }

    std::uint32_t checksumOf(const std::string& uuid) {
        std::uint32_t checksum = 0;
        targets.at(uuid)->connect(false);
        EXPECT_TRUE(VolumeChecksumGenerator(log.logger, targets.at(uuid))
                        .generate(db::ChecksumType::libcrc32c, checksum));
        return checksum;
    }

    test::TestDirectory directory;
    test::BackupHarness harness;
    test::TestDatabase& database = harness.database;
    test::RecordingLogger& log = harness.log;
    test::SnapshotScript& snapshots = harness.snapshots;
    std::map<std::string, std::unique_ptr<test::ExtVolume>> sources;
    std::map<std::string, std::shared_ptr<WatchedTransport>> targets;
    /// Wraps the target for the backup.
    std::function<std::shared_ptr<ITransport>(const std::shared_ptr<ITransport>&)> connect =
        [](const auto& target) { return target; };
    std::unordered_map<std::string, VolumeAttributes> volumeAttributes;
    std::shared_ptr<BackupAttributes> attributes;
    std::unique_ptr<BackupSession> session;
    std::unique_ptr<Backup> backup;
};

} // namespace agent::core::backup::phase
