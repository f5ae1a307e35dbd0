#include "Audit.h"

#include "Bound.h"
#include "Comparison.h"
#include "FileSearch.h"
#include "FreeLists.h"
#include "KernelSpace.h"
#include "Session.h"
#include "core/backup/VolumeReader.h"
#include "core/block/BlockRangeProviderFactory.h"
#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "info/VolumeProvider.h"
#include "tools/common/Progress.h"
#include "tools/restore/FileImage.h"
#include "tools/restore/OpenImage.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <utility>

namespace audit {

namespace {

using agent::info::BackupableVolume;
using restore::pageBytes;
using Clock = std::chrono::steady_clock;
using Kind = restore::ImageAddress::Kind;

/// Limit for one audit. A backup waits longer than this for an audit to end before it gives up.
constexpr std::chrono::seconds longestSession{600};

std::string canonical(const std::string& path) {
    std::error_code failure;
    const std::filesystem::path found = std::filesystem::canonical(path, failure);
    return failure ? path : found.string();
}

/// Whether the directory shows the file system of that device: another one may be mounted over it.
bool isShown(const std::string& directory, const std::string& device) {
    struct stat root{};
    struct stat node{};
    return ::stat(directory.c_str(), &root) == 0 && ::stat(device.c_str(), &node) == 0 &&
           root.st_dev == node.st_rdev;
}

std::shared_ptr<BackupableVolume> findVolume(agent::info::Logger& logger, const std::string& name) {
    const std::string wanted = canonical(name);
    const auto found = agent::info::VolumeProvider(logger).getBackupableVolumes([&](const auto& volume) {
        return canonical(volume->getDevice()) == wanted ||
               std::ranges::find(volume->getMountPoints(), wanted) != volume->getMountPoints().end();
    });
    if (found.empty()) {
        throw std::runtime_error(name + " is neither a device with a volume nor where one is mounted");
    }
    const auto shown =
        std::ranges::find_if(found, [&](const auto& volume) { return isShown(wanted, volume->getDevice()); });
    auto volume = shown != found.end() ? *shown : found.front();
    if (!volume->isMounted() || volume->getBlockSize() == 0) {
        throw std::runtime_error(name + " isn't mounted, so no snapshot of it can be taken");
    }
    return volume;
}

/// How many connections to open to the image. Only one if each would ask the administrator for the secret.
std::size_t readerCount(const restore::ImageAddress& address, const restore::SecretSource& secret) {
    constexpr std::size_t local = 8;
    constexpr std::size_t remote = 4;
    if (address.kind == Kind::file) {
        return local;
    }
    const bool isAsked =
        address.wantsSecret() && !secret.file && std::getenv(restore::secretVariable) == nullptr;
    return address.kind == Kind::zephane || isAsked ? 1 : remote; // zephaned allows few sessions per image
}

std::vector<ReaderPair> openReaders(agent::info::Logger& logger, const Request& request) {
    restore::ImageAddress address = restore::parseImageAddress(request.image);
    if (request.offset != 0) {
        address.offset = request.offset;
    }
    std::vector<ReaderPair> readers(readerCount(address, request.secret));
    for (ReaderPair& pair : readers) {
        pair.image = restore::openImage(logger, address, request.secret);
    }
    return readers;
}

void requireWhole(const restore::IImage& image, const BackupableVolume& volume) {
    const std::uint64_t needed = volume.getBlockCount() * volume.getBlockSize();
    if (image.size() < needed) {
        throw std::runtime_error(image.name() + " has " + std::to_string(image.size()) +
                                 " bytes, fewer than the " + std::to_string(needed) + " of " +
                                 volume.getDisplayName());
    }
}

class Audit {
public:
    Audit(agent::info::Logger& logger, const Request& request)
        : logger(logger),
          request(request),
          readers(openReaders(logger, request)),
          volume(findVolume(logger, request.volume)),
          interrupt(longestSession) {
        requireWhole(*readers.front().image, *volume);
    }

    Result run() {
        Session session(logger, volume);
        interrupt.begin();
        interrupt.check();
        Result result{volume->getDisplayName(), {}};
        agent::core::backup::VolumeReader reader(logger, session.snapshot().snapshotPath);
        if (!reader.open()) {
            throw std::runtime_error(session.snapshot().snapshotPath + " can't be opened");
        }
        const Strata::Numbers places = draw(session, reader, result);
        lookAtUnused(session, reader, places.at(indexOf(Stratum::unused)), result);
        if (session.isTracked()) {
            compareUnchanged(session, places.at(indexOf(Stratum::unchanged)), result);
        } else {
            result.findings.at(indexOf(Stratum::unchanged)).skipReason = session.whyUntracked();
        }
        closeSnapshot();
        session.end();
        return result;
    }

private:
    /// Builds the same layers as a backup of this snapshot. Throws if a backup couldn't leave out unused
    /// blocks.
    Strata strataOf(const Session& session, agent::core::backup::VolumeReader& reader) {
        const agent::core::block::BlockRangeProviderFactory factory(logger, volume);
        auto map =
            agent::core::fs::UsedBlockBitmapChunkProviderFactory(logger, volume->getSectorSize(), &reader)
                .create();
        if (!map) {
            throw std::runtime_error("the file system of " + volume->getDisplayName() +
                                     " is of no kind that is known");
        }
        if (map->getBlockSize() != 0 && map->getBlockSize() != volume->getBlockSize()) {
            throw std::runtime_error("the blocks of " + volume->getDisplayName() +
                                     " aren't those of its mount point, so a backup leaves none out");
        }
        Strata::Layers layers;
        layers.unused = factory.createUnusedExcluder(std::move(map), false);
        if (session.isTracked()) {
            layers.unchanged = factory.createUnchangedExcluder(session.snapshot().incrementalBitmap);
        }
        for (const std::string& path : session.snapshot().excludedFiles) {
            layers.files.push_back(factory.createFileExcluder(path, false));
        }
        return {std::move(layers), volume->getBlockSize(), volume->getBlockCount()};
    }

    Strata::Numbers draw(const Session& session, agent::core::backup::VolumeReader& reader, Result& result) {
        const Strata all = strataOf(session, reader);
        const Strata::Counts counts = all.count();
        RandomSource source(request.seed);
        Strata::Numbers drawn;
        for (const Stratum stratum : strata) {
            const std::size_t index = indexOf(stratum);
            drawn.at(index) = audit::draw(counts.at(index), request.sample, source);
            result.findings.at(index).population = counts.at(index);
            result.findings.at(index).sampled = drawn.at(index).size();
        }
        Strata::Numbers places = all.locate(drawn);
        if (places.at(0).size() != drawn.at(0).size() || places.at(1).size() != drawn.at(1).size()) {
            throw std::runtime_error("the maps of the snapshot can't be read twice alike");
        }
        return places;
    }

    /// A block that the kernel counts as used and the agent as unused would be missing in the image. If the
    /// kernel doesn't report free space, the extents of the files decide.
    void lookAtUnused(const Session& session, agent::core::backup::VolumeReader& reader,
                      const std::vector<std::uint64_t>& pages, Result& result) {
        const auto begin = Clock::now();
        Findings& findings = result.findings.at(indexOf(Stratum::unused));
        KernelSpace space(session.mountPoint());
        FreeLists freeLists(reader);
        std::vector<std::uint64_t> inUse;
        std::vector<std::uint64_t> unclassified;
        for (std::size_t index = 0; index < pages.size(); ++index) {
            interrupt.check();
            const std::uint64_t offset = pages[index] * pageBytes;
            const std::optional<bool> answer = space.isInUse(offset);
            if (!answer) {
                unclassified.push_back(pages[index]);
            } else if (*answer && !freeLists.hasBlockAt(offset)) {
                inUse.push_back(pages[index]);
            }
            show("unused blocks", index + 1, pages.size());
        }
        const FoundOwners owners = askFiles(session, inUse, unclassified);
        for (const std::uint64_t page : unclassified) {
            const auto owner = owners.byPage.find(page);
            if (owner != owners.byPage.end() && owner->second.isWritten) {
                inUse.push_back(page);
            } else if (owner == owners.byPage.end() && !owners.isComplete) {
                ++findings.undecided;
            }
        }
        note(findings, inUse, owners);
        findings.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    }

    FoundOwners askFiles(const Session& session, std::vector<std::uint64_t> pages,
                         const std::vector<std::uint64_t>& more) {
        pages.insert(pages.end(), more.begin(), more.end());
        std::ranges::sort(pages);
        FoundOwners owners;
        const std::string root = session.mountPoint();
        owners.isComplete = !root.empty();
        return pages.empty() || root.empty() ? owners : findOwners(root, pages, interrupt);
    }

    /// A block that has not changed since the last backup must be equal in the image. Unwritten extents are
    /// excepted: preallocation makes their blocks used without a write, so their content doesn't matter.
    void compareUnchanged(const Session& session, const std::vector<std::uint64_t>& pages, Result& result) {
        const auto begin = Clock::now();
        Findings& findings = result.findings.at(indexOf(Stratum::unchanged));
        for (ReaderPair& pair : readers) {
            pair.snapshot = std::make_unique<restore::FileImage>(session.snapshot().snapshotPath, 0);
        }
        std::vector<std::uint64_t> differing =
            findDiffering(readers, pages, interrupt,
                          [&](std::uint64_t done) { show("unchanged blocks", done, pages.size()); });
        findings.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        const FoundOwners owners = askFiles(session, differing, {});
        const std::size_t all = differing.size();
        std::erase_if(differing, [&](std::uint64_t page) {
            const auto owner = owners.byPage.find(page);
            return owner != owners.byPage.end() && !owner->second.isWritten;
        });
        findings.neverWritten = all - differing.size();
        note(findings, differing, owners);
    }

    static void note(Findings& findings, std::vector<std::uint64_t> pages, const FoundOwners& owners) {
        std::ranges::sort(pages);
        for (const std::uint64_t page : pages) {
            const auto owner = owners.byPage.find(page);
            findings.wrong.push_back(
                {page * pageBytes, owner == owners.byPage.end() ? "" : owner->second.path});
        }
    }

    void show(const std::string& what, std::uint64_t done, std::uint64_t all) {
        progress.show(what, done * pageBytes, all * pageBytes);
    }

    /// A snapshot can't be ended while a descriptor of it is open.
    void closeSnapshot() {
        for (ReaderPair& pair : readers) {
            pair.snapshot.reset();
        }
    }

    agent::info::Logger& logger;
    const Request& request;
    std::vector<ReaderPair> readers;
    std::shared_ptr<BackupableVolume> volume;
    Interrupt interrupt;
    tools::Progress progress = tools::Progress::ofStandardError();
};

} // namespace

double Findings::bound(double confidence) const {
    const std::uint64_t bad = wrong.size() + undecided;
    if (population == sampled) {
        return population == 0 ? 0 : static_cast<double>(bad) / static_cast<double>(population);
    }
    return upperBound(bad, sampled, confidence);
}

/// Each stratum gets an equal part of the error probability, so that all bounds hold together.
double Result::bound(double confidence) const {
    const auto isKnown = [](const Findings& each) { return each.skipReason.empty() && each.population > 0; };
    const auto count = static_cast<double>(std::ranges::count_if(findings, isKnown));
    double all = 0;
    double wrong = 0;
    for (const Findings& each : findings) {
        if (isKnown(each)) {
            const auto population = static_cast<double>(each.population);
            all += population;
            wrong += population * each.bound(1 - (1 - confidence) / count);
        }
    }
    return all == 0 ? 0 : wrong / all;
}

bool Result::isClean() const {
    return std::ranges::all_of(findings, [](const Findings& each) { return each.wrong.empty(); });
}

Result run(agent::info::Logger& logger, const Request& request) {
    return Audit(logger, request).run();
}

} // namespace audit
