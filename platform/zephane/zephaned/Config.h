#pragma once

#include "zephane/wire/Hello.h"

#include <asio/ip/tcp.hpp>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace zephane {

/// The configuration is invalid. The text names the file, the place in it and the remedy.
class ConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where an image's data is: the path of a file or a block device, the URI of an NBD server, or a list of
/// arguments for nbdkit: filters, a plugin and its parameters.
using BackEndSource = std::variant<std::string, std::vector<std::string>>;

struct ImageConfig {
    wire::ImageName name;
    std::string secret;
    BackEndSource backEnd;

    bool operator==(const ImageConfig&) const = default;
};

/// A TCP address.
struct Address {
    std::string host; ///< a numeric IPv4 or IPv6 address
    std::uint16_t port = 0;

    bool operator==(const Address&) const = default;
};

struct Config {
    std::vector<Address> listen{{"127.0.0.1", 25568}};
    std::string runtimeDirectory = "/run/zephaned"; ///< absolute
    bool compression = true;                        ///< granted to clients that ask for it
    std::size_t maxSessions = 256;                  ///< of clients that have proven themselves
    std::vector<ImageConfig> images;

    bool operator==(const Config&) const = default;
};

/// Parses a configuration in JSON; `file` is the name used in errors. Throws ConfigError. Doesn't check
/// whether back ends exist; problemOf in BackEndSource.h does.
Config parseConfig(const std::string& text, const std::string& file);
/// The text of a configuration; parseConfig reads the same from it.
std::string toText(const Config& config);

} // namespace zephane
