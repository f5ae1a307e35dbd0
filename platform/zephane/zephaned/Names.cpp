#include "zephane/zephaned/Names.h"

#include <sstream>

namespace zephane {

std::string describe(const wire::ImageName& image) {
    return image.path + " " + std::to_string(image.volumeId);
}

std::string describe(const asio::ip::tcp::endpoint& address) {
    std::ostringstream text;
    text << address;
    return text.str();
}

} // namespace zephane
