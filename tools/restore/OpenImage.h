#pragma once

#include "IImage.h"
#include "ImageAddress.h"
#include "Secret.h"
#include "info/log/Logger.h"

#include <memory>

namespace restore {

/// Opens an image, wherever it is stored. `logger` must outlive the image, as transports log their failures
/// there. Throws std::runtime_error.
std::unique_ptr<IImage> openImage(agent::info::Logger& logger, const ImageAddress& address,
                                  const SecretSource& secret);

} // namespace restore
