#pragma once

#include "core/IEngine.h"
#include "ordak/APIExtendedData.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// DELETE /backup/<id>: cancels a backup. If the engine throws bad_request, the response has the reason.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   throws what the engine throws, except bad_request.
class BackupCancel {
public:
    explicit BackupCancel(core::IEngine& engine) : engine(engine) {}
    APIResponse operator()(const std::string& body, const APIExtendedData& request);

private:
    core::IEngine& engine;
};

} // namespace agent::ordak
