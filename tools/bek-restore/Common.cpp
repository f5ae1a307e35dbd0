#include "Common.h"

#include "tools/common/CommandLine.h"
#include "tools/common/StandardErrorLog.h"
#include "tools/restore/OpenImage.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace restore {

ImageAddress addressOf(const ImageOptions& options) {
    ImageAddress address = parseImageAddress(options.image);
    if (options.offset != 0) {
        address.offset = options.offset;
    }
    return address;
}

void declareImage(CLI::App& command, ImageOptions& options) {
    command
        .add_option("IMAGE", options.image,
                    "A file, a block device, iscsi://[USER@]HOST[:PORT]/TARGET/LUN[?offset=BYTES], "
                    "zephane://HOST[:PORT]/PATH/VOLUME-ID[?offset=BYTES] or nbd://HOST[:PORT]/EXPORT")
        ->required();
    command
        .add_option("--offset", options.offset, "The image begins at this byte of its file, device or export")
        ->type_name("BYTES")
        ->check(tools::refuseNegative);
    command
        .add_option("--password-file", options.secret.file,
                    "The first line of this file is the password or the secret of the image; without it "
                    "BEK_RESTORE_SECRET of the environment is taken, or the terminal is asked")
        ->type_name("FILE");
    command.add_flag("--json", options.isJson, "Print one JSON object");
    command.add_flag("--verbose", options.isVerbose, "Tell on standard error what is done");
}

void askSecretOnce(ImageOptions& options) {
    if (addressOf(options).wantsSecret()) {
        const std::string secret = findSecret(options.secret, "Secret of " + options.image);
        ::setenv(secretVariable, secret.c_str(), 1); // NOLINT(concurrency-mt-unsafe): before any thread
        options.secret.file.reset();
    }
}

OpenedImage::OpenedImage(const ImageOptions& options)
    : logger(tools::standardErrorLog(programName, options.isVerbose)),
      image(openImage(logger, addressOf(options), options.secret)) {}

void print(const std::string& text) {
    std::cout << text;
    if (!std::cout.flush()) {
        throw std::runtime_error("standard output can't be written");
    }
}

void print(const tools::Json& document) {
    std::ostringstream text;
    tools::printJson(text, document);
    print(text.str());
}

} // namespace restore
