#pragma once

#include "IImage.h"
#include "ImageAddress.h"
#include "Secret.h"
#include "info/log/Logger.h"

#include <memory>

namespace restore {

/// Opens an image wherever it is. The logger has to outlive it: transports say there what goes wrong. Throws
/// std::runtime_error.
std::unique_ptr<IImage> openImage(agent::info::Logger& logger, const ImageAddress& address,
                                  const SecretSource& secret);

} // namespace restore
