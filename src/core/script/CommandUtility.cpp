#include "core/script/CommandUtility.h"

#include "core/script/UnixCommandStream.h"

namespace agent::core::script {

std::unique_ptr<ICommandStream> CommandUtility::createCommandStream(const std::string& command,
                                                                    const std::string& directory,
                                                                    bool killOnDestroy) {
    return std::make_unique<UnixCommandStream>(command, directory, killOnDestroy);
}

} // namespace agent::core::script
