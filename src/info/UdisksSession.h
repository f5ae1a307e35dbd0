#pragma once

#include "info/GLibOwners.h"

#include <string>
#include <udisks/udisks.h>
#include <vector>

namespace agent::info {

/// The thread's GLib main context while a short-lived client is in use. It receives the client's events and
/// discards them at the end. In the default context of the process, where no loop runs, they would pile up.
/// Owns:    the context, and the thread's use of it.
/// Threads: the thread that creates it must also destroy it.
/// Fails:   never.
class PrivateMainContext {
public:
    PrivateMainContext();
    PrivateMainContext(const PrivateMainContext&) = delete;
    PrivateMainContext& operator=(const PrivateMainContext&) = delete;
    ~PrivateMainContext();

private:
    GMainContext* context;
};

/// The objects of the udisks2 daemon at one moment.
/// Owns:    a client of the daemon, which holds the state of all objects.
/// Threads: one thread creates, uses and destroys it. Other threads may use sessions of their own.
/// Fails:   the constructor throws std::runtime_error if the daemon isn't available.
class UdisksSession {
public:
    UdisksSession();

    /// The paths of all objects, in the order in which the client gives them.
    [[nodiscard]] std::vector<std::string> objectPaths() const;
    /// Null if there is no such object; `path` may be null too.
    [[nodiscard]] GObjectOwner<UDisksObject> object(const char* path) const;

private:
    const PrivateMainContext context; // first, so that it is destroyed last
    GObjectOwner<GDBusConnection> connection;
    GObjectOwner<UDisksClient> client;
    GDBusObjectManager* manager; // owned by the client
};

} // namespace agent::info
