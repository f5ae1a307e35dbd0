#include "FileSubject.h"
#include "core/transport/HostAndPort.h"
#include "core/transport/ZephaneFTPTransport.h"

namespace agent::contract {

namespace {

/// The transport to an image of a real server of the file protocol.
class ZephaneSubject : public FileSubject {
public:
    std::shared_ptr<core::ITransport> make() override {
        const core::HostAndPort server = core::splitHostAndPort(setting("TARGET_PORTAL"));
        return std::make_shared<core::ZephaneFTPTransport>(logger, server.host, setting("TARGET_NAME"),
                                                           std::stoull(setting("TARGET_LUN")), 0, server.port,
                                                           setting("TARGET_SECRET"));
    }
    [[nodiscard]] bool mayFailShort() const override { return true; }
    [[nodiscard]] bool mayFailLate() const override { return true; }
};

} // namespace

std::vector<SubjectRow<TransportSubject>> transportSubjects() {
    return {{"ZephaneServer", [] { return std::make_unique<ZephaneSubject>(); }}};
}

} // namespace agent::contract
