#include "info/VolumeProviderImpl.h"

#include <csignal>
#include <gio/gio.h>

namespace agent::info {

/// The first socket of GLib lets the whole process, and every script that it starts, ignore SIGPIPE. So its
/// sockets are readied here, and the signal is left as it was.
VolumeProviderImpl::VolumeProviderImpl() {
    struct sigaction before{};
    ::sigaction(SIGPIPE, nullptr, &before);
    g_type_class_unref(g_type_class_ref(g_socket_get_type()));
    ::sigaction(SIGPIPE, &before, nullptr);
}

} // namespace agent::info
