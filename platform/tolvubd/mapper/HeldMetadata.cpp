#include "mapper/HeldMetadata.h"

#include "TryTo.h"

namespace tolvubd {

namespace {

/// The last word of the target's status is the block of the metadata snapshot, or a dash if none is held.
bool isHeld(const dm::Device& volume) {
    const dm::Targets status = dm::liveStatus(volume);
    return status.size() == 1 && !status[0].parameters.ends_with(" -");
}

} // namespace

HeldMetadata::HeldMetadata(const dm::Device& volume) : volume(volume) {
    if (isHeld(volume)) {
        dm::message(volume, "drop_metadata_snap");
    }
    dm::message(volume, "take_metadata_snap");
}

HeldMetadata::~HeldMetadata() {
    tryTo("let go of the metadata snapshot", [&] { dm::message(volume, "drop_metadata_snap"); });
}

} // namespace tolvubd
