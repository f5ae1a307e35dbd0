#include "support/LoopFileSystem.h"
#include "unit/core/backup/phase/BackupOfVolumesFixture.h"

#include <regex>
#include <sstream>

namespace agent::core::backup::phase {
namespace {

/// An ext4 made by the system's e2fsprogs and mounted read-only, as a snapshot is. Those tools also say which
/// blocks are used.
class MadeFileSystem {
    test::TestDirectory directory;

public:
    static constexpr std::uint64_t blockSize = 4096;
    static constexpr std::uint64_t blockCount = 4096;

    explicit MadeFileSystem(const std::map<std::string, std::string>& files)
        : root(directory / "root"), image(directory / "image") {
        const std::string tree = directory / "tree";
        dir::make(tree);
        dir::make(root);
        for (const auto& [name, content] : files) {
            test::writeFile(tree + "/" + name, content);
        }
        test::outputOf("mkfs.ext4 -q -b 4096 -d " + tree + " " + image + " 16M");
        test::outputOf("mount -o loop,ro " + image + " " + root);
    }
    MadeFileSystem(const MadeFileSystem&) = delete;
    MadeFileSystem& operator=(const MadeFileSystem&) = delete;
    ~MadeFileSystem() {
        try {
            test::outputOf("umount " + root);
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the namespace ends it
        }
    }

    [[nodiscard]] std::vector<bool> usedBlocks() const {
        std::vector<bool> used(blockCount, true);
        std::istringstream lines(test::outputOf("dumpe2fs " + image + " 2>/dev/null"));
        for (std::string line; std::getline(lines, line);) {
            const std::size_t list = line.find("  Free blocks: ");
            if (list == 0) {
                clear(used, line);
            }
        }
        return used;
    }

    [[nodiscard]] std::vector<std::uint64_t> blocksOf(const std::string& name) const {
        std::istringstream numbers(
            test::outputOf("debugfs -R 'blocks /" + name + "' " + image + " 2>/dev/null"));
        return {std::istream_iterator<std::uint64_t>(numbers), {}};
    }

    std::string root;
    std::string image;

private:
    /// Clears the blocks of lists such as "3-7, 9" in `used`.
    static void clear(std::vector<bool>& used, const std::string& line) {
        const std::regex range("([0-9]+)(?:-([0-9]+))?");
        for (std::sregex_iterator found(line.begin(), line.end(), range), end; found != end; ++found) {
            const std::uint64_t first = std::stoull((*found)[1]);
            const std::uint64_t last = (*found)[2].matched ? std::stoull((*found)[2]) : first;
            for (std::uint64_t block = first; block <= last; ++block) {
                used.at(block) = false;
            }
        }
    }
};

/// The driver's own files are left out, since a restored volume doesn't need them.
TEST_F(BackupOfVolumes, RealFileSystemIsCopiedWithoutFreeBlocksAndWithoutTheDriversFiles) {
    const std::string text(300'000, 't');
    const MadeFileSystem fileSystem({{"file", text}, {".tolvu", text}, {".tolvu1", text}});
    std::vector<bool> expected = fileSystem.usedBlocks();
    for (const char* name : {".tolvu", ".tolvu1"}) {
        const std::vector<std::uint64_t> blocks = fileSystem.blocksOf(name);
        ASSERT_GE(blocks.size(), 74U);
        for (const std::uint64_t block : blocks) {
            expected.at(block) = false;
        }
    }
    add("a");
    info::VolumeDescription description = sources["a"]->description;
    description.mountPoints = {fileSystem.root};
    description.blockCount = MadeFileSystem::blockCount;
    description.size = MadeFileSystem::blockCount * MadeFileSystem::blockSize;
    harness.volumes.find = [&](const std::string&) {
        return std::make_shared<info::BackupableVolume>(description);
    };
    snapshots.started["a"].snapshotPath = fileSystem.image;
    for (const char* name : {"/.tolvu", "/.tolvu1", "/.tolvu.inc"}) {
        snapshots.started["a"].excludedFiles.push_back(fileSystem.root + name);
    }
    targets["a"]->image.assign(description.size, poison);
    run();
    ASSERT_TRUE(backup->isFinished());
    const std::string source = test::readFile(fileSystem.image);
    for (std::uint64_t block = 0; block < MadeFileSystem::blockCount; ++block) {
        const auto first = static_cast<std::ptrdiff_t>(block * MadeFileSystem::blockSize);
        const Image written(targets["a"]->image.begin() + first,
                            targets["a"]->image.begin() + first + MadeFileSystem::blockSize);
        const Image wanted = expected[block] ? Image(source.begin() + first, source.begin() + first + 4096)
                                             : Image(MadeFileSystem::blockSize, poison);
        EXPECT_EQ(written, wanted) << "block " << block;
    }
}

} // namespace
} // namespace agent::core::backup::phase
