#include "core/backup/RemoteTargetValidator.h"

#include "common/Exceptions.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupType.h"
#include "core/backup/VolumeChecksumGenerator.h"
#include "support/FakeTransport.h"
#include "support/FaultyTransport.h"
#include "support/TestDatabase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace agent::core::backup {
namespace {

using db::ChecksumType;
using testing::ElementsAre;
using testing::IsEmpty;
using Line = test::RecordingLogger::Line;

const std::string uuid = "11111111-1111-1111-1111-111111111111";

/// Returns a fixed checksum or fails, and records what it was asked for.
class FixedGenerator : public IVolumeChecksumGenerator {
public:
    explicit FixedGenerator(std::optional<std::uint32_t> sum) : sum(sum) {}

    bool generate(ChecksumType type, std::uint32_t& out) override {
        asked.push_back(type);
        out = sum.value_or(out);
        return sum.has_value();
    }

    std::vector<ChecksumType> asked;

private:
    std::optional<std::uint32_t> sum;
};

class RemoteTargetValidatorTest : public testing::Test {
protected:
    void validate(IVolumeChecksumGenerator& generator) {
        validator.validate(uuid, attributes, *transport, generator);
    }

    /// The message of the transport_connection_error, which must be thrown.
    std::string connectionErrorOf(IVolumeChecksumGenerator& generator) {
        try {
            validate(generator);
        } catch (const exception::transport_connection_error& error) {
            return error.what();
        }
        return "nothing was thrown";
    }

    void expectOpenedAndClosed() const {
        EXPECT_EQ(transport->connects, 1);
        EXPECT_FALSE(transport->diffMerge);
        EXPECT_FALSE(transport->connected);
        EXPECT_EQ(transport->disconnects, 1);
    }

    [[nodiscard]] std::uint32_t type() const { return attributes.getBackupType(uuid); }

    test::TestDatabase database;
    test::RecordingLogger log;
    BackupAttributes attributes{
        std::unordered_map<std::string, VolumeAttributes>{{uuid, {0, INCREMENTAL, {}}}}};
    std::shared_ptr<test::FakeTransport> transport = std::make_shared<test::FakeTransport>(4096);
    RemoteTargetValidator validator{log.logger, database.provider};
};

TEST_F(RemoteTargetValidatorTest, MatchingChecksumStaysIncremental) {
    database.provider.setVolumeChecksum(uuid, 0x0badcafe, ChecksumType::libcrc32c);
    FixedGenerator generator(0x0badcafe);
    validate(generator);
    EXPECT_EQ(type(), INCREMENTAL);
    EXPECT_THAT(generator.asked, ElementsAre(ChecksumType::libcrc32c));
    EXPECT_THAT(
        log.lines(),
        ElementsAre(Line{info::level::info, "Found cached volume checksum 'badcafe' for volume: " + uuid},
                    Line{info::level::debug, "The cached volume checksum matched the remote volume "
                                             "checksum ('badcafe')"}));
    expectOpenedAndClosed();
}

TEST_F(RemoteTargetValidatorTest, ChecksumIsComparedWithOneOfItsOwnType) {
    database.provider.setVolumeChecksum(uuid, 1, ChecksumType::gcrypt32crc);
    FixedGenerator generator(1);
    validate(generator);
    EXPECT_EQ(type(), INCREMENTAL);
    EXPECT_THAT(generator.asked, ElementsAre(ChecksumType::gcrypt32crc));
}

TEST_F(RemoteTargetValidatorTest, DifferentChecksumFallsBack) {
    database.provider.setVolumeChecksum(uuid, 0xabc, ChecksumType::libcrc32c);
    FixedGenerator generator(0xabd);
    validate(generator);
    EXPECT_EQ(type(), DIFFERENTIAL_MERGE);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(Line{info::level::info, "Found cached volume checksum 'abc' for volume: " + uuid},
                    Line{info::level::info, "The cached volume checksum 'abc' didn't match with the remote "
                                            "volume checksum 'abd' for volume: " +
                                                uuid + ", failing back to DIFFERENTIAL_MERGE"}));
    expectOpenedAndClosed();
}

TEST_F(RemoteTargetValidatorTest, RemoteChecksumOfZeroIsADifferentOne) {
    database.provider.setVolumeChecksum(uuid, 0xabc, ChecksumType::libcrc32c);
    FixedGenerator generator(0);
    validate(generator);
    EXPECT_EQ(type(), DIFFERENTIAL_MERGE);
}

TEST_F(RemoteTargetValidatorTest, CachedZeroFallsBackWithoutReadingTheTarget) {
    database.provider.setVolumeChecksum(uuid, 0, ChecksumType::libcrc32c);
    FixedGenerator generator(0);
    validate(generator);
    EXPECT_EQ(type(), DIFFERENTIAL_MERGE);
    EXPECT_THAT(generator.asked, IsEmpty());
    EXPECT_THAT(
        log.lines(),
        ElementsAre(Line{info::level::info, "Cached checksum for volume " + uuid +
                                                " is zero indicating volume requires a DIFFERENTIAL_MERGE"}));
    expectOpenedAndClosed();
}

TEST_F(RemoteTargetValidatorTest, UnknownVolumeFallsBackWithTheDatabasesText) {
    FixedGenerator generator(1);
    validate(generator);
    EXPECT_EQ(type(), DIFFERENTIAL_MERGE);
    EXPECT_THAT(generator.asked, IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{info::level::info,
                                 "Could not find cached checksum from database for volume " + uuid +
                                     " failing back to DIFFERENTIAL_MERGE: No valid checksum found for "
                                     "volume UUID: " +
                                     uuid}));
    expectOpenedAndClosed();
}

TEST_F(RemoteTargetValidatorTest, UnusableDatabaseFallsBackWithItsText) {
    database.provider.setVolumeChecksum(uuid, 1, ChecksumType::libcrc32c);
    database.destroy();
    FixedGenerator generator(1);
    EXPECT_NO_THROW(validate(generator));
    EXPECT_EQ(type(), DIFFERENTIAL_MERGE);
    EXPECT_THAT(generator.asked, IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{info::level::info,
                                 "Could not find cached checksum from database for volume " + uuid +
                                     " failing back to DIFFERENTIAL_MERGE: getVolumeChecksum failed for "
                                     "volume: " +
                                     uuid}));
    expectOpenedAndClosed();
}

TEST_F(RemoteTargetValidatorTest, OtherTypesOnlyOpenAndCloseTheTarget) {
    database.provider.setVolumeChecksum(uuid, 1, ChecksumType::libcrc32c);
    for (const std::uint32_t other : {FULL, DIFFERENTIAL_MERGE}) {
        transport = std::make_shared<test::FakeTransport>(4096);
        attributes.setBackupType(uuid, other);
        FixedGenerator generator(2);
        validate(generator);
        EXPECT_EQ(type(), other);
        EXPECT_THAT(generator.asked, IsEmpty());
        EXPECT_EQ(transport->reads, 0);
        EXPECT_THAT(log.lines(), IsEmpty());
        expectOpenedAndClosed();
    }
}

TEST_F(RemoteTargetValidatorTest, TargetThatRefusesFailsEveryType) {
    for (const std::uint32_t any : {FULL, INCREMENTAL, DIFFERENTIAL_MERGE}) {
        transport = std::make_shared<test::FakeTransport>(4096);
        transport->refusing = true;
        attributes.setBackupType(uuid, any);
        FixedGenerator generator(1);
        EXPECT_EQ(connectionErrorOf(generator),
                  "Failed to open transport connection while validating remote target");
        EXPECT_EQ(type(), any);
        EXPECT_THAT(generator.asked, IsEmpty());
        expectOpenedAndClosed();
    }
}

TEST_F(RemoteTargetValidatorTest, UnreadableTargetFailsAndIsNoDowngrade) {
    database.provider.setVolumeChecksum(uuid, 1, ChecksumType::libcrc32c);
    FixedGenerator generator(std::nullopt);
    EXPECT_EQ(connectionErrorOf(generator), "Failed to generate remote checksum");
    EXPECT_EQ(type(), INCREMENTAL);
    expectOpenedAndClosed();
}

TEST_F(RemoteTargetValidatorTest, TargetSmallerThanTheRegionFails) {
    database.provider.setVolumeChecksum(uuid, 1, ChecksumType::libcrc32c);
    VolumeChecksumGenerator generator(log.logger, transport);
    EXPECT_EQ(connectionErrorOf(generator), "Failed to generate remote checksum");
    expectOpenedAndClosed();
}

TEST_F(RemoteTargetValidatorTest, VolumeThatIsNotPartOfTheBackupClosesTheTargetToo) {
    FixedGenerator generator(1);
    EXPECT_THROW(validator.validate("nowhere", attributes, *transport, generator), std::invalid_argument);
    expectOpenedAndClosed();
}

/// Makes calls 1, 2, 3… to the target fail until none fails any more. Each failure fails the backup and never
/// changes its type.
TEST_F(RemoteTargetValidatorTest, EveryFailingCallToTheTargetFailsTheBackup) {
    transport->image.resize(VolumeChecksumGenerator::regionBytes);
    std::uint32_t sum = 0;
    transport->connect(false);
    ASSERT_TRUE(VolumeChecksumGenerator(log.logger, transport).generate(ChecksumType::libcrc32c, sum));
    database.provider.setVolumeChecksum(uuid, sum, ChecksumType::libcrc32c);
    int call = 1;
    for (bool failed = true; failed; ++call) {
        const auto faulty = std::make_shared<test::FaultyTransport>(transport, call);
        VolumeChecksumGenerator generator(log.logger, faulty);
        try {
            validator.validate(uuid, attributes, *faulty, generator);
            failed = false;
        } catch (const exception::transport_connection_error&) {
            EXPECT_TRUE(faulty->hasFailed()) << "call " << call;
        }
        EXPECT_EQ(failed, faulty->hasFailed()) << "call " << call;
        EXPECT_EQ(type(), INCREMENTAL) << "call " << call;
        EXPECT_FALSE(transport->connected) << "call " << call;
    }
    EXPECT_EQ(call, 5) << "a connect, a seek and a read can fail";
}

} // namespace
} // namespace agent::core::backup
