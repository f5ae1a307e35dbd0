#pragma once

#include "core/transport/ITransportFactory.h"
#include "support/FakeTransport.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace agent::test {

/// Makes fake transports, and keeps what it was asked for. Belongs to one thread.
class RecordingTransportFactory : public core::ITransportFactory {
public:
    struct Made {
        Target target;
        std::optional<std::uint16_t> port; ///< Only of a ZephaneFTP transport.
        std::weak_ptr<core::ITransport> transport;
    };

    std::shared_ptr<core::ITransport> makeIscsi(const Target& target) override {
        return keep(target, std::nullopt);
    }
    std::shared_ptr<core::ITransport> makeZephaneFTP(const Target& target, std::uint16_t port) override {
        return keep(target, port);
    }

    std::vector<Made> made;

private:
    std::shared_ptr<core::ITransport> keep(const Target& target, std::optional<std::uint16_t> port) {
        auto transport = std::make_shared<FakeTransport>();
        made.push_back({target, port, transport});
        return transport;
    }
};

} // namespace agent::test
