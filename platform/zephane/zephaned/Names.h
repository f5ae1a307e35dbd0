#pragma once

#include "zephane/wire/Hello.h"

#include <asio/ip/tcp.hpp>
#include <string>

namespace zephane {

/// As they stand in lines for people.
std::string describe(const wire::ImageName& image);
std::string describe(const asio::ip::tcp::endpoint& address);

} // namespace zephane
