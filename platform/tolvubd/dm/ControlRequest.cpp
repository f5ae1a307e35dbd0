#include "dm/ControlRequest.h"

#include "FileAccess.h"
#include "dm/UdevFlags.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>

namespace tolvubd::dm {

namespace {

constexpr std::size_t wordBytes = sizeof(std::uint64_t);

std::size_t wordsFor(std::size_t bytes) {
    return (bytes + wordBytes - 1) / wordBytes;
}

/// The rest of the field is zeros already.
template <std::size_t size>
// NOLINTNEXTLINE(modernize-avoid-c-arrays): the kernel's
void setText(char (&field)[size], const std::string& text) {
    text.copy(field, size - 1);
}

} // namespace

ControlRequest::ControlRequest(const Device& device, unsigned long command, std::uint32_t flags,
                               std::size_t room)
    : command(command), request(wordsFor(sizeof(dm_ioctl) + room)), response(request.size()) {
    dm_ioctl& head = header(request);
    head.version[0] = DM_VERSION_MAJOR;
    head.data_size = static_cast<std::uint32_t>(request.size() * wordBytes);
    head.data_start = sizeof(dm_ioctl);
    head.flags = flags;
    if (device.uuid.empty()) {
        head.dev = device.number;
    } else {
        setText(head.uuid, device.uuid);
    }
}

ControlRequest& ControlRequest::tellUdev(Visibility visibility) {
    header(request).event_nr = std::uint32_t{udevFlags(visibility)} << DM_UDEV_FLAGS_SHIFT;
    return *this;
}

ControlRequest& ControlRequest::addTarget(const Target& target) {
    const std::size_t size = wordsFor(sizeof(dm_target_spec) + target.parameters.size() + 1);
    dm_target_spec spec{};
    spec.sector_start = target.start;
    spec.length = target.length;
    spec.next = static_cast<std::uint32_t>(size * wordBytes);
    setText(spec.target_type, target.type);
    const std::size_t begin = request.size();
    request.resize(begin + size);
    response.resize(request.size());
    std::memcpy(&request[begin], &spec, sizeof spec);
    target.parameters.copy(static_cast<char*>(static_cast<void*>(&request[begin])) + sizeof spec,
                           target.parameters.size());
    header(request).data_size = static_cast<std::uint32_t>(request.size() * wordBytes);
    header(request).target_count += 1;
    return *this;
}

bool ControlRequest::send(int control) noexcept {
    std::ranges::copy(request, response.begin());
    return ::ioctl(control, command, response.data()) == 0;
}

std::span<const std::byte> ControlRequest::responseData() const noexcept {
    const dm_ioctl& head = header(response);
    const auto all = std::as_bytes(std::span(response));
    if ((head.flags & DM_BUFFER_FULL_FLAG) != 0 || head.data_size > all.size() ||
        head.data_start > head.data_size) {
        return {};
    }
    return all.first(head.data_size).subspan(head.data_start);
}

dm_ioctl& ControlRequest::header(Words& words) noexcept {
    return *static_cast<dm_ioctl*>(static_cast<void*>(words.data()));
}

const dm_ioctl& ControlRequest::header(const Words& words) noexcept {
    return *static_cast<const dm_ioctl*>(static_cast<const void*>(words.data()));
}

os::FileDescriptor openControl() {
    return openFile("/dev/mapper/control", O_RDWR);
}

} // namespace tolvubd::dm
