#include "dm/Watcher.h"

#include "Companion.h"
#include "Failure.h"
#include "dm/ControlRequest.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tolvubd::dm {

namespace {

constexpr int pauseMilliseconds = 1000;
constexpr std::size_t room = 16384;
constexpr std::uint32_t ofTheKernel = 1; ///< the netlink group of the kernel's own events

os::FileDescriptor openEvents() {
    os::FileDescriptor events(checked(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT),
                                      "listen to the kernel's events"));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = ofTheKernel;
    const void* bytes = &address;
    checked(::bind(events.get(), static_cast<const sockaddr*>(bytes), sizeof address),
            "listen to the kernel's events");
    return events;
}

/// Everything that the forked process needs. The socket is opened in the parent, so that no event is lost in
/// between.
class Watch {
public:
    Watch(const Device& volume, const Device& snapshot);

    [[noreturn]] void run() noexcept;

private:
    [[nodiscard]] bool isTableUnchanged() noexcept;
    [[nodiscard]] bool isSnapshotValid() const noexcept;
    [[nodiscard]] bool putError() noexcept;
    void waitForEvent() const noexcept;

    os::FileDescriptor events;
    os::FileDescriptor control;
    ControlRequest table;  ///< of the volume
    ControlRequest status; ///< of the snapshot
    ControlRequest loadError;
    ControlRequest resume;
    std::vector<std::byte> originalTable;
};

// Doesn't freeze a file system when the table is exchanged: that could only be a mount of the snapshot, which
// nothing writes to.
Watch::Watch(const Device& volume, const Device& snapshot)
    : events(openEvents()),
      control(openControl()),
      table(volume, DM_TABLE_STATUS, DM_STATUS_TABLE_FLAG | DM_NOFLUSH_FLAG, room),
      status(snapshot, DM_TABLE_STATUS, DM_NOFLUSH_FLAG, room),
      loadError(snapshot, DM_TABLE_LOAD, 0),
      resume(snapshot, DM_DEV_SUSPEND, DM_SKIP_LOCKFS_FLAG) {
    loadError.addTarget({0, sizeOf(liveTable(snapshot)), "error", ""});
    resume.tellUdev(Visibility::hidden);
    if (!table.send(control.get())) {
        failWithErrno("read the table of the volume");
    }
    originalTable.assign(table.responseData().begin(), table.responseData().end());
    if (originalTable.empty()) {
        fail(E2BIG, "read the table of the volume");
    }
}

bool Watch::isTableUnchanged() noexcept {
    return table.send(control.get()) && std::ranges::equal(table.responseData(), originalTable);
}

/// The status of a valid snapshot begins with the number of sectors used; that of any other is a word.
bool Watch::isSnapshotValid() const noexcept {
    const std::span<const std::byte> response = status.responseData();
    if (response.size() <= sizeof(dm_target_spec)) {
        return false;
    }
    const auto first = static_cast<char>(response[sizeof(dm_target_spec)]);
    return first >= '0' && first <= '9';
}

bool Watch::putError() noexcept {
    return loadError.send(control.get()) && resume.send(control.get());
}

/// Any event means that it's time to check; its content is ignored.
void Watch::waitForEvent() const noexcept {
    pollfd poll{events.get(), POLLIN, 0};
    if (::poll(&poll, 1, pauseMilliseconds) > 0) {
        std::array<char, 64> text{};
        ::recv(events.get(), text.data(), text.size(), MSG_DONTWAIT);
    }
}

void Watch::run() noexcept {
    companion::prepareChild("tolvubd-watch", control.get(), events.get());
    companion::unblockSignal(SIGTERM);
    while (true) {
        const bool isThere = status.send(control.get());
        if (!isThere && errno == ENXIO) {
            ::_exit(0);
        }
        if ((!isThere || !isSnapshotValid() || !isTableUnchanged()) && putError()) {
            ::_exit(1);
        }
        waitForEvent();
    }
}

} // namespace

void startWatcher(const Device& volume, const Device& snapshot) {
    Watch watch(volume, snapshot);
    const pid_t child = checked(companion::forkHidden(), "start the watcher");
    if (child == 0) {
        const pid_t watcher = companion::forkHidden();
        if (watcher == 0) {
            watch.run();
        }
        ::_exit(watcher < 0 ? errno : 0);
    }
    if (const int status = companion::exitStatus(child).value_or(ECHILD); status != 0) {
        fail(status, "start the watcher");
    }
}

} // namespace tolvubd::dm
