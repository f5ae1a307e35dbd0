#pragma once

#include "core/transport/ITransport.h"
#include "core/transport/ITransportFactory.h"
#include "info/log/Logger.h"

namespace agent::app {

/// The transports of the agent. See ITransportFactory.
/// Of those, the file protocol is not there yet: a request for it is accepted, and its backup fails for want
/// of a connection.
class TransportFactory : public core::ITransportFactory {
public:
    explicit TransportFactory(info::Logger& logger);

    std::shared_ptr<core::ITransport> makeIscsi(const Target& target) override;
    std::shared_ptr<core::ITransport> makeZephaneFTP(const Target& target, std::uint16_t port) override;

private:
    info::Logger& logger;
};

} // namespace agent::app
