#include "zephane/zephaned/Names.h"

namespace zephane {

std::string describe(const wire::ImageName& image) {
    return image.path + " " + std::to_string(image.volumeId);
}

std::string describe(const Address& address) {
    const bool isSix = address.host.find(':') != std::string::npos;
    return (isSix ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

} // namespace zephane
