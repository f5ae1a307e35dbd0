#include "OpenImage.h"

#include "FileImage.h"
#include "IscsiImage.h"
#include "NbdImage.h"
#include "ZephaneImage.h"

#include <utility>

namespace restore {

std::unique_ptr<IImage> openImage(agent::info::Logger& logger, const ImageAddress& address,
                                  const SecretSource& secret) {
    std::string word = address.wantsSecret() ? findSecret(secret, "Secret of " + address.text) : "";
    switch (address.kind) {
    case ImageAddress::Kind::nbd:
        return std::make_unique<NbdImage>(address.text, address.offset);
    case ImageAddress::Kind::iscsi:
        return std::make_unique<IscsiImage>(logger, address, std::move(word));
    case ImageAddress::Kind::zephane:
        return std::make_unique<ZephaneImage>(address, std::move(word));
    case ImageAddress::Kind::file:
        break;
    }
    return std::make_unique<FileImage>(address.path, address.offset);
}

} // namespace restore
