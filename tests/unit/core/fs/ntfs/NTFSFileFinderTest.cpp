#include "core/fs/ntfs/NTFSFileBlocks.h"
#include "core/fs/ntfs/NTFSParserImpl.h"
#include "support/FaultyVolume.h"
#include "support/NtfsDirectoryImage.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent::core::fs {
namespace {

using test::NtfsDirectoryImage;
using Geometry = NtfsDirectoryImage::Geometry;
using Content = NtfsDirectoryImage::Content;
using Entry = NtfsDirectoryImage::Entry;
using Runs = std::vector<NTFSRun>;

constexpr std::uint64_t root = NtfsDirectoryImage::rootDirectory;
constexpr std::uint64_t directory = 20;
constexpr std::uint64_t file = 30;
constexpr std::uint64_t otherFile = 31;
constexpr std::uint32_t blockSize = 4096;

/// The message of the exception that `call` throws; empty if it throws none.
std::string errorOf(const std::function<void()>& call) {
    try {
        call();
        return "";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

class NTFSFileFinderTest : public testing::Test {
protected:
    NTFSFileFinderTest() { make({}); }

    void make(const Geometry& geometry) {
        image = std::make_unique<NtfsDirectoryImage>(geometry);
        image->setRecord(file, {NtfsDirectoryImage::dataOf({{1000, 7}, {900, 3}})});
        image->setRecord(otherFile, {NtfsDirectoryImage::dataOf({{2000, 1}})});
    }

    Runs find(const std::string& path) { return findIn(image->volume, path).runs; }

    NTFSDataRuns findIn(IVolumeReader& volume, const std::string& path) {
        NTFSParserImpl parser(record.logger, volume, image->geometry.bytesPerSector);
        if (!parser.recognize()) {
            throw std::runtime_error("not recognised");
        }
        image->volume.requests.clear();
        return parser.findFileRuns(path);
    }

    [[nodiscard]] std::string error(const std::string& path) {
        return errorOf([this, &path] { find(path); });
    }

    FileBlocks blocksOf(const std::string& path) {
        return findNTFSFile(record.logger, image->volume, image->geometry.bytesPerSector, path);
    }

    /// Adds an index block to the root directory, as the child of its end entry.
    void setRootBlock(const Content& block) {
        image->setDirectory(root, {{u"b", otherFile, 0}}, 0, {{3000, 1}});
        image->volume.write(3000UL * image->clusterBytes, block);
    }

    /// Makes the root a directory with this node in its index root.
    void setRootNode(const Content& node, std::uint32_t size = blockSize) {
        image->setRecord(root, {NtfsDirectoryImage::indexRootOf(node, size)});
    }

    [[nodiscard]] bool hasRead(std::uint64_t cluster) const {
        const std::uint64_t offset = cluster * image->clusterBytes;
        for (const auto& request : image->volume.requests) {
            if (request.offset <= offset && offset < request.offset + request.length) {
                return true;
            }
        }
        return false;
    }

    static const inline Runs runs{{1000, 7}, {900, 3}};
    static const inline Runs otherRuns{{2000, 1}};
    test::RecordingLogger record;
    std::unique_ptr<NtfsDirectoryImage> image;
};

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

class NTFSFileInPieces : public NTFSFileFinderTest {
protected:
    static constexpr std::uint64_t firstPart = 40;
    static constexpr std::uint64_t secondPart = 41;

    NTFSFileInPieces() {
        image->setDirectory(root, {{u"a", file}});
        setParts(10, 7);
    }

    /// Stores the data attribute in two parts. The first one states how many clusters both have.
    void setParts(std::uint64_t allocated, std::uint64_t secondVcn) {
        image->setRecord(firstPart, {dataOf({{1000, 7}}, 0, allocated)}, file);
        image->setRecord(secondPart, {dataOf({{900, 3}}, secondVcn, 0)}, file);
        setList(list(secondVcn));
    }

    static Content dataOf(const NtfsDirectoryImage::Runs& list, std::uint64_t vcn, std::uint64_t allocated) {
        Content data = NtfsDirectoryImage::dataOf(list, {.lowestVcn = vcn});
        NtfsDirectoryImage::put(data, 40, allocated * 4096, 8);
        return data;
    }

    /// The attribute list's entries for both parts.
    static Content list(std::uint64_t secondVcn) {
        Content bytes(64);
        for (const std::size_t entry : {0UL, 32UL}) {
            NtfsDirectoryImage::put(bytes, entry, NtfsDirectoryImage::data, 4);
            NtfsDirectoryImage::put(bytes, entry + 4, 32, 2);
            NtfsDirectoryImage::put(bytes, entry + 8, entry == 0 ? 0 : secondVcn, 8);
            NtfsDirectoryImage::put(bytes, entry + 16, entry == 0 ? firstPart : secondPart, 6);
        }
        return bytes;
    }

    void setList(const Content& value) {
        image->setRecord(file, {NtfsDirectoryImage::resident(NtfsDirectoryImage::attributeList, value)});
    }

    void setListElsewhere(const Content& value, const NtfsDirectoryImage::Data& fields) {
        Content attribute = NtfsDirectoryImage::dataOf({{3000, 70}}, fields);
        NtfsDirectoryImage::put(attribute, 0, NtfsDirectoryImage::attributeList, 4);
        image->setRecord(file, {attribute});
        image->volume.write(3000UL * 4096, value);
    }
};

TEST_F(NTFSFileInPieces, AllRecordsAreLookedInto) {
    EXPECT_EQ(find("a"), runs);
    EXPECT_EQ(blocksOf("a").runs.size(), 2U);
}

TEST_F(NTFSFileInPieces, ListMayBeInClustersOfItsOwn) {
    setListElsewhere(list(7), {.size = 64, .initialized = 64});
    EXPECT_EQ(find("a"), runs);
    setListElsewhere(list(7), {.size = 256UL * 1024 + 1, .initialized = 256UL * 1024 + 1});
    EXPECT_EQ(error("a"), "NTFS: An attribute list is too large, or isn't plain.");
    setListElsewhere(list(7), {.size = 64, .initialized = 64, .flags = 0x8000});
    EXPECT_EQ(error("a"), "NTFS: An attribute list is too large, or isn't plain.");
    setListElsewhere(list(7), {.size = 64, .initialized = 64});
    image->volume.failReads(3000UL * 4096, 3000UL * 4096 + 1);
    EXPECT_EQ(error("a"), "NTFS: Can't read an attribute list.");
}

TEST_F(NTFSFileInPieces, OwnRecordMayHaveTheFirstPart) {
    Content value = list(7);
    NtfsDirectoryImage::put(value, 16, file, 6);
    image->setRecord(file, {NtfsDirectoryImage::resident(NtfsDirectoryImage::attributeList, value),
                            dataOf({{1000, 7}}, 0, 10)});
    EXPECT_EQ(find("a"), runs);
}

TEST_F(NTFSFileInPieces, OtherAttributesOfARecordArePassedOver) {
    image->setRecord(secondPart,
                     {NtfsDirectoryImage::dataOf({{5, 1}}, {.nameLength = 1, .lowestVcn = 7}),
                      NtfsDirectoryImage::dataOf({{6, 1}}, {.lowestVcn = 8}), dataOf({{900, 3}}, 7, 0)},
                     file);
    EXPECT_EQ(find("a"), runs);
    Content value = list(7);
    value.insert(value.end(), value.begin() + 32, value.end()); // an entry for a named data attribute
    value[64 + 6] = 1;
    setList(value);
    EXPECT_EQ(find("a"), runs);
}

TEST_F(NTFSFileInPieces, PartsFollowEachOther) {
    setParts(11, 8);
    EXPECT_EQ(error("a"), "NTFS: The parts of a file don't follow each other.");
    setParts(9, 6);
    EXPECT_EQ(error("a"), "NTFS: The parts of a file don't follow each other.");
}

TEST_F(NTFSFileInPieces, AllThatIsAllocatedMustBeTold) {
    setParts(11, 7);
    EXPECT_EQ(find("a"), runs);
    EXPECT_EQ(errorOf([this] { blocksOf("a"); }), "not all clusters of the file are told of");
    image->setRecord(file, {dataOf({{1000, 7}}, 0, 8)}); // and without an attribute list
    EXPECT_EQ(errorOf([this] { blocksOf("a"); }), "not all clusters of the file are told of");
}

TEST_F(NTFSFileInPieces, NamedRecordsMustBeThere) {
    const std::string text = "NTFS: Can't read a record that an attribute list names.";
    image->setRecord(secondPart, {dataOf({{900, 3}}, 7, 0)}, otherFile);
    EXPECT_EQ(error("a"), text);
    image->volume.at(image->placeOf(secondPart)) ^= 1U;
    EXPECT_EQ(error("a"), text);
    image->setRecord(secondPart, {dataOf({{900, 3}}, 8, 0)}, file);
    EXPECT_EQ(error("a"), "NTFS: An attribute isn't where the list of its file has it.");
}

TEST_F(NTFSFileInPieces, EntriesOfAListLieWithinIt) {
    for (const std::uint16_t length : {std::uint16_t{0}, std::uint16_t{23}, std::uint16_t{33}}) {
        Content value = list(7);
        NtfsDirectoryImage::put(value, 32 + 4, length, 2);
        setList(value);
        EXPECT_EQ(error("a"), "NTFS: An entry of an attribute list isn't within it.") << length;
    }
    Content value = list(7);
    value.resize(64 + 20);
    setList(value);
    EXPECT_EQ(error("a"), "NTFS: An entry of an attribute list is cut short.");
}

TEST_F(NTFSFileInPieces, SizesAreBounded) {
    const Content hole{0x08, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f};
    Content holes;
    for (int i = 0; i < 3; ++i) {
        holes.insert(holes.end(), hole.begin(), hole.end());
    }
    holes.resize(32);
    image->setRecord(secondPart, {NtfsDirectoryImage::withRunList(holes, {.lowestVcn = 7})}, file);
    EXPECT_EQ(error("a"), "NTFS: A file is larger than a file can be.");
}

// The index of a large, fragmented directory outgrows one record: its root and each part of its allocation
// are in records of their own.
TEST_F(NTFSFileInPieces, IndexOfADirectoryMayBeInSeveralRecordsToo) {
    image->setRecord(otherFile, {NtfsDirectoryImage::dataOf({{2000, 1}})});
    Content entries;
    const auto add = [&entries](std::uint32_t type, std::uint64_t vcn, std::uint64_t number) {
        Content entry(32);
        NtfsDirectoryImage::put(entry, 0, type, 4);
        NtfsDirectoryImage::put(entry, 4, 32, 2);
        NtfsDirectoryImage::put(entry, 8, vcn, 8);
        NtfsDirectoryImage::put(entry, 16, number, 6);
        entries.insert(entries.end(), entry.begin(), entry.end());
    };
    add(NtfsDirectoryImage::indexRoot, 0, 50);
    add(NtfsDirectoryImage::indexAllocation, 0, 51);
    add(NtfsDirectoryImage::indexAllocation, 1, 52);
    image->setRecord(root, {NtfsDirectoryImage::resident(NtfsDirectoryImage::attributeList, entries)});
    image->setRecord(
        50, {NtfsDirectoryImage::indexRootOf(NtfsDirectoryImage::nodeOf({{u"b", otherFile, 0}}, 1))}, root);
    image->setRecord(51, {NtfsDirectoryImage::indexAllocationOf({{3000, 1}})}, root);
    Content second = NtfsDirectoryImage::indexAllocationOf({{3500, 1}});
    NtfsDirectoryImage::put(second, 16, 1, 8);
    image->setRecord(52, {second}, root);
    image->setBlock(3000, 0, NtfsDirectoryImage::nodeOf({{u"a", otherFile}}));
    image->setBlock(3500, 1, NtfsDirectoryImage::nodeOf({{u"c", file}}));
    EXPECT_EQ(find("a"), otherRuns);
    EXPECT_EQ(find("b"), otherRuns);
    EXPECT_EQ(find("c"), runs);
}

TEST_F(NTFSFileFinderTest, RecordOfADirectoryMustBeReadable) {
    image->setDirectory(root, {{u"sub", directory}, {u"beyond", 1U << 30U}});
    EXPECT_EQ(error("sub\\a"), "Could not read MFT record for a");
    EXPECT_EQ(error("beyond\\a"), "Could not read MFT record for a");
}

TEST_F(NTFSFileFinderTest, WhatIsNoDirectoryHasNoIndexOfNames) {
    const std::string text = "Could not find INDEX_ROOT for file x";
    image->setDirectory(root, {{u"a", file}, {u"sub", directory}});
    EXPECT_EQ(error("a\\x"), text);

    Content index = NtfsDirectoryImage::indexRootOf(NtfsDirectoryImage::nodeOf({{u"x", file}}));
    image->setRecord(directory, {index});
    EXPECT_EQ(find("sub\\x"), runs);
    index[24] = 0x31; // not an index of file names
    image->setRecord(directory, {index});
    EXPECT_EQ(error("sub\\x"), text);
    Content clusters = NtfsDirectoryImage::dataOf({{3000, 1}});
    clusters[0] = 0x90;
    image->setRecord(directory, {clusters});
    EXPECT_EQ(error("sub\\x"), text);
    image->setRecord(directory, {NtfsDirectoryImage::resident(NtfsDirectoryImage::indexRoot, Content(31))});
    EXPECT_EQ(error("sub\\x"), text);
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

TEST_F(NTFSFileFinderTest, EntriesLieWithinTheirNode) {
    const std::string text = "Index entry out of bounds in inode for file x";
    const Content good = NtfsDirectoryImage::nodeOf({{u"x", file}, {u"y", file}});
    const auto expect = [this, &good, &text](std::size_t offset, std::uint16_t value) {
        Content node = good;
        node[offset] = static_cast<std::uint8_t>(value);
        node[offset + 1] = static_cast<std::uint8_t>(value >> 8U);
        setRootNode(node);
        EXPECT_EQ(error("x"), text) << offset << ": " << value;
    };
    setRootNode(good);
    ASSERT_EQ(find("x"), runs);
    const auto size = static_cast<std::uint16_t>(good.size());
    expect(0, 0); // the first entry is inside the header
    expect(0, 15);
    expect(0, size); // the first entry is past the end
    expect(0, 0xFFFF);
    expect(4, 15);       // less used than the header's size
    expect(4, size + 1); // more used than there is
    expect(4, 16);       // only the header
    expect(4, 40);       // the first entry extends past the end
    expect(6, 0x8000);
    expect(16 + 8, 15); // an entry shorter than its header
    expect(16 + 8, 81); // without room for a name
    expect(16 + 8, 0xFFFF);
    expect(16 + 16 + 64, 255); // a name longer than its entry
    expect(16 + 12, 1);        // a child VCN that overlaps the name
}

TEST_F(NTFSFileFinderTest, NodeHasALastEntry) {
    Content node = NtfsDirectoryImage::nodeOf({{u"a", file}});
    node[16 + 88 + 12] = 0;
    setRootNode(node);
    EXPECT_EQ(error("b"), "Index entry out of bounds in inode for file b");
    node = NtfsDirectoryImage::nodeOf({{u"a", file}});
    node[16 + 88 + 12] = 3; // flagged as having a child, without room for its VCN
    setRootNode(node);
    EXPECT_EQ(error("b"), "Index entry out of bounds in inode for file b");
}

TEST_F(NTFSFileFinderTest, EntriesHaveALength) {
    Content node = NtfsDirectoryImage::nodeOf({{u"a", file}, {u"x", file}});
    node[16 + 8] = 0;
    setRootNode(node);
    EXPECT_EQ(error("x"), "Zero length index entry for file x");
    setRootBlock(NtfsDirectoryImage::blockOf(0, node));
    EXPECT_EQ(error("x"), "Zero length index entry for file x");
}

TEST_F(NTFSFileFinderTest, NameBetweenEntriesOfALoneRoot) {
    image->setDirectory(root, {{u"b", otherFile}, {u"d", otherFile}});
    for (const char* name : {"a", "c", "e"}) {
        EXPECT_EQ(error(name), std::string("Entry not found - between root entries for file ") + name);
    }
    image->setDirectory(root, {});
    EXPECT_EQ(error("a"), "Entry not found - between root entries for file a");
}

TEST_F(NTFSFileFinderTest, ChildrenNeedAnAllocation) {
    setRootNode(NtfsDirectoryImage::nodeOf({{u"b", otherFile, 0}}, 1));
    EXPECT_EQ(find("b"), otherRuns);
    EXPECT_EQ(error("x"), "Could not find INDEX_ALLOCATION for file x");
    const Content node = NtfsDirectoryImage::nodeOf({}, 0);
    image->setRecord(root, {NtfsDirectoryImage::indexRootOf(node),
                            NtfsDirectoryImage::resident(NtfsDirectoryImage::indexAllocation, Content(8))});
    EXPECT_EQ(error("x"), "Could not find INDEX_ALLOCATION for file x");
}

TEST_F(NTFSFileFinderTest, BlockMustBeTheOneThatIsMeant) {
    const Content good = NtfsDirectoryImage::blockOf(0, NtfsDirectoryImage::nodeOf({{u"x", file}}));
    setRootBlock(good);
    ASSERT_EQ(find("x"), runs);
    for (const std::size_t offset : {0UL, 3UL, 4UL, 6UL, 16UL, 23UL, 40UL, 510UL, 4094UL}) {
        Content bad = good; // in the magic number, update sequence, VCN and ends of sectors
        bad[offset] ^= 1U;
        setRootBlock(bad);
        EXPECT_EQ(error("x"), "Unable to read INDEX ENTRY") << offset;
    }
    setRootBlock(good);
    image->volume.failReads(3000UL * 4096, 3000UL * 4096 + 1);
    EXPECT_EQ(error("x"), "Unable to read INDEX ENTRY");
}

TEST_F(NTFSFileFinderTest, BlockMustBeInTheAllocation) {
    for (const std::uint64_t vcn :
         {std::uint64_t{1}, std::uint64_t{1} << 32U, std::uint64_t{1} << 63U, UINT64_MAX}) {
        image->setDirectory(root, {}, vcn, {{3000, 1}});
        EXPECT_EQ(error("x"), "Unable to read INDEX ENTRY") << vcn;
    }
    make({.sectorsPerCluster = 1});
    image->setDirectory(root, {}, 4, {{3000, 16}}); // in the middle of an index block
    image->setBlock(3004, 4, NtfsDirectoryImage::nodeOf({{u"x", file}}));
    EXPECT_EQ(error("x"), "Unable to read INDEX ENTRY");
}

TEST_F(NTFSFileFinderTest, AllocationIsOnTheVolume) {
    image->setDirectory(root, {}, 0, {{9'999, 2}});
    EXPECT_EQ(error("x"), "NTFS: A run of clusters is outside of the volume.");
    Content allocation = NtfsDirectoryImage::withRunList({0x01, 1, 0x21, 1, 0xb8, 0x0b, 0});
    allocation[0] = 0xA0;
    image->setRecord(root, {NtfsDirectoryImage::indexRootOf(NtfsDirectoryImage::nodeOf({}, 1)), allocation});
    image->setBlock(3000, 1, NtfsDirectoryImage::nodeOf({{u"x", file}}));
    EXPECT_EQ(error("x"), "Unable to read INDEX ENTRY"); // the file has a hole
}

TEST_F(NTFSFileFinderTest, BlockIsReadOnceAtMost) {
    setRootBlock(NtfsDirectoryImage::blockOf(0, NtfsDirectoryImage::nodeOf({{u"c", otherFile}}, 0)));
    EXPECT_EQ(error("x"), "Unable to read INDEX ENTRY");
    EXPECT_LT(image->volume.requests.size(), 10U);
}

TEST_F(NTFSFileFinderTest, LeafHasNoChildren) {
    Content node = NtfsDirectoryImage::nodeOf({{u"c", otherFile}}, 0);
    node[12] = 0;
    setRootBlock(NtfsDirectoryImage::blockOf(0, node));
    EXPECT_EQ(find("c"), otherRuns);
    EXPECT_EQ(error("x"), "Index entry with child node found in a leaf node in directory x");
}

TEST_F(NTFSFileFinderTest, SizesOfAnIndexAreBounded) {
    const std::string text = "Size of index buffer of directory x exceeds maximum limit";
    image->setDirectory(root, {}, 0, {{3000, 64}}, 128 * 1024);
    EXPECT_EQ(error("x"), text);

    Content block = NtfsDirectoryImage::blockOf(0, NtfsDirectoryImage::nodeOf({{u"x", file}}));
    block[24 + 4] = 0xE9; // more than the 4072 bytes after the block's header
    block[24 + 5] = 0x0F;
    setRootBlock(block);
    EXPECT_EQ(error("x"), text);

    make({.clusterCount = 300'000});
    image->setDirectory(root, {}, 0, {{3000, 262'144}}); // 1 GiB
    image->setBlock(3000, 0, NtfsDirectoryImage::nodeOf({{u"x", file}}));
    EXPECT_EQ(find("x"), runs);
    image->setDirectory(root, {}, 0, {{3000, 262'145}});
    EXPECT_EQ(error("x"), text);
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
