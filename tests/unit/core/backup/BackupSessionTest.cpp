#include "core/backup/BackupSession.h"

#include "common/Exceptions.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupType.h"
#include "core/backup/RemoteTargetValidator.h"
#include "core/backup/VolumeChecksumGenerator.h"
#include "info/log/Reason.h"
#include "support/FakeTransport.h"
#include "support/TestDatabase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <stdexcept>

namespace agent::core::backup {
namespace {

using db::ChecksumType;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Line = test::RecordingLogger::Line;

const std::string first = "11111111-1111-1111-1111-111111111111";
const std::string second = "22222222-2222-2222-2222-222222222222";

/// The message of an exception of this type, whether or not it carries a reason.
template <typename Exception>
std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& error) {
        const std::string thrown = typeid(error).name();
        EXPECT_THAT(thrown,
                    testing::AnyOf(typeid(Exception).name(), typeid(info::WithReason<Exception>).name()));
        return error.what();
    }
    return "nothing was thrown";
}

BackupSession::ChecksumFunction giving(std::uint32_t sum) {
    return [sum](const std::shared_ptr<ITransport>&, std::uint32_t& checksum) {
        checksum = sum;
        return true;
    };
}

class BackupSessionTest : public testing::Test {
protected:
    void openWithTwoVolumes() {
        session->addTransport(first, firstTransport);
        session->addTransport(second, secondTransport);
        session->open();
        log.clear();
    }

    test::TestDatabase database;
    test::RecordingLogger log;
    std::shared_ptr<test::FakeTransport> firstTransport = std::make_shared<test::FakeTransport>(4096);
    std::shared_ptr<test::FakeTransport> secondTransport = std::make_shared<test::FakeTransport>(4096);
    std::shared_ptr<ITransport> writer;
    std::optional<BackupSession> session{std::in_place, log.logger};
};

TEST_F(BackupSessionTest, LogsItsLife) {
    session->addTransport(first, firstTransport);
    session->open();
    session.reset();
    EXPECT_THAT(
        log.lines(),
        ElementsAre(Line{info::level::debug, "Backup session created"},
                    Line{info::level::info, "Backup session added a transport for volume UUID " + first},
                    Line{info::level::debug, "Backup session opening"},
                    Line{info::level::info, "Backup session opened"},
                    Line{info::level::info, "Closing backup session, finalizing remote targets..."},
                    Line{info::level::debug, "Backup session destroyed"}));
}

TEST_F(BackupSessionTest, EndsItsTransports) {
    const std::weak_ptr<ITransport> watched = firstTransport;
    session->addTransport(first, std::move(firstTransport));
    session->open();
    EXPECT_FALSE(watched.expired());
    session.reset();
    EXPECT_TRUE(watched.expired());
}

TEST_F(BackupSessionTest, LoggingThatFailsDoesNotLeaveTheDestructor) {
    bool broken = false;
    info::Logger logger([&](const std::string&, int, info::LogTime) {
        if (broken) {
            throw std::runtime_error("disk full");
        }
    });
    const std::weak_ptr<ITransport> watched = firstTransport;
    {
        BackupSession failing(logger);
        failing.addTransport(first, std::move(firstTransport));
        broken = true;
    }
    EXPECT_TRUE(watched.expired());
}

TEST_F(BackupSessionTest, OpensOnce) {
    session->open();
    EXPECT_EQ(messageOf<std::runtime_error>([&] { session->open(); }), "Backup session already open!");
}

TEST_F(BackupSessionTest, TakesNoTransportOnceOpened) {
    session->open();
    EXPECT_EQ(messageOf<std::runtime_error>([&] { session->addTransport(first, firstTransport); }),
              "Cannot add transports after the session has been opened!");
    EXPECT_THROW((void)session->getTransport(first), std::invalid_argument);
}

TEST_F(BackupSessionTest, SecondTransportOfAVolumeIsRefusedAndTheFirstStays) {
    session->addTransport(first, firstTransport);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { session->addTransport(first, secondTransport); }),
              "Could not insert a transport object for volume UUID " + first + " into the transport map.");
    EXPECT_TRUE(
        log.has(info::level::error, "Backup session could not add transport for volume UUID " + first));
    session->open();
    EXPECT_EQ(session->getTransport(first), firstTransport);
}

TEST_F(BackupSessionTest, EverythingElseWaitsForOpen) {
    session->addTransport(first, firstTransport);
    BackupAttributes attributes(std::unordered_map<std::string, VolumeAttributes>{{first, {0, FULL, {}}}});
    RemoteTargetValidator validator(log.logger, database.provider);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { (void)session->getTransport(first); }),
              "Cannot get transport, backup session was never opened!");
    EXPECT_EQ(messageOf<std::runtime_error>([&] { session->validateRemoteTargets(validator, attributes); }),
              "Cannot validate remote targets, backup session was never opened!");
    EXPECT_EQ(messageOf<std::runtime_error>([&] { session->createVolumeWriter(first, false, writer); }),
              "Cannot request volume writer, backup session was never opened!");
    EXPECT_EQ(messageOf<std::runtime_error>([&] { session->registerVolume(first, giving(1)); }),
              "Cannot register a volume checksum, backup session was never opened!");
    EXPECT_EQ(messageOf<std::runtime_error>([&] { session->finishWriting(database.provider); }),
              "Cannot finish writing volumes, backup session was never opened!");
    EXPECT_EQ(firstTransport->connects, 0);
}

TEST_F(BackupSessionTest, UnknownVolume) {
    openWithTwoVolumes();
    const Line line{info::level::error, "Backup session could not find transport for volume UUID nowhere"};
    const std::string message = "A transport for volume UUID nowhere does not exist.";
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { (void)session->getTransport("nowhere"); }), message);
    EXPECT_THAT(log.lines(), ElementsAre(line));
    EXPECT_EQ(
        messageOf<std::invalid_argument>([&] { session->createVolumeWriter("nowhere", false, writer); }),
        message);
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { session->registerVolume("nowhere", giving(1)); }),
              "A session for volume UUID nowhere does not exist.");
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST_F(BackupSessionTest, HandsOutConnectedWriters) {
    openWithTwoVolumes();
    session->createVolumeWriter(first, true, writer);
    EXPECT_EQ(writer, firstTransport);
    EXPECT_TRUE(firstTransport->connected);
    EXPECT_TRUE(firstTransport->diffMerge);
    EXPECT_FALSE(secondTransport->connected);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{info::level::info,
                                 "Backup session created a volume writer for volume UUID " + first}));
    session->createVolumeWriter(second, false, writer);
    EXPECT_EQ(writer, secondTransport);
    EXPECT_FALSE(secondTransport->diffMerge);
}

TEST_F(BackupSessionTest, SecondWriterIsRefusedAndTheFirstGoesOn) {
    openWithTwoVolumes();
    session->createVolumeWriter(first, false, writer);
    std::shared_ptr<ITransport> another;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { session->createVolumeWriter(first, true, another); }),
              "Writer request for volume UUID '" + first +
                  "' was previously fulfilled. It cannot be requested more than once.");
    EXPECT_EQ(another, nullptr);
    EXPECT_EQ(firstTransport->connects, 1);
    EXPECT_EQ(writer->write(std::string(512, 'x').data(), 512), 512);
}

TEST_F(BackupSessionTest, RefusedConnectionGivesNoWriterAndMayBeTriedAgain) {
    openWithTwoVolumes();
    firstTransport->refusing = true;
    EXPECT_EQ(messageOf<exception::transport_connection_error>(
                  [&] { session->createVolumeWriter(first, false, writer); }),
              "Failed to open transport connection for volume UUID " + first);
    EXPECT_EQ(writer, nullptr);
    firstTransport->refusing = false;
    EXPECT_NO_THROW(session->createVolumeWriter(first, false, writer));
    EXPECT_EQ(writer, firstTransport);
}

TEST_F(BackupSessionTest, RegistersChecksumsAndStoresThemAtTheEnd) {
    openWithTwoVolumes();
    std::shared_ptr<ITransport> seen;
    session->registerVolume(first, [&](const std::shared_ptr<ITransport>& transport, std::uint32_t& sum) {
        seen = transport;
        sum = 0xffffffff;
        return true;
    });
    EXPECT_EQ(seen, firstTransport);
    EXPECT_TRUE(log.has(info::level::info,
                        "Backup session registering volume UUID '" + first + "' with checksum '4294967295'"));
    EXPECT_FALSE(database.provider.hasVolume(first)) << "stored before the end";
    session->registerVolume(second, giving(10));
    log.clear();
    session->finishWriting(database.provider);
    EXPECT_EQ(database.storedChecksum(first), 0xffffffffU);
    EXPECT_EQ(database.storedChecksum(second), 10U);
    EXPECT_THAT(log.lines(),
                UnorderedElementsAre(Line{info::level::info, "Finishing writing for volume UUID " + first},
                                     Line{info::level::info, "Finishing writing for volume UUID " + second}));
}

TEST_F(BackupSessionTest, ChecksumThatCannotBeMadeIsNotRegistered) {
    openWithTwoVolumes();
    const auto failing = [](const std::shared_ptr<ITransport>&, std::uint32_t& checksum) {
        checksum = 5;
        return false;
    };
    session->registerVolume(second, giving(10));
    EXPECT_EQ(messageOf<std::runtime_error>([&] { session->registerVolume(first, failing); }),
              "Failed to generate checksum for volume: " + first);
    EXPECT_THROW(session->finishWriting(database.provider), std::logic_error);
    EXPECT_FALSE(database.provider.hasVolume(first));
}

TEST_F(BackupSessionTest, FinishingWithoutAChecksumFails) {
    openWithTwoVolumes();
    session->registerVolume(first, giving(10));
    EXPECT_EQ(messageOf<std::logic_error>([&] { session->finishWriting(database.provider); }),
              "Failed to register a checksum after writing with the corresponding VolumeWriter for volume: " +
                  second);
    EXPECT_FALSE(database.provider.hasVolume(second));
}

TEST_F(BackupSessionTest, DestroyedBeforeTheEndLeavesTheOldChecksum) {
    database.provider.setVolumeChecksum(first, 77, ChecksumType::libcrc32c);
    openWithTwoVolumes();
    session->registerVolume(first, giving(10));
    session.reset();
    EXPECT_EQ(database.storedChecksum(first), 77U);
}

TEST_F(BackupSessionTest, FailingDatabaseFailsTheEnd) {
    openWithTwoVolumes();
    session->registerVolume(first, giving(10));
    session->registerVolume(second, giving(10));
    database.destroy();
    EXPECT_THROW(session->finishWriting(database.provider), std::runtime_error);
}

TEST_F(BackupSessionTest, ValidatesEveryTargetWithItsOwnTransport) {
    openWithTwoVolumes();
    firstTransport->image.resize(VolumeChecksumGenerator::regionBytes);
    secondTransport->image.assign(VolumeChecksumGenerator::regionBytes, 0xff);
    for (const std::string& uuid : {first, second}) { // as a first backup does
        session->createVolumeWriter(uuid, false, writer);
        session->registerVolume(uuid, [&](const std::shared_ptr<ITransport>& transport,
                                          std::uint32_t& checksum) {
            return VolumeChecksumGenerator(log.logger, transport).generate(ChecksumType::libcrc32c, checksum);
        });
    }
    session->finishWriting(database.provider);
    secondTransport->image[12345] = 0; // someone else has changed the image since

    BackupAttributes attributes({{first, {0, INCREMENTAL, {}}}, {second, {0, INCREMENTAL, {}}}});
    RemoteTargetValidator validator(log.logger, database.provider);
    session->validateRemoteTargets(validator, attributes);
    EXPECT_EQ(attributes.getBackupType(first), INCREMENTAL);
    EXPECT_EQ(attributes.getBackupType(second), DIFFERENTIAL_MERGE);
    EXPECT_FALSE(firstTransport->connected);
    EXPECT_FALSE(secondTransport->connected);
}

TEST_F(BackupSessionTest, TargetThatRefusesFailsTheValidation) {
    openWithTwoVolumes();
    secondTransport->refusing = true;
    BackupAttributes attributes({{first, {0, FULL, {}}}, {second, {0, FULL, {}}}});
    RemoteTargetValidator validator(log.logger, database.provider);
    EXPECT_THROW(session->validateRemoteTargets(validator, attributes),
                 exception::transport_connection_error);
    EXPECT_FALSE(firstTransport->connected);
}

} // namespace
} // namespace agent::core::backup
