#pragma once

#include "core/IEngine.h"
#include "ordak/APIExtendedData.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// DELETE /backup/<id>: asks a backup to end. A refusal is an answer, not a failure.
/// Threads: safe from any.
class BackupCancel {
public:
    explicit BackupCancel(core::IEngine& engine) : engine(engine) {}
    APIResponse operator()(const std::string& body, const APIExtendedData& request);

private:
    core::IEngine& engine;
};

} // namespace agent::ordak
