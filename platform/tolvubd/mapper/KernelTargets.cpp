#include "mapper/KernelTargets.h"

#include <libdevmapper.h>
#include <memory>

namespace tolvubd {

bool hasTarget(const std::string& type) {
    const std::unique_ptr<dm_task, decltype(&dm_task_destroy)> task(
        dm_task_create(DM_DEVICE_GET_TARGET_VERSION), &dm_task_destroy);
    return task && dm_task_set_name(task.get(), type.c_str()) != 0 && dm_task_run(task.get()) != 0;
}

} // namespace tolvubd
