#include "info/VolumeProviderImpl.h"

#include <csignal>
#include <gio/gio.h>

namespace agent::info {

/// When GLib initialises its socket class, it makes the whole process, and every script that it starts,
/// ignore SIGPIPE. So this initialises the class early and then restores the signal's disposition.
VolumeProviderImpl::VolumeProviderImpl() {
    struct sigaction before{};
    ::sigaction(SIGPIPE, nullptr, &before);
    g_type_class_unref(g_type_class_ref(g_socket_get_type()));
    ::sigaction(SIGPIPE, &before, nullptr);
}

} // namespace agent::info
