#include "zephane/zephaned/Commands.h"
#include "zephane/zephaned/Server.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <sys/resource.h>
#include <unistd.h>

namespace zephane {
namespace {

constexpr int usageError = 2;

struct Options {
    std::string config = "/etc/zephaned/zephaned.json";
    bool isCheck = false;
    std::string path;
    std::string volumeId;
    std::string backEnd;
    std::string size;
    bool isJson = false;
};

/// Each session needs a handful of file descriptors.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// Opens standard descriptors that are closed. Otherwise a file opened later would get such a number, and log
/// lines would be written into it.
void fillStandardDescriptors() {
    int descriptor = STDIN_FILENO;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        descriptor = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    ::close(descriptor);
}

void serve(const ConfigFile& file) {
    const Config config = file.load();
    ::signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();
    const Log log(STDERR_FILENO);
    Server(file, config, log).run();
}

wire::ImageName imageOf(const Options& options) {
    const auto volumeId = parseVolumeId(options.volumeId);
    if (!volumeId) {
        throw ConfigError(options.volumeId + " is no volume ID, which is a whole number below 2^64");
    }
    return {options.path, *volumeId};
}

std::optional<std::uint64_t> sizeOf(const Options& options) {
    if (options.size.empty()) {
        return std::nullopt;
    }
    const auto size = parseSize(options.size);
    if (!size) {
        throw ConfigError(options.size + " is no size; say bytes, or such as 500M, 10G or 2T");
    }
    return size;
}

/// Adds a command with the arguments that name an image.
CLI::App* addCommand(CLI::App& app, Options& options, const char* name, const char* description) {
    CLI::App* const command = app.add_subcommand(name, description);
    command->add_option("PATH", options.path, "the image's path, as the agent is told it")->required();
    command->add_option("VOLUMEID", options.volumeId, "the image's number")->required();
    return command;
}

int run(int count, const char* const* words) {
    Options options;
    CLI::App app("Serves images of volumes to backup agents. Without a command it stays in the foreground.");
    app.fallthrough();
    app.require_subcommand(0, 1);
    app.add_option("--config", options.config, "the configuration")->capture_default_str();
    app.add_flag("--check", options.isCheck, "look whether the configuration is right, and end");
    CLI::App* const add = addCommand(app, options, "add", "serve one more image, and show its password");
    add->add_option("BACKEND", options.backEnd,
                    "a file, the URI of an NBD server, or a list for nbdkit in JSON")
        ->required();
    add->add_option("--size", options.size, "make the file, sparse, with so many bytes, or such as 10G");
    CLI::App* const list = app.add_subcommand("list", "show the images");
    list->add_flag("--json", options.isJson, "for programs");
    CLI::App* const remove = addCommand(app, options, "remove", "serve an image no longer; its data stays");
    // Exit codes: CLI11's own are reduced to success and one code for a usage error.
    try {
        app.parse(count, words);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : usageError;
    }
    const ConfigFile file(options.config);
    const Commands commands(file, std::cout);
    if (add->parsed()) {
        commands.add(imageOf(options), options.backEnd, sizeOf(options));
    } else if (list->parsed()) {
        commands.list(options.isJson);
    } else if (remove->parsed()) {
        commands.remove(imageOf(options));
    } else if (options.isCheck) {
        commands.check();
    } else {
        serve(file);
    }
    return EXIT_SUCCESS;
}

} // namespace
} // namespace zephane

int main(int count, char** words) {
    try {
        zephane::fillStandardDescriptors();
        return zephane::run(count, words);
    } catch (const std::exception& error) {
        std::cerr << "zephaned: " << error.what() << "\n";
        return EXIT_FAILURE;
    }
}
