#include "info/UdisksSession.h"

#include "common/TerminationSignals.h"
#include "info/log/Reason.h"

#include <stdexcept>

namespace agent::info {

namespace {

constexpr const char* noService =
    "Cannot get object manager from udisks client. The service is probably not running";

[[noreturn]] void throwNoClient(const GErrorOwner& error) {
    throw WithReason<std::runtime_error>(reason("volumes-unknown"),
                                         std::string("Cannot initialize udisks client: ") + error.message());
}

/// Returns the connection to the system bus, which the whole process shares. By default, GLib would end the
/// process when the bus closes the connection.
///
/// GLib creates the bus's thread here and never ends it. The thread inherits the blocked termination signals:
/// the signal handler, which stops the agent, must never run on it.
GObjectOwner<GDBusConnection> connectToSystemBus() {
    const TerminationSignalsBlocked signalsBlocked;
    GErrorOwner error;
    GObjectOwner<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out()));
    if (!connection) {
        throwNoClient(error);
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    return connection;
}

GObjectOwner<UDisksClient> makeClient() {
    const TerminationSignalsBlocked signalsBlocked; // by threads that GLib may create to call the service
    GErrorOwner error;
    GObjectOwner<UDisksClient> client(udisks_client_new_sync(nullptr, error.out()));
    if (!client) {
        throwNoClient(error);
    }
    return client;
}

/// Even if the daemon isn't running, the client has an object manager, which is then empty. So this also
/// checks that the daemon's name has an owner on the bus.
GDBusObjectManager* managerOf(UDisksClient* client) {
    GDBusObjectManager* manager = udisks_client_get_object_manager(client);
    if (manager == nullptr) {
        throw WithReason<std::runtime_error>(reason("volumes-unknown"), noService);
    }
    const GTextOwner owner(
        g_dbus_object_manager_client_get_name_owner(G_DBUS_OBJECT_MANAGER_CLIENT(manager)));
    if (!owner) {
        throw WithReason<std::runtime_error>(reason("volumes-unknown"), noService);
    }
    return manager;
}

} // namespace

PrivateMainContext::PrivateMainContext() : context(g_main_context_new()) {
    g_main_context_push_thread_default(context);
}

PrivateMainContext::~PrivateMainContext() {
    while (g_main_context_iteration(context, FALSE) != FALSE) { // releases what the client has left in it
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

UdisksSession::UdisksSession()
    : connection(connectToSystemBus()), client(makeClient()), manager(managerOf(client.get())) {}

std::vector<std::string> UdisksSession::objectPaths() const {
    const GObjectListOwner objects(g_dbus_object_manager_get_objects(manager));
    std::vector<std::string> paths;
    for (const GList* entry = objects.get(); entry != nullptr; entry = entry->next) {
        paths.emplace_back(g_dbus_object_get_object_path(static_cast<GDBusObject*>(entry->data)));
    }
    return paths;
}

GObjectOwner<UDisksObject> UdisksSession::object(const char* path) const {
    const bool isPath = path != nullptr && g_variant_is_object_path(path) != FALSE;
    return GObjectOwner<UDisksObject>(isPath ? udisks_client_get_object(client.get(), path) : nullptr);
}

} // namespace agent::info
