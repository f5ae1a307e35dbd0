#include "PrivateView.h"

#include "common/PosixError.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace restore::view {

namespace {

std::string mountableKind(const ImageView& view) {
    enterPrivateMountNamespace();
    return findKind(view.device());
}

} // namespace

PrivateView::PrivateView(const ImageAddress& address, const SecretSource& secret)
    : view(address, secret, ImageView::Lifetime::endsWithProcess),
      fileSystem(mountableKind(view)),
      mount(view, fileSystem) {}

os::FileDescriptor PrivateView::open(const std::string& path, int flags) const {
    return openInside(root(), path, flags);
}

os::FileDescriptor openInside(int root, const std::string& path, int flags) {
    ::open_how how{};
    how.flags = static_cast<std::uint64_t>(flags) | O_CLOEXEC | O_NOFOLLOW; // NOLINT(hicpp-signed-bitwise)
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    const std::string& name = path.empty() ? std::string("/") : path;
    os::FileDescriptor found(static_cast<int>(::syscall(SYS_openat2, root, name.c_str(), &how, sizeof(how))));
    if (!found) {
        throw agent::PosixError(name + " can't be opened in the image", errno);
    }
    return found;
}

} // namespace restore::view
