#include "core/transport/IscsiLibrary.h"

#include "common/PeerText.h"
#include "core/transport/Libiscsi.h"

namespace agent::core::iscsi {

void DestroyContext::operator()(iscsi_context* context) const noexcept {
    iscsi_destroy_context(context);
}

void FreeTask::operator()(scsi_task* task) const noexcept {
    scsi_free_scsi_task(task);
}

std::string errorOf(const Context& context) {
    std::string text = iscsi_get_error(context.get());
    while (text.ends_with('\n')) {
        text.pop_back();
    }
    return printable(text); // parts of the text come from the target
}

bool isGood(const Task& task) noexcept {
    return task && task->status == SCSI_STATUS_GOOD;
}

} // namespace agent::core::iscsi
