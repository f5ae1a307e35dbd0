#include "SystemServices.h"

#include "tools/common/Text.h"

#include <stdexcept>
#include <string_view>
#include <unistd.h>

namespace bekctl {

using tools::plain;

using agent::info::GErrorOwner;
using agent::info::GObjectOwner;
using agent::info::GVariantOwner;

namespace {

constexpr int callTimeoutMilliseconds = 3000;
constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";
constexpr const char* managerName = "org.freedesktop.systemd1";
constexpr const char* managerPath = "/org/freedesktop/systemd1";
constexpr const char* managerInterface = "org.freedesktop.systemd1.Manager";
constexpr const char* unitInterface = "org.freedesktop.systemd1.Unit";

struct Method {
    const char* service;
    const char* path;
    const char* interface;
    const char* name;
};

/// Returns null if the call fails. Starts no service for it.
GVariantOwner call(GDBusConnection* connection, const Method& method, GVariant* parameters) {
    return GVariantOwner(g_dbus_connection_call_sync(
        connection, method.service, method.path, method.interface, method.name, parameters, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, callTimeoutMilliseconds, nullptr, nullptr));
}

/// `value` is a string or an object path.
std::string textOf(GVariant* value) {
    const gchar* const text = g_variant_get_string(value, nullptr);
    return text == nullptr ? "" : plain(text);
}

GObjectOwner<GDBusConnection> connect() {
    GErrorOwner error;
    GObjectOwner<GDBusConnection> made(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out()));
    if (!made) {
        throw std::runtime_error(plain(error.message()));
    }
    g_dbus_connection_set_exit_on_close(made.get(), FALSE);
    return made;
}

} // namespace

SystemServices::SystemServices() : connection(connect()) {}

bool SystemServices::isReachable(const std::string& name) const {
    return lists("ListNames", name) || lists("ListActivatableNames", name);
}

bool SystemServices::lists(const char* method, const std::string& name) const {
    const GVariantOwner answer = call(connection.get(), {busName, busPath, busName, method}, nullptr);
    if (!answer) {
        return false;
    }
    const GVariantOwner names(g_variant_get_child_value(answer.get(), 0));
    const gsize count = g_variant_n_children(names.get());
    for (gsize index = 0; index < count; ++index) {
        const GVariantOwner entry(g_variant_get_child_value(names.get(), index));
        if (textOf(entry.get()) == name) {
            return true;
        }
    }
    return false;
}

std::optional<Unit> SystemServices::unit(const std::string& name) const {
    if (::access("/run/systemd/system", F_OK) != 0) {
        return std::nullopt;
    }
    const GVariantOwner answer =
        call(connection.get(), {managerName, managerPath, managerInterface, "LoadUnit"},
             g_variant_new("(s)", name.c_str()));
    if (!answer) {
        return std::nullopt;
    }
    const GVariantOwner path(g_variant_get_child_value(answer.get(), 0));
    const std::string object = textOf(path.get());
    return Unit{property(object, "LoadState"), property(object, "ActiveState"), property(object, "SubState"),
                property(object, "UnitFileState")};
}

std::string SystemServices::property(const std::string& object, const char* name) const {
    const GVariantOwner answer =
        call(connection.get(), {managerName, object.c_str(), "org.freedesktop.DBus.Properties", "Get"},
             g_variant_new("(ss)", unitInterface, name));
    if (!answer) {
        return "";
    }
    const GVariantOwner boxed(g_variant_get_child_value(answer.get(), 0));
    const GVariantOwner value(g_variant_get_variant(boxed.get()));
    return g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING) != FALSE ? textOf(value.get()) : "";
}

} // namespace bekctl
