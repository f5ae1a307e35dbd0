#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core {

class ITransport;

/// Makes the transport to the remote image of one volume, as a backup request describes it.
/// Owns:    nothing; the transport belongs to the caller.
/// Threads: safe from any.
/// Fails:   by exception, for a description that no transport can be made from. Nothing is connected yet.
class ITransportFactory {
public:
    /// Where a remote image is and who may write to it.
    struct Target {
        std::string qualifiedName;
        std::string address; ///< As the request has it; its form depends on the transport.
        std::int32_t lun = 0;
        std::uint64_t offset = 0; ///< Bytes from the start of the target to the image.
        std::string username;
        std::string password;
    };

    virtual ~ITransportFactory() = default;
    virtual std::shared_ptr<ITransport> makeIscsi(const Target& target) = 0;
    /// `port` is that of the address, already split off.
    virtual std::shared_ptr<ITransport> makeZephaneFTP(const Target& target, std::uint16_t port) = 0;
};

} // namespace agent::core
