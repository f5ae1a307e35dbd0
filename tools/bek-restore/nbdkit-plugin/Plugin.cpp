// A plugin by which nbdkit serves an image, wherever it is stored. There is no function that writes, so no
// client can change the image. The secret comes from the environment, as every user can read a command line.

#include "tools/common/StandardErrorLog.h"
#include "tools/restore/ImageDevice.h"
#include "tools/restore/OpenImage.h"

#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

namespace restore {
namespace {

constexpr const char* pluginName = "bek-image";

/// The image being served. All connections share it, and nbdkit sends one request at a time.
struct Served {
    agent::info::Logger logger = tools::standardErrorLog(pluginName, false);
    std::string text;
    std::optional<std::uint64_t> offset;
    std::unique_ptr<IImage> image;
    std::unique_ptr<ImageDevice> device; ///< reads at any offset, and buffers the bytes around it
};

/// A global object, as nbdkit passes no context to its callbacks before there is a connection.
std::unique_ptr<Served>& served() {
    static std::unique_ptr<Served> the;
    return the;
}

/// Runs `call` and translates its outcome for nbdkit: 0, or -1 after an exception.
template <typename Call>
int answerOf(const Call& call) {
    try {
        call();
        return 0;
    } catch (const std::exception& error) {
        nbdkit_error("%s", error.what());
        return -1;
    }
}

void load() {
    served() = std::make_unique<Served>();
}

void unload() {
    served().reset();
}

int configure(const char* key, const char* value) {
    return answerOf([&] {
        if (const std::string name = key; name == "image") {
            served()->text = value;
        } else if (name == "offset") {
            served()->offset = std::stoull(value);
        } else {
            throw std::invalid_argument("there is no parameter " + name);
        }
    });
}

void openServed() {
    Served& the = *served();
    ImageAddress address = parseImageAddress(the.text);
    address.offset = the.offset.value_or(address.offset);
    the.image = openImage(the.logger, address, {});
    the.device = std::make_unique<ImageDevice>(the.logger, *the.image);
}

/// Runs after nbdkit has forked: transports start threads, which wouldn't survive a fork.
int begin() {
    return answerOf(openServed);
}

void* connect(int /*isReadOnly*/) {
    return NBDKIT_HANDLE_NOT_NEEDED;
}

std::int64_t sizeOfImage(void* /*connection*/) {
    return static_cast<std::int64_t>(served()->image->size());
}

/// All connections see the same bytes, as none can change them.
int canBeShared(void* /*connection*/) {
    return 1;
}

int read(void* /*connection*/, void* buffer, std::uint32_t count, std::uint64_t offset,
         std::uint32_t /*flags*/) {
    ImageDevice& device = *served()->device;
    const auto place = static_cast<std::int64_t>(offset);
    const bool isRead =
        device.seek(place, SEEK_SET) == place && device.read(buffer, count) == std::int64_t{count};
    if (!isRead) {
        nbdkit_error("%u bytes at %llu can't be read", count, static_cast<unsigned long long>(offset));
        return -1;
    }
    return 0;
}

nbdkit_plugin describe() {
    nbdkit_plugin plugin{};
    plugin.name = pluginName;
    plugin.longname = "image of a volume";
    plugin.description = "Reads what the backup agent has put into an image.";
    plugin.load = load;
    plugin.unload = unload;
    plugin.config = configure;
    plugin.config_help = "image=<ADDRESS>   (required) as bek-restore takes it\n"
                         "offset=<BYTES>    where the image begins";
    plugin.magic_config_key = "image";
    plugin.after_fork = begin;
    plugin.open = connect;
    plugin.get_size = sizeOfImage;
    plugin.can_multi_conn = canBeShared;
    plugin.pread = read;
    return plugin;
}

} // namespace
} // namespace restore

#define THREAD_MODEL NBDKIT_THREAD_MODEL_SERIALIZE_ALL_REQUESTS
static nbdkit_plugin plugin = restore::describe(); // NOLINT: nbdkit fills in the rest of it
NBDKIT_REGISTER_PLUGIN(plugin)
