#include "core/backup/PhaseRunner.h"

namespace agent::core::backup {

PhaseRunner::PhaseRunner(info::Logger& logger, const Phases& phases) : logger(logger), phases(phases) {}

void PhaseRunner::run(ICancel& cancel) {
    for (const auto& phase : phases) {
        cancel.check();
        const std::string name = phase->getName();
        logger.log(info::level::info, "Beginning execution of the %s phase.", name.c_str());
        phase->execute();
        logger.log(info::level::info, "Finished execution of the %s phase.", name.c_str());
    }
}

} // namespace agent::core::backup
