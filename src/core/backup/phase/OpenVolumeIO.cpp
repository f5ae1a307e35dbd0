#include "core/backup/phase/OpenVolumeIO.h"

#include "info/log/Reason.h"

#include <stdexcept>
#include <utility>

namespace agent::core::backup::phase {

OpenVolumeIO::OpenVolumeIO(BackupSession& session, std::string uuid, IVolumeDevice& reader,
                           std::shared_ptr<ITransport>& writer, bool isDiffMerge)
    : session(session), uuid(std::move(uuid)), reader(reader), writer(writer), isDiffMerge(isDiffMerge) {}

void OpenVolumeIO::execute() {
    if (!reader.open()) {
        throw info::WithReason<std::runtime_error>(info::reason("volume-unreadable"),
                                                   "Failed to open volume for reading!");
    }
    session.createVolumeWriter(uuid, isDiffMerge, writer);
}

std::string OpenVolumeIO::getName() const {
    return "Open Volume I/O";
}

} // namespace agent::core::backup::phase
