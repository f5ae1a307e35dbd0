#pragma once

#include "core/backup/BackupSession.h"
#include "core/fs/IVolumeDevice.h"
#include "core/operation/IPhase.h"

namespace agent::core::backup::phase {

/// Opens both ends of a copy: the snapshot's device, and the connection to the remote image.
class OpenVolumeIO : public IPhase {
public:
    /// Fills `writer`.
    OpenVolumeIO(BackupSession& session, std::string uuid, IVolumeDevice& reader,
                 std::shared_ptr<ITransport>& writer, bool isDiffMerge);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    BackupSession& session;
    const std::string uuid;
    IVolumeDevice& reader;
    std::shared_ptr<ITransport>& writer;
    const bool isDiffMerge;
};

} // namespace agent::core::backup::phase
