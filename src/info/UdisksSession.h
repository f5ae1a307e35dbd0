#pragma once

#include "info/GLibOwners.h"

#include <string>
#include <udisks/udisks.h>
#include <vector>

namespace agent::info {

/// The events of a client that is used for one question go here, and away with it. In the context of the
/// process, where nobody waits for them, they would pile up.
class PrivateMainContext {
public:
    PrivateMainContext();
    PrivateMainContext(const PrivateMainContext&) = delete;
    PrivateMainContext& operator=(const PrivateMainContext&) = delete;
    ~PrivateMainContext();

private:
    GMainContext* context;
};

/// The objects of the udisks2 daemon as they stand at one moment.
/// Owns:    a client of the daemon, and with it the state of all objects.
/// Threads: made, used and destroyed by one; each has its own.
/// Fails:   construction with std::runtime_error if the daemon can't be asked.
class UdisksSession {
public:
    UdisksSession();

    /// The paths of all objects, in the order in which the client gives them.
    [[nodiscard]] std::vector<std::string> objectPaths() const;
    /// Null if there is no such object; `path` may be null too.
    [[nodiscard]] GObjectOwner<UDisksObject> object(const char* path) const;

private:
    const PrivateMainContext context; // the rest goes before it
    GObjectOwner<GDBusConnection> connection;
    GObjectOwner<UDisksClient> client;
    GDBusObjectManager* manager; // the client's
};

} // namespace agent::info
