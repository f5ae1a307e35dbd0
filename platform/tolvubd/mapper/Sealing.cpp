#include "mapper/Sealing.h"

#include "Failure.h"
#include "HiddenNode.h"
#include "Layout.h"
#include "mapper/LvmCheck.h"
#include "seal/BootRecord.h"
#include "seal/Fingerprint.h"
#include "seal/Seal.h"

#include <fcntl.h>
#include <utility>

namespace tolvubd {

namespace {

/// Whether two seals are the same, except for the fingerprints' `content`: a mounted file system changes that
/// all the time, and it is only used for volumes that aren't mounted.
bool isEquivalent(const Seal& one, const Seal& other) {
    const auto mountOf = [](const Seal& seal) { return seal.fingerprint ? seal.fingerprint->mount : ""; };
    return one.end == other.end && one.bootId == other.bootId && one.device == other.device &&
           mountOf(one) == mountOf(other);
}

} // namespace

void renewSeal(const LayerStack& stack, const Device& device) {
    const dm::Device lower = stack.lower();
    const HiddenNode node(lower.number);
    const os::FileDescriptor file = node.open(O_RDWR | O_DIRECT);
    const Seal seal{Seal::End::open, currentBootId(), device, readFingerprint(file, device.size)};
    const auto present = readSeal(file, device.layers->eraFile, device.layers->id);
    if (present && isEquivalent(*present, seal)) {
        return;
    }
    if (!matchesLvmMetadata(device.layers->volume, lower)) {
        fail(ESTALE, "where the seal was may be somebody else's now");
    }
    writeSeal(file, device.layers->eraFile, seal);
}

bool isSealed(const LayerStack& stack, const Device& device) {
    if (!stack.isPresent()) {
        return false;
    }
    const HiddenNode node(stack.lower().number);
    const os::FileDescriptor file = node.open(O_RDONLY | O_DIRECT);
    const auto seal = readSeal(file, device.layers->eraFile, device.layers->id);
    return seal && seal->end == Seal::End::open && seal->bootId == currentBootId() &&
           seal->device.snapshot == device.snapshot && seal->device.layers == device.layers;
}

void updateBootRecord(const Table& table) {
    BootRecord record = readBootRecord(layout::bootRecord);
    record.volumes.clear();
    for (const auto* devices : {&table.devices, &table.asleep}) {
        for (const Device& device : *devices) {
            if (device.layers) {
                record.volumes.push_back(
                    {device.layers->id, device.layers->volume, device.size, device.layers->eraFile});
            }
        }
    }
    writeBootRecord(layout::bootRecord, record);
}

} // namespace tolvubd
