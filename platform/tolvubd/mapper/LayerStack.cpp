#include "mapper/LayerStack.h"

#include "Failure.h"
#include "FileAccess.h"
#include "HiddenNode.h"
#include "HoldGuard.h"
#include "Layout.h"
#include "dm/SuspendedDevice.h"
#include "era/EraMetadata.h"
#include "mapper/HeldMetadata.h"
#include "mapper/Holders.h"
#include "mapper/LvmCheck.h"
#include "mapper/LvmLock.h"
#include "os/AlignedBuffer.h"
#include "seal/Seal.h"

#include <algorithm>
#include <fcntl.h>
#include <memory>
#include <set>
#include <span>
#include <utility>

namespace tolvubd {

namespace {

constexpr std::size_t uuidLength = 36;
constexpr int attemptsToRead = 3;

/// The layers' names, which are part of their devices' names and UUIDs.
constexpr const char* lowerLayer = "lower";
constexpr const char* metaLayer = "meta";
constexpr const char* midLayer = "mid";
constexpr const char* cowLayer = "cow";
constexpr const char* snapshotLayer = "snapshot";
constexpr const char* formatLayer = "format";

std::string uuidOf(const std::string& id, const char* layer) {
    return layout::mapperPrefix + id + "-" + layer;
}

std::optional<dm::Device> find(const std::string& id, const char* layer) {
    return dm::findByUuid(uuidOf(id, layer));
}

dm::Device require(const std::string& id, const char* layer) {
    if (auto device = find(id, layer)) {
        return *device;
    }
    fail(ENXIO, std::string("the layer ") + layer);
}

/// Finds the device of a layer, or creates it.
dm::Device obtain(const std::string& id, const char* layer) {
    if (auto device = find(id, layer)) {
        return *device;
    }
    return dm::create("tolvubd-" + id + "-" + layer, uuidOf(id, layer));
}

dm::Device makeLive(const std::string& id, const char* layer, const dm::Targets& targets) {
    const dm::Device device = obtain(id, layer);
    dm::load(device, targets);
    dm::resume(device, dm::Visibility::hidden);
    return device;
}

/// Writes zeros to the beginning of a device, from which the target knows that the device is new.
void clearBeginning(const dm::Device& device, std::size_t bytes) {
    const HiddenNode node(device.number);
    const os::AlignedBuffer zeros(bytes, bytes);
    writeAt(node.open(O_WRONLY | O_DIRECT | O_DSYNC), std::span(zeros.data(), zeros.size()), 0);
}

void removeIfThere(const std::string& id, const char* layer) {
    if (const auto device = find(id, layer)) {
        dm::remove(*device);
    }
}

dm::Targets targetsOf(const std::string& id, const char* layer) {
    return dm::liveTable(require(id, layer));
}

dm::Targets eraTarget(const std::string& id, const Layers& layers) {
    const dm::Device mid = require(id, midLayer);
    return eraOn(require(id, metaLayer), mid, layers, dm::sizeOf(dm::liveTable(mid)));
}

std::uint64_t eraSize(const Layers& layers) {
    return bytesIn(layers.eraFile) - sealSize;
}

bool isOrigin(const dm::Targets& targets) {
    return targets.size() == 1 && targets[0].type == "snapshot-origin";
}

} // namespace

LayerStack::LayerStack(std::string id) : id(std::move(id)) {}

dm::Device LayerStack::volumeOf(const Layers& layers) {
    if (auto device = dm::findByUuid(layers.volume)) {
        return *device;
    }
    fail(ENXIO, "the device-mapper device of the volume");
}

std::vector<std::string> LayerStack::present() {
    std::set<std::string> ids;
    const std::string prefix = layout::mapperPrefix;
    for (const dm::Device& device : dm::findByPrefix(prefix)) {
        if (device.uuid.size() > prefix.size() + uuidLength) {
            ids.insert(device.uuid.substr(prefix.size(), uuidLength));
        }
    }
    return {ids.begin(), ids.end()};
}

bool LayerStack::isPresent() const {
    return !dm::findByPrefix(layout::mapperPrefix + id).empty();
}

bool LayerStack::hasStore() const {
    return find(id, cowLayer).has_value();
}

void LayerStack::createBelow(const dm::Device& volume, const Layers& layers) {
    const dm::Targets own = dm::liveTable(volume);
    if (!std::ranges::all_of(own, [](const dm::Target& target) { return target.type == "linear"; })) {
        fail(EOPNOTSUPP, "a table that isn't linear can't be there twice");
    }
    const dm::Device lower = makeLive(id, lowerLayer, own);
    const std::uint64_t size = dm::sizeOf(dm::liveTable(lower));
    makeLive(id, metaLayer, piecesOn(lower, layers.eraFile, sealSize, eraSize(layers)));
    makeLive(id, midLayer, {{0, size, "linear", nameOf(lower) + " 0"}});
}

void LayerStack::formatEra(const Layers& layers) {
    constexpr std::size_t superBlock = 4096;
    clearBeginning(require(id, metaLayer), superBlock);
    makeLive(id, formatLayer, eraTarget(id, layers));
    dm::remove(require(id, formatLayer));
}

void LayerStack::createSnapshot(const Layers& layers, Store store) {
    constexpr std::size_t header = 4096;
    const dm::Device lower = require(id, lowerLayer);
    const std::uint64_t size = dm::sizeOf(dm::liveTable(lower));
    const dm::Device cow =
        makeLive(id, cowLayer, piecesOn(lower, layers.cowStore, 0, bytesIn(layers.cowStore)));
    if (store == Store::isNew) {
        clearBeginning(cow, header);
    }
    dm::load(
        obtain(id, snapshotLayer),
        {{0, size, "snapshot", nameOf(lower) + " " + nameOf(cow) + " P " + std::to_string(snapshotChunk)}});
    dm::load(require(id, midLayer), {{0, size, "snapshot-origin", nameOf(lower)}});
}

void LayerStack::loadEraTarget(const dm::Device& volume, const Layers& layers) {
    dm::load(volume, eraTarget(id, layers));
}

std::vector<dm::Device> LayerStack::innerDevices() const {
    return {require(id, snapshotLayer), require(id, midLayer)};
}

void LayerStack::endSnapshot() {
    const dm::Device mid = require(id, midLayer);
    const dm::Device lower = require(id, lowerLayer);
    const dm::Targets linear = {{0, dm::sizeOf(dm::liveTable(lower)), "linear", nameOf(lower) + " 0"}};
    if (dm::liveTable(mid) != linear) {
        dm::load(mid, linear);
        dm::resume(mid, dm::Visibility::hidden); // waits for I/O in flight, and holds up new I/O meanwhile
    } else {
        dm::clear(mid);
    }
    removeIfThere(id, snapshotLayer);
    removeIfThere(id, cowLayer);
}

void LayerStack::restoreOwnTable() {
    removeIfThere(id, formatLayer);
    if (!eraDevice()) {
        return;
    }
    const LvmLock lock(*eraDevice());
    if (const auto volume = eraDevice()) { // LVM may have exchanged the table before the lock was taken
        dm::load(*volume, targetsOf(id, lowerLayer));
        HoldGuard guard(
            std::make_unique<dm::SuspendedDevice>(*volume, dm::Visibility::shown, std::vector<dm::Device>{}));
        guard.release();
    }
}

void LayerStack::removeLayers() {
    restoreOwnTable();
    for (const dm::Device& holder : holders()) { // those with a table that is loaded, but never became live
        dm::clear(holder);
    }
    for (const char* layer : {snapshotLayer, midLayer, cowLayer, metaLayer, lowerLayer}) {
        removeIfThere(id, layer);
    }
}

/// The volume, even if our table is only loaded for it and not live.
std::vector<dm::Device> LayerStack::holders() const {
    const auto meta = find(id, metaLayer);
    return meta ? holdersOf(*meta) : std::vector<dm::Device>{};
}

void LayerStack::resumeIfSuspended() const {
    for (const dm::Device& holder : holders()) {
        if (dm::stateOf(holder).isSuspended) {
            dm::resume(holder, dm::Visibility::shown);
        }
    }
}

/// Checks the tracking first: if the volume has lost its layers, its snapshot isn't consistent either.
int LayerStack::check(const Layers& layers, Mode mode) const {
    const auto volume = dm::findByUuid(layers.volume);
    const auto lower = find(id, lowerLayer);
    const auto meta = find(id, metaLayer);
    const auto mid = find(id, midLayer);
    if (!volume || !lower || !meta || !mid) {
        return ENXIO;
    }
    if (dm::liveTable(*volume) != eraTarget(id, layers) || !matchesLvmMetadata(layers.volume, *lower)) {
        return ESTALE;
    }
    if (isEraNearlyFull(dm::liveStatus(*volume))) {
        return EOVERFLOW;
    }
    if (mode == Mode::tracking) {
        return 0;
    }
    const auto snapshot = find(id, snapshotLayer);
    if (!snapshot || !isOrigin(dm::liveTable(*mid))) {
        return ENXIO;
    }
    return roomIn(dm::liveStatus(*snapshot)) ? 0 : ENOSPC;
}

std::uint32_t LayerStack::era() const {
    const auto volume = eraDevice();
    if (!volume) {
        fail(ESTALE, "the volume has no era target");
    }
    return eraIn(dm::liveStatus(*volume));
}

std::vector<bool> LayerStack::writtenSince(std::uint32_t first) const {
    const auto volume = eraDevice();
    if (!volume) {
        fail(ESTALE, "the volume has no era target");
    }
    const HeldMetadata held(*volume);
    const dm::Device meta = require(id, metaLayer);
    const HiddenNode node(meta.number);
    const os::FileDescriptor file = node.open(O_RDONLY | O_DIRECT);
    const std::uint64_t size = dm::sizeOf(dm::liveTable(meta)) * dm::sector;
    for (int attempt = 1;; ++attempt) {
        try {
            return EraMetadata(file, size, EraMetadata::View::snapshot).writtenSince(first);
        } catch (const std::system_error& error) { // the target may have been writing its superblock
            if (error.code().value() != EBADMSG || attempt == attemptsToRead) {
                throw;
            }
        }
    }
}

std::optional<StoreRoom> LayerStack::room() const {
    const auto device = find(id, snapshotLayer);
    return device ? roomIn(dm::liveStatus(*device)) : std::nullopt;
}

dm::Device LayerStack::snapshot() const {
    return require(id, snapshotLayer);
}

dm::Device LayerStack::lower() const {
    return require(id, lowerLayer);
}

std::optional<dm::Device> LayerStack::eraDevice() const {
    const auto meta = find(id, metaLayer);
    if (!meta) {
        return std::nullopt;
    }
    for (const dm::Device& device : dm::findByPrefix("")) {
        const dm::Targets targets = dm::liveTable(device);
        if (targets.size() == 1 && targets[0].type == "era" && device.uuid != uuidOf(id, formatLayer) &&
            targets[0].parameters.starts_with(nameOf(*meta) + " ")) {
            return device;
        }
    }
    return std::nullopt;
}

} // namespace tolvubd
