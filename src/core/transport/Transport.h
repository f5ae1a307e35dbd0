#pragma once

#include "core/transport/ITransport.h"
#include "info/log/Logger.h"

namespace agent::core {

/// The common base of all transports, with the logger for their failures. See ITransport.
class Transport : public ITransport {
protected:
    explicit Transport(info::Logger& logger) : logger(logger) {}

    info::Logger& logger;
};

} // namespace agent::core
