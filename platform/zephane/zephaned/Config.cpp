#include "zephane/zephaned/Config.h"

#include "zephane/wire/Limits.h"
#include "zephane/wire/PlainText.h"
#include "zephane/zephaned/ConfigReader.h"
#include "zephane/zephaned/Names.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <limits>
#include <set>
#include <string_view>

namespace zephane {

namespace {

constexpr std::size_t longestSecret = 1024;
constexpr std::size_t mostImages = 100'000;
constexpr std::size_t mostSessions = 10'000;
/// A socket's path has at most 107 bytes, including the name that the server appends.
constexpr std::size_t longestRuntimeDirectory = 80;

/// Returns false unless the whole text is a port number.
bool parsePort(const std::string& text, std::uint16_t& port) {
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    return error == std::errc() && stop == end && !text.empty();
}

bool isAddress(const std::string& host, bool isSix) {
    in6_addr binary{}; // has room for the shorter ones
    return ::inet_pton(isSix ? AF_INET6 : AF_INET, host.c_str(), &binary) == 1;
}

Address readAddress(const ConfigReader& reader) {
    const std::string text = reader.text();
    const std::size_t colon = text.rfind(':');
    Address address{text.substr(0, colon), 0};
    const bool isBracketed = address.host.starts_with('[') && address.host.ends_with(']');
    if (isBracketed) {
        address.host = address.host.substr(1, address.host.size() - 2);
    }
    if (colon == std::string::npos || !isAddress(address.host, isBracketed) ||
        !parsePort(text.substr(colon + 1), address.port)) {
        reader.refuse("\"" + text + "\" is no address and port, such as 0.0.0.0:25568 or [::]:25568");
    }
    return address;
}

std::string readDirectory(const ConfigReader& reader) {
    const std::string path = reader.text();
    if (!path.starts_with('/') || path.size() > longestRuntimeDirectory || !wire::isPlainText(path)) {
        reader.refuse("this has to be a path that begins with / and has " +
                      std::to_string(longestRuntimeDirectory) + " bytes at most");
    }
    return path;
}

std::string readImagePath(const ConfigReader& reader) {
    const std::string path = reader.text();
    if (path.empty() || path.size() > wire::longestPath || !wire::isPlainText(path)) {
        reader.refuse("this has to be a text of 1 to " + std::to_string(wire::longestPath) +
                      " bytes, without control characters");
    }
    return path;
}

std::string readSecret(const ConfigReader& reader) {
    const std::string secret = reader.text();
    if (secret.empty() || secret.size() > longestSecret) {
        reader.refuse("this has to be a text of 1 to " + std::to_string(longestSecret) +
                      " bytes; \"zephaned add\" makes good ones");
    }
    return secret;
}

std::string readArgument(const ConfigReader& reader) {
    const std::string argument = reader.text();
    if (argument.empty() || argument.find('\0') != std::string::npos) {
        reader.refuse("an argument of nbdkit has to be a text that isn't empty");
    }
    if (argument.starts_with('-') && !argument.starts_with("--filter=")) {
        reader.refuse("of nbdkit's options there can only be --filter=NAME here; zephaned sets the others");
    }
    if (argument.starts_with("dir=") || argument.starts_with("directory=")) {
        reader.refuse("an image is one file, never a directory, in which the client would choose");
    }
    return argument;
}

std::vector<std::string> readArguments(const ConfigReader& reader) {
    std::vector<std::string> arguments;
    reader.each([&](const ConfigReader& argument) { arguments.push_back(readArgument(argument)); });
    if (std::ranges::all_of(arguments, [](const std::string& one) { return one.starts_with('-'); })) {
        reader.refuse(R"(the name of a plugin of nbdkit is missing, such as in ["file", "/srv/image"])");
    }
    return arguments;
}

std::string readPlace(const ConfigReader& reader) {
    const std::string place = reader.text();
    const bool isUri = place.starts_with("nbd") && place.find("://") != std::string::npos;
    if ((!isUri && !place.starts_with('/')) || !wire::isPlainText(place)) {
        reader.refuse("\"" + place +
                      "\" is neither a path that begins with /, nor the URI of an NBD server, such as "
                      "nbd://10.0.0.1/image, nor a list of nbdkit's arguments");
    }
    return place;
}

ImageConfig readImage(const ConfigReader& reader) {
    reader.expectKeys({"path", "volumeId", "secret", "backend"});
    ImageConfig image;
    image.name.path = readImagePath(reader.at("path"));
    image.name.volumeId = reader.at("volumeId").number(0, std::numeric_limits<std::uint64_t>::max());
    image.secret = readSecret(reader.at("secret"));
    const ConfigReader backEnd = reader.at("backend");
    if (backEnd.isList()) {
        image.backEnd = readArguments(backEnd);
    } else {
        image.backEnd = readPlace(backEnd);
    }
    return image;
}

/// Two images with one back end would have two writers that don't know of each other.
std::vector<ImageConfig> readImages(const ConfigReader& reader) {
    std::vector<ImageConfig> images;
    std::set<wire::ImageName> names;
    std::set<BackEndSource> backEnds;
    reader.each([&](const ConfigReader& entry) {
        const ImageConfig& image = images.emplace_back(readImage(entry));
        if (!names.insert(image.name).second) {
            entry.refuse("there is another image of this path and volumeId; change either");
        }
        if (!backEnds.insert(image.backEnd).second) {
            entry.refuse("there is another image of this backend; an image can have one name only");
        }
        if (images.size() > mostImages) {
            reader.refuse("there are more than " + std::to_string(mostImages) + " images");
        }
    });
    return images;
}

std::vector<Address> readAddresses(const ConfigReader& reader) {
    std::vector<Address> addresses;
    reader.each([&](const ConfigReader& address) { addresses.push_back(readAddress(address)); });
    if (addresses.empty()) {
        reader.refuse("there has to be one address at least, such as \"0.0.0.0:25568\"");
    }
    return addresses;
}

/// The library's own error text may show the last token, which may be a secret.
Json parseJson(const std::string& text, const std::string& file) {
    try {
        return Json::parse(text);
    } catch (const Json::parse_error& error) {
        const std::string_view before = std::string_view(text).substr(0, error.byte);
        throw ConfigError(file + ": this isn't JSON, at or before line " +
                          std::to_string(1 + std::ranges::count(before, '\n')));
    } catch (const Json::exception&) {
        throw ConfigError(file + ": this isn't JSON: there is a number too large for it");
    }
}

Json toJson(const ImageConfig& image) {
    Json backEnd = std::visit([](const auto& source) { return Json(source); }, image.backEnd);
    return {{"path", image.name.path},
            {"volumeId", image.name.volumeId},
            {"secret", image.secret},
            {"backend", std::move(backEnd)}};
}

} // namespace

Config parseConfig(const std::string& text, const std::string& file) {
    const Json json = parseJson(text, file);
    const ConfigReader reader(json, file);
    reader.expectKeys({"listen", "runtimeDirectory", "compression", "maxSessions", "images"});
    Config config;
    if (reader.has("listen")) {
        config.listen = readAddresses(reader.at("listen"));
    }
    if (reader.has("runtimeDirectory")) {
        config.runtimeDirectory = readDirectory(reader.at("runtimeDirectory"));
    }
    if (reader.has("compression")) {
        config.compression = reader.at("compression").flag();
    }
    if (reader.has("maxSessions")) {
        config.maxSessions = reader.at("maxSessions").number(1, mostSessions);
    }
    if (reader.has("images")) {
        config.images = readImages(reader.at("images"));
    }
    return config;
}

std::string toText(const Config& config) {
    Json json;
    for (const Address& address : config.listen) {
        json["listen"].push_back(describe(address));
    }
    json["runtimeDirectory"] = config.runtimeDirectory;
    json["compression"] = config.compression;
    json["maxSessions"] = config.maxSessions;
    json["images"] = Json::array();
    for (const ImageConfig& image : config.images) {
        json["images"].push_back(toJson(image));
    }
    try {
        return json.dump(2) + "\n";
    } catch (const Json::exception&) {
        throw ConfigError("a path of an image, a secret or a back end isn't UTF-8");
    }
}

} // namespace zephane
