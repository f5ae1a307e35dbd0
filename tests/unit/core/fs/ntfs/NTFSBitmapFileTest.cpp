#include "unit/core/fs/ntfs/NTFSParserFixture.h"

namespace agent::core::fs {
namespace {

using Content = NtfsImage::Content;
using Runs = NtfsImage::Runs;

TEST_F(NTFSParserTest, DamagedRecordOfTheBitmapGivesNoRuns) {
    const std::uint64_t record6 = 22'528;
    const auto damage = [this, record6](std::uint64_t offset) {
        make({});
        ASSERT_EQ(image->placeOf(6), record6);
        image->volume.at(offset) ^= 0xFF;
        expectTooSmall("Unable to read inode 6");
    };
    damage(record6);
    EXPECT_TRUE(hasDebug("MFT record 6 is invalid."));
    damage(record6 + 44);   // the record's number
    damage(record6 + 510);  // the end of its first sector
    damage(record6 + 1022); // the end of its second sector
    make({});
    image->volume.failReads(record6, record6 + 1);
    expectTooSmall("Unable to read inode 6");
    make({});
    image->volume.size = record6 + 512;
    expectTooSmall("Unable to read inode 6");
}

TEST_F(NTFSParserTest, RecordThatDoesNotKnowItsNumberIsTaken) {
    make({});
    image->setRecord(6, {NtfsImage::dataOf(image->bitmap)}, 0, false);
    EXPECT_EQ(parse(), clusterBits);
}

TEST_F(NTFSParserTest, WithoutTheOwnRecordOfTheTableThereAreNoRuns) {
    make({});
    image->volume.at(image->placeOf(0) + 44) = 1;
    expectTooSmall("Unable to read inode 6");
    image->setRecord(0, {});
    expectTooSmall("Unable to read inode 6");
    image->setRecord(0, {NtfsImage::dataOf(Runs{})});
    expectTooSmall("Unable to read inode 6");
    image->setRecord(0, {NtfsImage::dataOf({{4, 1}})}); // only 4 records
    expectTooSmall("Unable to read inode 6");
}

TEST_F(NTFSParserTest, TableMayBeInPieces) {
    make({});
    image->setTable({{4, 1}, {900, 1}, {40, 2}});
    image->setBitmap({{2000, 1}});
    EXPECT_EQ(parse(), clusterBits);
    EXPECT_TRUE(hasDebug("Reading $MFT for inode 6 at offset " + std::to_string(900 * 4096 + 2 * 1024)));
}

TEST_F(NTFSParserTest, RecordInTwoPiecesIsRefused) {
    make({.sectorsPerCluster = 1});
    image->setTable({{4, 13}, {900, 20}}); // record 6 is in clusters 12 and 13 of the MFT
    expectRefusal("NTFS: A file record is in two pieces.");
}

TEST_F(NTFSParserTest, BitmapThatIsTooSmall) {
    make({.clusterCount = 60'000});
    image->setRecord(6, {NtfsImage::dataOf({{900, 1}})});
    expectFailure(
        -226, "Sanity check failed on total bytes from BootRecord: 60000 vs total bytes from Bitmap: 32768");
    image->setRecord(6, {NtfsImage::dataOf(Runs{})});
    expectFailure(-226,
                  "Sanity check failed on total bytes from BootRecord: 60000 vs total bytes from Bitmap: 0");
}

TEST_F(NTFSParserTest, RecordWithoutDataHasNoRuns) {
    make({});
    image->setRecord(6, {NtfsImage::resident(NtfsImage::fileName, {1, 2, 3})});
    expectTooSmall("Could not find $DATA attribute in inode 6");
    EXPECT_TRUE(hasDebug("Searching for attribute 32"));
    EXPECT_TRUE(hasDebug("Could not find $DATA for inode 6"));
}

TEST_F(NTFSParserTest, DataIsFoundBehindOtherAttributes) {
    make({});
    image->setRecord(6, {NtfsImage::resident(0x10, Content(48)),
                         NtfsImage::resident(NtfsImage::fileName, Content(99)),
                         NtfsImage::dataOf(image->bitmap)});
    EXPECT_EQ(parse(), clusterBits);
}

TEST_F(NTFSParserTest, DataMayBeBehindAnAttributeList) {
    make({});
    setListed({{0x10, 6}, {NtfsImage::data, 20}});
    EXPECT_EQ(parse(), clusterBits);
    EXPECT_EQ(used(10'000).size(), 18U);
    EXPECT_EQ(debugLines(), (std::vector<std::string>{
                                "Searching for attribute 128", "Reading $MFT for inode 6 at offset 22528",
                                "Searching for attribute 128", "Could not find $DATA attribute in inode 6",
                                "Searching for attribute 32", "Searching for $DATA in ATTRIBUTE LIST",
                                "Found $DATA in inode 20 for base inode 6", "Searching for attribute 128",
                                "Reading $MFT for inode 20 at offset 36864", "Searching for attribute 128"}));
}

TEST_F(NTFSParserTest, AttributeListThatIsNotResident) {
    make({});
    Content list = NtfsImage::dataOf(image->bitmap);
    list[0] = NtfsImage::attributeList;
    image->setRecord(6, {list});
    expectTooSmall("Support for non resident ATTRIBUTE LIST not yet added.");
}

TEST_F(NTFSParserTest, AttributeListEndsInThreeWays) {
    make({});
    setListed({{0x10, 6}, {NtfsImage::data, 20, 0}});
    expectTooSmall("No more entries in ATTRIBUTE LIST");
    setListed({{0x10, 6}, {NtfsImage::end, 6}, {NtfsImage::data, 20}});
    expectTooSmall("Found End attribute in ATTRIBUTE LIST, nothing more to traverse");
    setListed({{0x10, 6}, {0x30, 6}});
    expectTooSmall("Got the end of the ATTRIBUTE LIST");
    setListed({});
    expectTooSmall("Got the end of the ATTRIBUTE LIST");
}

TEST_F(NTFSParserTest, WalkOfAnAttributeListGoesOn) {
    make({});
    setListed({{NtfsImage::data, 21}, {NtfsImage::data, 22}, {NtfsImage::data, 23}, {NtfsImage::data, 20}});
    image->setRecord(22, {NtfsImage::dataOf(image->bitmap)}, 5);
    image->setRecord(23, {}, 6);
    EXPECT_EQ(parse(), clusterBits);
    EXPECT_TRUE(hasDebug("Could not read inode 21"));
    EXPECT_TRUE(hasDebug("External inode 22 doesn't refer to base inode 6"));
    EXPECT_TRUE(hasDebug("Could not find $DATA in attribute list inode 23"));
    EXPECT_TRUE(hasDebug("Found $DATA in inode 20 for base inode 6"));
}

TEST_F(NTFSParserTest, RecordsThatAttributeListsNameMayBeAnywhere) {
    for (const std::uint64_t record : {64UL, 10'000UL, 39'999UL, 40'000UL, 40'001UL, 0xFFFF'FFFF'FFFFUL}) {
        make({});
        setListed({{NtfsImage::data, record}});
        expectTooSmall("Could not read inode " + std::to_string(record));
    }
}

// Only the runs of the first part are used.
TEST_F(NTFSParserTest, DataInSeveralPartsIsTooSmall) {
    make({.clusterCount = 60'000});
    setListed({{NtfsImage::data, 20}, {NtfsImage::data, 21}});
    image->setRecord(20, {NtfsImage::dataOf({{900, 1}})}, 6);
    image->setRecord(21, {NtfsImage::dataOf({{950, 1}}, {.lowestVcn = 1})}, 6);
    expectFailure(
        -226, "Sanity check failed on total bytes from BootRecord: 60000 vs total bytes from Bitmap: 32768");
}

TEST_F(NTFSParserTest, LaterPartIsNotTheBegin) {
    make({});
    setListed({{NtfsImage::data, 21}, {NtfsImage::data, 20}});
    image->setRecord(20, {NtfsImage::dataOf(image->bitmap, {.lowestVcn = 1})}, 6);
    expectRefusal("NTFS: The data that was found isn't the begin of its file.");
}

TEST_F(NTFSParserTest, BrokenEntriesOfAnAttributeListAreRefused) {
    make({});
    for (const std::uint16_t length : {std::uint16_t{1}, std::uint16_t{23}}) {
        setListed({{0x10, 6, length}, {NtfsImage::data, 20}});
        expectRefusal("NTFS: An entry of an attribute list isn't within it.");
    }
    setListed({{0x10, 6, 65}, {NtfsImage::data, 20}});
    expectRefusal("NTFS: An entry of an attribute list isn't within it.");
    setListed({{0x10, 6, 48}, {NtfsImage::data, 20}}); // only 16 bytes are left
    expectRefusal("NTFS: An entry of an attribute list is cut short.");
    Content list = NtfsImage::attributeListOf({{NtfsImage::data, 20}});
    for (const std::size_t field : {16U, 17U, 20U}) { // the length of the value, and its offset
        Content broken = list;
        broken[field] += 100;
        image->setRecord(6, {broken});
        expectRefusal("NTFS: The value of an attribute is outside of it.");
    }
}

TEST_F(NTFSParserTest, BrokenRunListsAreExceptions) {
    make({});
    image->setRecord(6, {NtfsImage::withRunList({0x19, 1, 0, 0, 0, 0, 0, 0})});
    expectBroken("Invalid runlist");
    image->setRecord(6, {NtfsImage::withRunList({0x72, 1, 0, 1, 0, 0, 0, 0})});
    expectBroken("Corrupt runlist");
    Content farAway = NtfsImage::dataOf(image->bitmap);
    farAway[32] = static_cast<std::uint8_t>(farAway.size() + 1);
    image->setRecord(6, {farAway});
    expectBroken("No run list can be found");
    image->setRecord(6, {NtfsImage::resident(NtfsImage::data, {1, 2, 3})});
    expectBroken("Attribute is resident. Can't find data-runs.");
}

TEST_F(NTFSParserTest, DataThatIsNotPlainIsRefused) {
    make({});
    for (const std::uint16_t flags : {std::uint16_t{0x0001}, std::uint16_t{0x4000}, std::uint16_t{0x8000}}) {
        image->setRecord(6, {NtfsImage::dataOf(image->bitmap, {.flags = flags})});
        expectRefusal("NTFS: The data is compressed, encrypted or sparse.");
    }
    image->setRecord(6, {NtfsImage::dataOf(image->bitmap, {.nameLength = 4})});
    expectRefusal("NTFS: The data that was found has a name, so it isn't the content of its file.");
    image->setRecord(6, {NtfsImage::dataOf(image->bitmap, {.lowestVcn = 1})});
    expectRefusal("NTFS: The data that was found isn't the begin of its file.");
}

TEST_F(NTFSParserTest, TableThatIsNotPlainIsRefused) {
    make({});
    image->setRecord(0, {NtfsImage::dataOf(image->table, {.flags = 0x8000})});
    expectRefusal("NTFS: The data is compressed, encrypted or sparse.");
    image->setRecord(0, {NtfsImage::dataOf(image->table, {.lowestVcn = 1})});
    expectRefusal("NTFS: The data that was found isn't the begin of its file.");
}

TEST_F(NTFSParserTest, BitmapMustHaveBeenWrittenUpToTheLastCluster) {
    make({});
    image->setRecord(6, {NtfsImage::dataOf(image->bitmap, {.size = 1250, .initialized = 1250})});
    EXPECT_EQ(parse(), clusterBits);
    const std::string reason = "NTFS: The bitmap has not been written as far as the volume goes.";
    image->setRecord(6, {NtfsImage::dataOf(image->bitmap, {.size = 1249})});
    expectRefusal(reason);
    image->setRecord(6, {NtfsImage::dataOf(image->bitmap, {.initialized = 1249})});
    expectRefusal(reason);
    make({.clusterCount = 10'001}); // one more cluster, whose bit is in another byte
    image->setRecord(6, {NtfsImage::dataOf(image->bitmap, {.size = 1250})});
    expectRefusal(reason);
}

TEST_F(NTFSParserTest, RunsOutsideOfTheVolumeAreRefused) {
    make({});
    const std::string reason = "NTFS: A run of clusters is outside of the volume.";
    for (const Runs& runs : {Runs{{0, 1}}, Runs{{-1, 1}}, Runs{{-500, 1}}, Runs{{10'000, 1}},
                             Runs{{9'999, 2}}, Runs{{1, INT64_MAX}}, Runs{{INT64_MAX, INT64_MAX}},
                             Runs{{500, 1}, {300, -1}, {INT64_MAX, 1}}, Runs{{1000, 9000}, {500, 1001}}}) {
        image->setRecord(6, {NtfsImage::dataOf(runs)});
        EXPECT_EQ(parse(), -1);
        EXPECT_TRUE(record.has(info::level::error, reason) ||
                    record.has(info::level::error, "NTFS: A run of clusters has no length."));
    }
    image->setRecord(6, {NtfsImage::dataOf({{9'999, 1}})});
    image->bitmap = {{9'999, 1}};
    image->useAll();
    EXPECT_EQ(parse(), clusterBits);
}

TEST_F(NTFSParserTest, RunsWithoutAPlaceAreRefused) {
    make({.clusterCount = 60'000});
    image->setRecord(6, {NtfsImage::withRunList({0x11, 1, 100, 0x01, 1, 0x11, 1, 50, 0})});
    expectRefusal("NTFS: A run of clusters has no place on the volume.");
}

} // namespace
} // namespace agent::core::fs
