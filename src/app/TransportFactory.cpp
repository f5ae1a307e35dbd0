#include "app/TransportFactory.h"

#include "core/transport/IscsiTransport.h"

#include <cerrno>

namespace agent::app {

namespace {

/// Refuses every connection.
class PendingTransport : public core::ITransport {
public:
    std::int64_t seek(std::int64_t /*offset*/, int /*whence*/) override { return refuse(); }
    std::int64_t write(const void* /*data*/, std::uint64_t /*length*/) override { return refuse(); }
    bool connect(bool /*diffMerge*/) override { return false; }
    std::int64_t read(void* /*data*/, std::uint64_t /*length*/) override { return refuse(); }
    void disconnect() override {}
    bool punchHole(std::uint64_t /*length*/) override { return false; }
    [[nodiscard]] bool supportsHolePunching() const override { return false; }

private:
    static std::int64_t refuse() {
        errno = ENOTCONN;
        return -1;
    }
};

} // namespace

TransportFactory::TransportFactory(info::Logger& logger) : logger(logger) {}

std::shared_ptr<core::ITransport> TransportFactory::makeIscsi(const Target& target) {
    return std::make_shared<core::IscsiTransport>(logger, target.qualifiedName, target.address, target.lun,
                                                  target.offset, target.username, target.password);
}

std::shared_ptr<core::ITransport> TransportFactory::makeZephaneFTP(const Target& /*target*/,
                                                                   std::uint16_t /*port*/) {
    return std::make_shared<PendingTransport>();
}

} // namespace agent::app
