#pragma once

#include "unit/core/backup/SnapshotSessionFixture.h"

namespace agent::core::backup {

using test::messageOf;

class SnapshotSessionControlTest : public SnapshotSessionFixture {
protected:
    /// The error message when a session ends of which one volume has no device.
    std::string endFailure(const SnapshotSessionControl::Volumes& volumes) {
        return messageOf<std::runtime_error>([&] { control->transitionToIncremental(volumes, false); });
    }
};

} // namespace agent::core::backup
