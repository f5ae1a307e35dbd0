#pragma once

#include "core/transport/ITransport.h"
#include "core/transport/ITransportFactory.h"

namespace agent::app {

/// Transports that refuse every connection: the agent has none yet that can reach a remote image. A request
/// is accepted, and its backup fails.
class PendingTransports : public core::ITransportFactory {
public:
    std::shared_ptr<core::ITransport> makeIscsi(const Target& target) override;
    std::shared_ptr<core::ITransport> makeZephaneFTP(const Target& target, std::uint16_t port) override;
};

} // namespace agent::app
