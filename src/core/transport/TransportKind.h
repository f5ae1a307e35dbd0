#pragma once

#include "core/transport/ITransport.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core {

/// Where the remote image of one volume is and who may write to it, as a backup request says.
struct RemoteImage {
    std::string qualifiedName;
    std::string address;      ///< its form depends on the kind of transport
    std::uint64_t lun = 0;    ///< at most the kind's `largestLun`
    std::uint64_t offset = 0; ///< bytes from the start of the target to the image
    std::string username;
    std::string password;
};

/// One kind of transport: how a request asks for it, and how one is made. TransportKind.cpp has the table.
struct TransportKind {
    const char* interface;    ///< the word of the request
    const char* name;         ///< in the log
    std::uint64_t largestLun; ///< that an image may have; a request for a larger one is refused
    /// Nothing is connected yet. Throws std::invalid_argument or std::out_of_range for an image that no
    /// transport of this kind can be made for.
    std::shared_ptr<ITransport> (*make)(info::Logger& logger, const RemoteImage& image);
};

/// The kind that a request asks for. Every word that is no other's, and none, asks for iSCSI.
const TransportKind& transportKindOf(const std::string& interface);

} // namespace agent::core
