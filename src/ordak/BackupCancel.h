#pragma once

#include "core/IEngine.h"
#include "ordak/APIExtendedData.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// DELETE /backup/<id>: cancels a backup. If the engine throws bad_request, the response has the reason.
/// Threads: any thread may call it.
class BackupCancel {
public:
    explicit BackupCancel(core::IEngine& engine) : engine(engine) {}
    APIResponse operator()(const std::string& body, const APIExtendedData& request);

private:
    core::IEngine& engine;
};

} // namespace agent::ordak
