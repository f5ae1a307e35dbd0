#include "zephane/zephaned/Commands.h"

#include "zephane/wire/Proof.h"
#include "zephane/zephaned/BackEndSource.h"
#include "zephane/zephaned/ConfigReader.h"
#include "zephane/zephaned/ImageFile.h"
#include "zephane/zephaned/Names.h"
#include "zephane/zephaned/Program.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iomanip>
#include <limits>
#include <string_view>

namespace zephane {

namespace {

constexpr std::size_t secretBytes = 32;
/// One that has fewer characters wasn't generated here.
constexpr std::size_t shortSecret = 22;

/// As base64url has it, without padding; the secret is hard to guess because its bytes are.
std::string encodeText(std::span<const std::uint8_t> bytes) {
    constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    constexpr unsigned letterBits = 6;
    std::string text;
    std::uint32_t rest = 0;
    unsigned bits = 0;
    for (const std::uint8_t byte : bytes) {
        rest = rest << 8U | byte;
        for (bits += 8; bits >= letterBits; bits -= letterBits) {
            text += letters[rest >> (bits - letterBits) & 63U];
        }
    }
    if (bits > 0) {
        text += letters[rest << (letterBits - bits) & 63U];
    }
    return text;
}

std::string newSecret() {
    std::array<std::uint8_t, secretBytes> bytes{};
    wire::fillRandomly(bytes);
    return encodeText(bytes);
}

BackEndSource toSource(const std::string& backEnd) {
    if (!backEnd.starts_with('[')) {
        return backEnd;
    }
    try {
        return Json::parse(backEnd).get<std::vector<std::string>>();
    } catch (const Json::exception&) {
        throw ConfigError("the back end is no list of texts in JSON: " + backEnd);
    }
}

std::string whereToConnect(const Config& config) {
    Address address = config.listen.front();
    if (address.host != "0.0.0.0" && address.host != "::") {
        return describe(address);
    }
    address.host = "ADDRESS";
    return describe(address) + "   (an address of this machine)";
}

/// All of the text.
std::optional<std::uint64_t> parseNumber(std::string_view text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

} // namespace

std::optional<std::uint64_t> parseVolumeId(const std::string& text) {
    return parseNumber(text);
}

std::optional<std::uint64_t> parseSize(const std::string& text) {
    constexpr std::string_view units = "KMGT";
    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    const std::size_t unit = text.empty() ? std::string_view::npos : units.find(text.back());
    const bool hasUnit = unit != std::string_view::npos;
    const std::size_t shift = hasUnit ? 10 * (unit + 1) : 0;
    const auto number = parseNumber(std::string_view(text).substr(0, text.size() - (hasUnit ? 1 : 0)));
    if (!number || *number == 0 || *number > largest >> shift) {
        return std::nullopt;
    }
    return *number << shift;
}

void Commands::check() const {
    const Config config = file.load();
    findProgram("nbdkit");
    std::string problems;
    for (const ImageConfig& image : config.images) {
        if (const std::string problem = problemOf(image.backEnd); !problem.empty()) {
            problems += "\n" + describe(image.name) + ": " + problem;
        }
        if (image.secret.size() < shortSecret) {
            output << "warning: " << describe(image.name)
                   << ": the secret is short; one that can be guessed opens the image\n";
        }
    }
    if (!problems.empty()) {
        throw ConfigError(file.name() + ": not all images can be served:" + problems);
    }
    output << file.name() << " is right; images: " << config.images.size() << "\n";
}

void Commands::add(const wire::ImageName& name, const std::string& backEnd,
                   std::optional<std::uint64_t> size) const {
    const os::FileDescriptor turn = file.lock();
    Config config = file.exists() ? file.load() : Config();
    config.images.push_back({name, newSecret(), toSource(backEnd)});
    const ImageConfig& image = config.images.back();
    const std::string text = toText(config);
    parseConfig(text, file.name()); // the same errors as when it is read
    std::optional<ImageFile> made;
    if (size) {
        if (!backEnd.starts_with('/')) {
            throw ConfigError("only a file can be made: " + backEnd + " is no path that begins with /");
        }
        made.emplace(backEnd, *size, file.ownerPath());
    }
    if (const std::string problem = problemOf(image.backEnd); !problem.empty()) {
        throw ConfigError(problem + (size ? "" : ", or let --size make it"));
    }
    file.save(config);
    if (made) {
        made->keep();
    }
    show(config, image);
}

void Commands::show(const Config& config, const ImageConfig& image) const {
    output << "What the appliance has to send for this image; the password isn't shown again:\n"
           << "  target         " << whereToConnect(config) << "\n"
           << "  qualifiedName  " << image.name.path << "\n"
           << "  lun            " << image.name.volumeId << "\n"
           << "  password       " << image.secret << "\n"
           << "A zephaned that runs serves it after systemctl reload zephaned, or a SIGHUP.\n";
}

void Commands::list(bool asJson) const {
    const Config config = file.load();
    Json images = Json::array();
    std::size_t width = 0;
    for (const ImageConfig& image : config.images) {
        images.push_back({{"path", image.name.path},
                          {"volumeId", image.name.volumeId},
                          {"backend", describe(image.backEnd)}});
        width = std::max(width, describe(image.name).size());
    }
    if (asJson) {
        output << images.dump(2) << "\n";
        return;
    }
    for (const ImageConfig& image : config.images) {
        output << std::left << std::setw(static_cast<int>(width)) << describe(image.name) << "  "
               << describe(image.backEnd) << "\n";
    }
}

void Commands::remove(const wire::ImageName& name) const {
    const os::FileDescriptor turn = file.lock();
    Config config = file.load();
    const auto found = std::ranges::find(config.images, name, &ImageConfig::name);
    if (found == config.images.end()) {
        throw ConfigError(file.name() + ": there is no image " + describe(name) +
                          "; \"zephaned list\" shows those there are");
    }
    const std::string backEnd = describe(found->backEnd);
    config.images.erase(found);
    file.save(config);
    output << describe(name) << " is no longer served once zephaned has read its configuration again.\n"
           << "Its data stays where it is: " << backEnd << "\n";
}

} // namespace zephane
