#include "unit/core/fs/ntfs/NTFSFileFinderFixture.h"

namespace agent::core::fs {
namespace {

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

} // namespace
} // namespace agent::core::fs
