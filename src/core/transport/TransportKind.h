#pragma once

#include "core/transport/ITransport.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core {

/// The location of one volume's remote image and the credentials for it, from a backup request.
struct RemoteImage {
    std::string qualifiedName;
    std::string address;      ///< its form depends on the kind of transport
    std::uint64_t lun = 0;    ///< at most the kind's `maxLun`
    std::uint64_t offset = 0; ///< from the start of the target to the image, in bytes
    std::string username;
    std::string password;
};

/// One kind of transport: its name in requests, and the function that creates it. TransportKind.cpp has the
/// table.
struct TransportKind {
    const char* interface; ///< its name in a request
    const char* name;      ///< its name in the log
    std::uint64_t maxLun;  ///< the largest allowed LUN; a request for a larger one is refused
    /// Creates a transport that isn't connected yet. Throws std::invalid_argument or std::out_of_range if
    /// this kind of transport doesn't support the image.
    std::shared_ptr<ITransport> (*make)(info::Logger& logger, const RemoteImage& image);
};

/// The kind that a request asks for. An unknown or empty name means iSCSI.
const TransportKind& transportKindOf(const std::string& interface);

} // namespace agent::core
