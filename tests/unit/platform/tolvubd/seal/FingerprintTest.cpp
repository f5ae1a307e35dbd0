#include "seal/Fingerprint.h"

#include "FileSystemImage.h"
#include "SealedDevice.h"
#include "seal/Trust.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <sys/mman.h>
#include <vector>

/// Whether real file systems show that they were changed while the driver wasn't tracking.
namespace tolvubd {
namespace {

using test::FileSystemImage;

/// Shell commands, and whether the file system shows that they have written to it.
struct UntrackedChange {
    const char* commands;
    bool isSeen;
};

constexpr const char* writeAndStop = "echo 2 > $r/second; sync; echo 3 > $r/third; sync $r/third; stop";

/// The seal of a machine that was shut down cleanly, and took the fingerprint after the last write.
Seal cleanSeal(const FileSystemImage& image) {
    Seal seal = test::makeSeal();
    seal.end = Seal::End::clean;
    seal.fingerprint = image.fingerprint();
    return seal;
}

/// The seal of a machine that took the fingerprint while the file system was mounted, and then crashed.
Seal openSeal(const FileSystemImage& image) {
    image.run("m rw; sync -f $r; keep; " + std::string(writeAndStop) + "; mv $i $i.later; back");
    Seal seal = test::makeSeal();
    seal.fingerprint = image.fingerprint();
    image.run("mv $i.later $i");
    return seal;
}

void expectToSee(const FileSystemImage& image, const Seal& seal, const std::vector<UntrackedChange>& table) {
    image.run("keep");
    for (const auto& [commands, isSeen] : table) {
        image.run(std::string("back; ") + commands);
        const std::optional<std::string> reason = reasonForDoubt(seal, image.fingerprint(), test::bootId);
        EXPECT_EQ(reason.has_value(), isSeen) << commands << ": " << reason.value_or("");
    }
}

TEST(Fingerprint, OfExtAtRestChangesWithEachWriter) {
    const FileSystemImage image("mkfs.ext4 -q");
    expectToSee(image, cleanSeal(image),
                {{"true", false},
                 {"m ro; cat $r/first; u", false},
                 {"m ro,noload; u", false},
                 {"m rw; u", true},
                 {"m rw; stop", true},
                 {"m ro; mount -o remount,rw $r; stop", true},
                 {"e2fsck -fp $i", true},
                 {"e2fsck -p $i", true},
                 {"tune2fs -L other $i", true},
                 {"mkfs.ext4 -q -F $i", true},
                 {"mkfs.xfs -q -f $i", true}});
}

TEST(Fingerprint, OfExtAfterACrashChangesWithEachWriter) {
    const FileSystemImage image("mkfs.ext4 -q");
    expectToSee(image, openSeal(image),
                {{"true", false},
                 {"m ro,noload; u", false},
                 {"e2fsck -n $i || true", false},
                 {"m ro; u", true},
                 {"m ro; mount -o remount,rw $r; stop", true},
                 {"m rw; u", true},
                 {"m rw; stop", true},
                 {"e2fsck -p $i || true", true},
                 {"e2fsck -E journal_only -p $i || true", true}});
}

TEST(Fingerprint, OfXfsAtRestChangesWithEachWriter) {
    const FileSystemImage image("mkfs.xfs -q");
    expectToSee(image, cleanSeal(image),
                {{"true", false},
                 {"m ro,norecovery; u", false},
                 {"xfs_repair -n $i", false},
                 {"m rw; stop", false}, // nothing has been written yet
                 {"m ro; u", true},
                 {"m rw; echo 2 > $r/second; u", true},
                 {"m rw; echo 2 > $r/second; sync -f $r; stop", true},
                 {"xfs_repair $i", true},
                 {"xfs_admin -L other $i", true},
                 {"mkfs.xfs -q -f $i", true},
                 {"mkfs.ext4 -q -F $i", true}});
}

TEST(Fingerprint, OfXfsAfterACrashChangesWithEachWriterThatEnds) {
    const FileSystemImage image("mkfs.xfs -q");
    expectToSee(image, openSeal(image),
                {{"true", false},
                 {"m ro,norecovery; u", false},
                 {"m ro; u", true},
                 {"m rw; u", true},
                 {"m rw; echo 4 > $r/fourth; u", true},
                 {"xfs_repair -L $i", true}});
}

TEST(Fingerprint, OfExtWhichIsMountedReadOnlyStaysWhenItIsUnmounted) {
    const FileSystemImage image("mkfs.ext4 -q");
    image.run("m rw; echo 2 > $r/second; mount -o remount,ro $r; keep; u; mv $i $i.later; back");
    const std::optional<Fingerprint> before = image.fingerprint();
    ASSERT_TRUE(before && before->isClean);
    image.run("mv $i.later $i");
    EXPECT_EQ(image.fingerprint(), before);
}

TEST(Fingerprint, TellsWhetherThereIsAnythingToReplay) {
    for (const char* make : {"mkfs.ext4 -q", "mkfs.ext3 -q", "mkfs.xfs -q"}) {
        const FileSystemImage image(make);
        const std::optional<Fingerprint> atRest = image.fingerprint();
        ASSERT_TRUE(atRest && atRest->isClean) << make;
        image.run(std::string("m rw; ") + writeAndStop);
        const std::optional<Fingerprint> crashed = image.fingerprint();
        ASSERT_TRUE(crashed && !crashed->isClean) << make;
        EXPECT_NE(crashed->content, atRest->content) << make;
    }
}

TEST(Fingerprint, OfExtHasTheJournal) {
    for (const char* make : {"mkfs.ext4 -q", "mkfs.ext4 -q -O ^64bit -b 1024", "mkfs.ext3 -q"}) {
        const FileSystemImage image(make);
        const std::optional<Fingerprint> before = image.fingerprint();
        ASSERT_TRUE(before);
        const std::string sequence =
            image.run("dumpe2fs -h $i 2>/dev/null | sed -n \"s/Journal sequence: *//p\"");
        EXPECT_TRUE(
            before->content.ends_with(" journal " + std::to_string(std::stoul(sequence, nullptr, 16)) + ":0"))
            << before->content;
    }
}

TEST(Fingerprint, IsNoneWithoutAJournalOfItsOwn) {
    EXPECT_EQ(FileSystemImage("mkfs.ext4 -q -O ^has_journal").fingerprint(), std::nullopt);
    EXPECT_EQ(FileSystemImage("mkfs.ext2 -q").fingerprint(), std::nullopt);
}

TEST(Fingerprint, IsNoneOfWhatIsNoFileSystem) {
    const os::FileDescriptor empty(::memfd_create("device", MFD_CLOEXEC));
    EXPECT_EQ(readFingerprint(empty, 0), std::nullopt);
    writeAt(empty, std::vector<std::byte>(std::size_t{1} << 20), 0);
    EXPECT_EQ(readFingerprint(empty, std::uint64_t{1} << 20), std::nullopt);
}

} // namespace
} // namespace tolvubd
