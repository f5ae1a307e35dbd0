#pragma once

#include "zephane/wire/Hello.h"

#include <asio/ip/tcp.hpp>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace zephane {

/// What the configuration says can't be; the text names the file, the place in it and the way out.
class ConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where the bytes of an image are: the path of a file or a block device, the URI of an NBD server, or what
/// an nbdkit is told: filters, a plugin, its parameters.
using BackEndSource = std::variant<std::string, std::vector<std::string>>;

struct ImageConfig {
    wire::ImageName name;
    std::string secret;
    BackEndSource backEnd;

    bool operator==(const ImageConfig&) const = default;
};

/// An address of TCP.
struct Address {
    std::string host; ///< a number of either version of IP
    std::uint16_t port = 0;

    bool operator==(const Address&) const = default;
};

struct Config {
    std::vector<Address> listen{{"127.0.0.1", 25568}};
    std::string runtimeDirectory = "/run/zephaned"; ///< absolute
    bool compression = true;                        ///< granted to who asks for it
    std::size_t maxSessions = 256;                  ///< of clients that have proven themselves
    std::vector<ImageConfig> images;

    bool operator==(const Config&) const = default;
};

/// Reads the text of a configuration, JSON; `file` is its name for errors. ConfigError. What it names needn't
/// be there, see BackEndSource.h for that.
Config parseConfig(const std::string& text, const std::string& file);
/// The text that parseConfig makes the same of.
std::string toText(const Config& config);

} // namespace zephane
