#include "IscsiImage.h"

#include "Reading.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace restore {

IscsiImage::IscsiImage(agent::info::Logger& logger, const ImageAddress& address, std::string password)
    : label(address.text),
      transport(logger, address.target, portalOf(address), address.lun, address.offset, address.user,
                std::move(password)) {
    if (!transport.connect(false)) {
        throw std::runtime_error("the image " + label + " can't be reached");
    }
    bytes = bytesAfter(label, transport.size(), address.offset);
}

IscsiImage::~IscsiImage() {
    transport.disconnect();
}

void IscsiImage::read(std::span<std::byte> into, std::uint64_t offset) {
    const auto place = static_cast<std::int64_t>(offset);
    if (transport.seek(place, SEEK_SET) != place ||
        transport.read(into.data(), into.size()) != static_cast<std::int64_t>(into.size())) {
        throwReadFailure(label, offset);
    }
}

} // namespace restore
