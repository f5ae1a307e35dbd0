#include "unit/core/fs/ntfs/NTFSFileFinderFixture.h"

namespace agent::core::fs {
namespace {

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

} // namespace
} // namespace agent::core::fs
