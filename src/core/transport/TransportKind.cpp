#include "core/transport/TransportKind.h"

#include "core/transport/HostAndPort.h"
#include "core/transport/IscsiTransport.h"
#include "core/transport/ZephaneFTPTransport.h"

#include <algorithm>
#include <array>
#include <limits>

namespace agent::core {

namespace {

std::shared_ptr<ITransport> makeIscsi(info::Logger& logger, const RemoteImage& image) {
    return std::make_shared<IscsiTransport>(logger, image.qualifiedName, image.address,
                                            static_cast<int>(image.lun), image.offset, image.username,
                                            image.password);
}

std::shared_ptr<ITransport> makeZephaneFTP(info::Logger& logger, const RemoteImage& image) {
    const HostAndPort server = splitHostAndPort(image.address);
    return std::make_shared<ZephaneFTPTransport>(logger, server.host, image.qualifiedName, image.lun,
                                                 image.offset, server.port, image.password);
}

/// The default kind comes last.
constexpr std::array kinds{
    TransportKind{"zephaneftp", "zephaneftp", std::numeric_limits<std::uint64_t>::max(), &makeZephaneFTP},
    TransportKind{"iscsi", "iSCSI", std::numeric_limits<int>::max(), &makeIscsi},
};

} // namespace

const TransportKind& transportKindOf(const std::string& interface) {
    const auto* const found = std::find_if(kinds.begin(), kinds.end() - 1, [&](const TransportKind& kind) {
        return interface == kind.interface;
    });
    return *found;
}

} // namespace agent::core
