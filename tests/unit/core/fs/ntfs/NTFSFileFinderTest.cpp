#include "support/FaultyVolume.h"
#include "unit/core/fs/ntfs/NTFSFileFinderFixture.h"

#include <clocale>

namespace agent::core::fs {
namespace {

TEST_F(NTFSFileFinderTest, FileOfTheRoot) {
    image->setDirectory(root, {{u"a", otherFile}, {u"mail.pst", file}, {u"z", otherFile}});
    EXPECT_EQ(find("mail.pst"), runs);
    EXPECT_EQ(find("\\mail.pst"), runs);
    EXPECT_EQ(find("\\\\mail.pst\\"), runs);
    EXPECT_EQ(find("z"), otherRuns);
}

TEST_F(NTFSFileFinderTest, FileOfADirectoryOfADirectory) {
    image->setDirectory(root, {{u"Users", directory}});
    image->setDirectory(directory, {{u"ada", directory + 1}});
    image->setDirectory(directory + 1, {{u"mail.pst", file}});
    EXPECT_EQ(find("\\Users\\ada\\mail.pst"), runs);
    EXPECT_EQ(error("Users/ada/mail.pst"),
              "Entry not found - between root entries for file Users/ada/mail.pst");
    EXPECT_EQ(error("Users\\ada\\mail"), "Entry not found - between root entries for file mail");
}

TEST_F(NTFSFileFinderTest, UpperAndLowerCaseAreOne) {
    image->setDirectory(root, {{u"ReadMe", file}, {u"\u00c4rger \u0416", otherFile}});
    EXPECT_EQ(find("rEADmE"), runs);
    EXPECT_EQ(find("\u00e4RGER \u0436"), otherRuns);
}

TEST_F(NTFSFileFinderTest, CharactersOutsideOfTheBasicPlaneAreTwoUnits) {
    image->setDirectory(root, {{u"a", otherFile}, {u"\U0001F600x", file}});
    EXPECT_EQ(find("\U0001F600X"), runs);
}

TEST_F(NTFSFileFinderTest, HalvesOfPairsAreNamesToo) {
    image->setDirectory(root, {{{0xD83D}, otherFile},
                               {{0xDE00, 0xD83D}, otherFile},
                               {{0xD83D, u'x'}, otherFile},
                               {u"\uffee", file}});
    EXPECT_EQ(find("\uffee"), runs);
}

TEST_F(NTFSFileFinderTest, PathIsUtf8) {
    EXPECT_EQ(error("\xc4rger"), "A part of the path is not UTF-8: \xc4rger");
}

// The daemon sets no locale, and other threads have their own.
TEST_F(NTFSFileFinderTest, LanguageOfTheThreadStaysAsItWas) {
    image->setDirectory(root, {{u"a", file}});
    ASSERT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C");
    const locale_t before = ::uselocale(nullptr);
    EXPECT_EQ(find("a"), runs);
    EXPECT_EQ(::uselocale(nullptr), before);
    EXPECT_NE(error("b"), "");
    EXPECT_EQ(::uselocale(nullptr), before);
}

// Only the nodes on the path to the name are read.
TEST_F(NTFSFileFinderTest, TreeIsDescended) {
    image->setDirectory(root, {{u"h", otherFile, 0}, {u"p", otherFile, 1}}, 2, {{3000, 4}});
    image->setBlock(3000, 0, NtfsDirectoryImage::nodeOf({{u"c", otherFile}}));
    image->setBlock(3001, 1, NtfsDirectoryImage::nodeOf({{u"k", otherFile}}, 3));
    image->setBlock(3002, 2, NtfsDirectoryImage::nodeOf({{u"x", otherFile}}));
    image->setBlock(3003, 3, NtfsDirectoryImage::nodeOf({{u"l", otherFile}, {u"m", file}}));
    EXPECT_EQ(find("m"), runs);
    EXPECT_TRUE(hasRead(3001) && hasRead(3003));
    EXPECT_FALSE(hasRead(3000) || hasRead(3002));
    for (const char* name : {"c", "h", "k", "l", "p", "x"}) {
        EXPECT_EQ(find(name), otherRuns) << name;
    }
    for (const char* name : {"a", "n", "z"}) {
        EXPECT_EQ(error(name), std::string("Could not find entry for file ") + name);
    }
}

// The volume compares names in upper case, where "_" sorts after letters. In the C library it sorts before
// lower case.
TEST_F(NTFSFileFinderTest, NamesInTheOrderOfTheVolumeAreFound) {
    image->setDirectory(root, {{u"ab", otherFile}, {u"a_b", file}});
    EXPECT_EQ(find("a_b"), runs);
    image->setDirectory(root, {{u"ab", otherFile, 0}}, 1, {{3000, 2}});
    image->setBlock(3000, 0, NtfsDirectoryImage::nodeOf({{u"aa", otherFile}}));
    image->setBlock(3001, 1, NtfsDirectoryImage::nodeOf({{u"a_b", file}}));
    EXPECT_EQ(find("a_b"), runs);
    EXPECT_EQ(error("a_c"), "Could not find entry for file a_c");
}

// If an index block is smaller than a cluster, VCNs count units of 512 bytes.
TEST_F(NTFSFileFinderTest, BlocksSmallerThanAClusterAreCountedInSmallUnits) {
    make({.sectorsPerCluster = 128, .clusterCount = 4000});
    image->setDirectory(root, {{u"b", otherFile, 16}}, 128, {{50, 1}, {70, 1}});
    image->volume.write(50UL * 65536 + 2UL * blockSize,
                        NtfsDirectoryImage::blockOf(16, NtfsDirectoryImage::nodeOf({{u"a", file}})));
    image->volume.write(70UL * 65536,
                        NtfsDirectoryImage::blockOf(128, NtfsDirectoryImage::nodeOf({{u"c", otherFile}})));
    EXPECT_EQ(find("a"), runs);
    EXPECT_EQ(find("c"), otherRuns);
}

TEST_F(NTFSFileFinderTest, BlockOfSeveralClustersMayBeInPieces) {
    make({.sectorsPerCluster = 1});
    image->setDirectory(root, {{u"b", otherFile, 0}}, 8, {{3000, 11}, {3100, 1}, {3050, 4}});
    const auto write = [this](std::uint64_t cluster, const Content& block, std::uint64_t from,
                              std::uint64_t sectors) {
        image->volume.write(cluster * 512, std::span(block).subspan(from * 512, sectors * 512));
    };
    const Content first = NtfsDirectoryImage::blockOf(0, NtfsDirectoryImage::nodeOf({{u"a", otherFile}}));
    NtfsDirectoryImage::Entries many;
    for (char16_t letter = u'c'; letter <= u'z'; ++letter) {
        many.push_back({std::u16string(30, letter), letter == u'y' ? file : otherFile});
    }
    const Content second = NtfsDirectoryImage::blockOf(8, NtfsDirectoryImage::nodeOf(many));
    write(3000, first, 0, 8);
    write(3008, second, 0, 3);
    write(3100, second, 3, 1);
    write(3050, second, 4, 4);
    EXPECT_EQ(find("a"), otherRuns);
    EXPECT_EQ(find(std::string(30, 'y')), runs);
}

TEST_F(NTFSFileFinderTest, BlocksHaveAnySizeOfAPowerOfTwo) {
    for (const std::uint32_t size : {512U, 1024U, 4096U, 65536U}) {
        const std::uint64_t second = size >= image->clusterBytes ? size / image->clusterBytes : size / 512;
        image->setDirectory(root, {{u"b", otherFile, second}}, 0, {{3000, 32}}, size);
        image->volume.write(
            3000UL * image->clusterBytes + size,
            NtfsDirectoryImage::blockOf(second, NtfsDirectoryImage::nodeOf({{u"a", file}}), size));
        EXPECT_EQ(find("a"), runs) << size;
    }
}

TEST_F(NTFSFileFinderTest, HolesAreNoBlocks) {
    image->setDirectory(root, {{u"sparse", file}});
    image->setRecord(file, {NtfsDirectoryImage::withRunList(
                               {0x02, 0xff, 0x7f, 0x11, 2, 100, 0x01, 9, 0x11, 1, 5, 0}, {.flags = 0x8000})});
    EXPECT_EQ(find("sparse"), (Runs{{0, 0x7fff, true}, {100, 2}, {100, 9, true}, {105, 1}}));
    const FileBlocks blocks = blocksOf("sparse");
    EXPECT_EQ(blocks.runs, (std::vector<FileBlocks::Run>{{100, 2}, {105, 1}}));
    EXPECT_EQ(blocks.blockSize, 4096U);
}

TEST_F(NTFSFileFinderTest, HolesMayBeLargerThanAnyDisk) {
    image->setDirectory(root, {{u"sparse", file}});
    const Content hole{0x08, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f};
    Content list;
    for (int i = 0; i < 3; ++i) {
        list.insert(list.end(), hole.begin(), hole.end());
    }
    list.insert(list.end(), {0x11, 2, 100, 0});
    image->setRecord(file, {NtfsDirectoryImage::withRunList(list)});
    EXPECT_EQ(blocksOf("sparse").runs, (std::vector<FileBlocks::Run>{{100, 2}}));
}

TEST_F(NTFSFileFinderTest, CompressedFileHasTheClustersOfItsPieces) {
    image->setDirectory(root, {{u"a", file}});
    image->setRecord(file, {NtfsDirectoryImage::withRunList({0x11, 5, 100, 0x01, 11, 0}, {.flags = 0x0001})});
    EXPECT_EQ(blocksOf("a").runs, (std::vector<FileBlocks::Run>{{100, 5}}));
}

TEST_F(NTFSFileFinderTest, FileOfNoClusters) {
    image->setDirectory(root, {{u"small", file}, {u"sub", directory}});
    image->setRecord(file, {NtfsDirectoryImage::resident(NtfsDirectoryImage::data, Content(5))});
    image->setDirectory(directory, {});
    EXPECT_EQ(error("small"), "Attribute is resident. Can't find data-runs.");
    EXPECT_EQ(error("sub"), "Could not find data runs for file sub");
    EXPECT_EQ(error("\\"), "Could not find data runs for file \\");
}

TEST_F(NTFSFileFinderTest, UnreadableRecordOfTheFileIsNotAFileWithoutClusters) {
    image->setDirectory(root, {{u"a", file}});
    image->volume.at(image->placeOf(file)) ^= 1U;
    EXPECT_EQ(error("a"), "Could not find data runs for file a");
}

TEST_F(NTFSFileFinderTest, DataOfANameAreNotTheContent) {
    image->setDirectory(root, {{u"a", file}});
    image->setRecord(file, {NtfsDirectoryImage::dataOf({{1000, 7}}, {.nameLength = 4})});
    EXPECT_EQ(error("a"), "NTFS: The data that was found has a name, so it isn't the content of its file.");
}

TEST_F(NTFSFileFinderTest, RunsOutsideOfTheVolumeAreRefused) {
    image->setDirectory(root, {{u"a", file}});
    image->setRecord(file, {NtfsDirectoryImage::dataOf({{9'999, 2}})});
    EXPECT_EQ(error("a"), "NTFS: A run of clusters is outside of the volume.");
}

TEST_F(NTFSFileFinderTest, SizeOfBlocksIsAPowerOfTwoAndNoLessThanASector) {
    for (const std::uint32_t size : {0U, 1U, 256U, 511U, 513U, 1536U, 4095U, 0x80000001U, 0xFFFFFFFFU}) {
        setRootNode(NtfsDirectoryImage::nodeOf({{u"x", file}}), size);
        EXPECT_EQ(error("x"), "Invalid index block size") << size;
    }
    for (const std::uint32_t size : {512U, 0x80000000U}) {
        setRootNode(NtfsDirectoryImage::nodeOf({{u"x", file}}), size);
        EXPECT_EQ(find("x"), runs) << size;
    }
}

TEST_F(NTFSFileFinderTest, VolumeWithAnObjectionHasNoFiles) {
    image->setDirectory(root, {{u"a", file}});
    NTFSParserImpl parser(record.logger, image->volume, 4096);
    ASSERT_TRUE(parser.recognize());
    EXPECT_EQ(errorOf([&parser] { static_cast<void>(parser.findFileRuns("a")); }),
              "NTFS: The volume has sectors of 512 bytes and its device of 4096.");
}

TEST_F(NTFSFileFinderTest, OtherVolumesAreRefused) {
    image->volume.at(3) = 'X';
    EXPECT_EQ(errorOf([this] { blocksOf("a"); }), "the volume is not NTFS");
}

TEST_F(NTFSFileFinderTest, EachReadMayFail) {
    image->setDirectory(root, {{u"sub", directory}});
    image->setDirectory(directory, {{u"b", otherFile, 0}}, 1, {{3000, 2}});
    image->setBlock(3001, 1, NtfsDirectoryImage::nodeOf({{u"x", file}}));
    int failures = 0;
    for (int call = 1;; ++call) {
        test::FaultyVolume faulty(image->volume, call);
        const std::string reason = errorOf([&] { EXPECT_EQ(findIn(faulty, "sub\\x").runs, runs); });
        if (!faulty.hasFailed()) {
            break;
        }
        failures += reason.empty() ? 0 : 1; // the record of the file is read twice
    }
    EXPECT_GE(failures, 10);
}

} // namespace
} // namespace agent::core::fs
