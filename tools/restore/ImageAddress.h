#pragma once

#include <cstdint>
#include <string>

namespace restore {

/// The address of an image, as given on the command line.
struct ImageAddress {
    enum class Kind { file, iscsi, zephane, nbd };

    Kind kind = Kind::file;
    std::string text;           ///< all of it; libnbd gets this for `nbd`
    std::string path;           ///< of the file or device; the image's path for `zephane`
    std::string host;           ///< IPv6 without brackets
    std::uint16_t port = 0;     ///< the protocol's default if none is given
    std::string user;           ///< of `iscsi`; empty if the target needs no login
    std::string target;         ///< the name of the `iscsi` target
    int lun = 0;                ///< of `iscsi`
    std::uint64_t volumeId = 0; ///< of `zephane`
    std::uint64_t offset = 0;   ///< bytes before the image on its LUN, or in its file

    /// Whether a password or a secret is needed.
    [[nodiscard]] bool wantsSecret() const;
};

/// HOST:PORT, with brackets around an IPv6 address.
std::string portalOf(const ImageAddress& address);

/// Parses
///     iscsi://[USER@]HOST[:PORT]/TARGET/LUN[?offset=N]
///     zephane://HOST[:PORT]/PATH/VOLUME-ID[?offset=N]
///     nbd://... and nbd+unix://..., which libnbd knows
/// and takes anything else as the path of a file or a block device. Throws std::invalid_argument, which says
/// what is wrong. A password in the text is refused: every user of the machine could read it.
ImageAddress parseImageAddress(const std::string& text);

} // namespace restore
