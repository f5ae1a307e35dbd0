#pragma once

#include "info/log/Logger.h"
#include "tools/common/Json.h"
#include "tools/restore/IImage.h"
#include "tools/restore/ImageAddress.h"
#include "tools/restore/Secret.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

namespace restore {

inline constexpr const char* programName = "bek-restore";

/// The options of every command that reads an image.
struct ImageOptions {
    std::string image;
    std::uint64_t offset = 0; ///< bytes before the image in its file or on its device
    SecretSource secret;
    bool isJson = false;
    bool isVerbose = false;
};

/// IMAGE becomes the command's first argument.
void declareImage(CLI::App& command, ImageOptions& options);

/// The address of the image that the options name.
ImageAddress addressOf(const ImageOptions& options);

/// For commands that open the image several times: asks for the secret only once.
void askSecretOnce(ImageOptions& options);

/// A log on standard error, and the image that the options name. The log outlives the image.
struct OpenedImage {
    explicit OpenedImage(const ImageOptions& options);

    agent::info::Logger logger;
    std::unique_ptr<IImage> image;
};

/// Writes to standard output. Throws std::runtime_error if that fails.
void print(const std::string& text);
void print(const tools::Json& document);

} // namespace restore
