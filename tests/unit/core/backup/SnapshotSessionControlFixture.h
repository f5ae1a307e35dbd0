#pragma once

#include "unit/core/backup/SnapshotSessionFixture.h"

namespace agent::core::backup {

using test::messageOf;

class SnapshotSessionControlTest : public SnapshotSessionFixture {
protected:
    /// The message of the failure to end the session of volumes of which one has no device.
    std::string endFailure(const SnapshotSessionControl::Volumes& volumes) {
        return messageOf<std::runtime_error>([&] { control->transitionToIncremental(volumes, false); });
    }
};

} // namespace agent::core::backup
