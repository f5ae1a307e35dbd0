#include "ordak/Backup.h"

#include "common/Exceptions.h"
#include "common/PeerText.h"
#include "common/json/ParseJson.h"
#include "common/json/WholeNumber.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupType.h"
#include "core/backup/SnapshotAttributes.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <limits>
#include <optional>
#include <stdexcept>
#include <unordered_map>
#include <utility>

namespace agent::ordak {

namespace {

using core::backup::VolumeAttributes;
using core::backup::VolumeScript;
using nlohmann::json;
using Attributes = std::unordered_map<std::string, VolumeAttributes>;

constexpr std::uint32_t defaultTimeout = 60;
constexpr std::size_t maxNameBytes = 4096; // bytes; as long as a path can be
constexpr std::uint32_t driverMethod = 0;
constexpr std::uint32_t otherMethod = 1;

/// Returns the result of `convert` for the value under `key`. All errors become bad_request, because the
/// client has sent a wrong value. The JSON library's error texts stay unchanged; the others name the key.
template <typename Convert>
auto readKey(const json& object, const char* key, Convert convert) {
    try {
        return convert(object.at(key));
    } catch (const json::exception& error) {
        throw exception::bad_request(error.what());
    } catch (const std::exception& error) {
        throw exception::bad_request("'" + std::string(key) + "': " + error.what());
    }
}

/// The texts of a request become paths, names of scripts and strings of C libraries: a NUL would end such a
/// text early and change its meaning. They also appear in many log lines, so their length is limited.
std::string requireText(std::string text, const std::string& key) {
    if (text.find('\0') != std::string::npos) {
        throw exception::bad_request("the text of '" + key + "' holds a NUL character");
    }
    if (text.size() > maxNameBytes) {
        throw exception::bad_request("the text of '" + key + "' is longer than " +
                                     std::to_string(maxNameBytes) + " bytes");
    }
    return text;
}

std::string readText(const json& object, const char* key) {
    return requireText(readKey(object, key, [](const json& value) { return value.get<std::string>(); }), key);
}

/// Reads a text that is a name, and appears in the log as such. No valid name of a volume, target or script
/// has control characters.
std::string readName(const json& object, const char* key) {
    std::string name = readText(object, key);
    if (std::any_of(name.begin(), name.end(),
                    [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; })) {
        throw exception::bad_request("the text of '" + std::string(key) + "' holds a control character");
    }
    return name;
}

/// Throws the JSON library's type error if `value` isn't a number, and std::out_of_range if it is above
/// `largest` or negative.
std::uint64_t toNumber(const json& value, std::uint64_t largest) {
    const std::optional<std::uint64_t> number = wholeNumber<std::uint64_t>(value);
    if (value.is_number() && (!number || *number > largest)) {
        throw std::out_of_range("number out of range: " + value.dump());
    }
    return requireWholeNumber<std::uint64_t>(value);
}

std::uint64_t readLun(const json& object, std::uint64_t largest) {
    return readKey(object, "lun", [&](const json& value) {
        const std::optional<std::int64_t> lun = wholeNumber<std::int64_t>(value);
        if (lun && *lun < 0) {
            throw std::out_of_range("the logical unit number " + std::to_string(*lun) + " is negative");
        }
        return toNumber(value, largest);
    });
}

core::backup::BackupType readType(const json& request) {
    const bool forceDiffMerge = request.value("forceDiffMerge", false);
    const bool forceCopyFull = request.value("forceCopyFull", false);
    return core::backup::requestedBackupType(forceDiffMerge, forceCopyFull);
}

std::shared_ptr<core::backup::ISnapshotAttributes> readSnapshotAttributes(const json& request) {
    auto exclusions = request.value("VSSExclusions", std::vector<std::string>());
    for (const std::string& exclusion : exclusions) {
        requireText(exclusion, "VSSExclusions");
    }
    const bool byDriver = request.value("snapshotMethod", std::string()) == "TVD";
    return std::make_shared<core::backup::SnapshotAttributes>(byDriver ? driverMethod : otherMethod,
                                                              std::move(exclusions), 0);
}

void insert(Attributes& attributes, const std::string& guid, VolumeAttributes&& volume) {
    if (!attributes.try_emplace(guid, std::move(volume)).second) {
        throw std::invalid_argument("Could not insert a volume attributes object into the attributes map.");
    }
}

} // namespace

Backup::Backup(info::Logger& logger, core::IEngine& engine, FeatureManager& features)
    : logger(logger), engine(engine) {
    features.addFeature({"zephane", "2.0", "2.0"});
}

/// Reads the whole document and creates all transports before it calls the engine, so that an invalid request
/// starts nothing.
APIResponse Backup::operator()(const std::string& body) {
    info::LogEntry(logger, info::level::info) << "Handling backup start call";
    const json request = parseJson(body);
    const std::string interface = requireText(request.value("interface", std::string()), "interface");
    if (interface == "zephane") {
        throw std::invalid_argument("Zephane v1 not supported!");
    }
    const core::TransportKind& kind = core::transportKindOf(interface);
    const core::backup::BackupType type = readType(request);
    std::shared_ptr<core::backup::ISnapshotAttributes> snapshotAttributes = readSnapshotAttributes(request);
    if (!request.contains("volumes")) {
        throw exception::bad_request("request missing key: volumes");
    }
    auto session = std::make_unique<core::backup::BackupSession>(logger);
    Attributes attributes;
    for (const json& entry : request.at("volumes")) {
        Volume volume = readVolume(entry, kind.maxLun);
        insert(attributes, volume.guid, {volume.image.offset, type, std::move(volume.scripts)});
        session->addTransport(volume.guid, makeTransport(interface, kind, volume.image));
    }
    std::string id = engine.createBackup(
        std::move(session), std::make_shared<core::backup::BackupAttributes>(std::move(attributes)),
        std::move(snapshotAttributes));
    return {APIResponse::ContentType::plainText, std::move(id), 201};
}

Backup::Volume Backup::readVolume(const json& entry, std::uint64_t maxLun) {
    Volume volume;
    volume.guid = readName(entry, "guid");
    volume.image.offset = readKey(entry, "offset", [](const json& value) {
        return toNumber(value, std::numeric_limits<std::uint64_t>::max());
    });
    volume.image.qualifiedName = readName(entry, "qualifiedName");
    volume.image.address = readName(entry, "target");
    volume.image.lun = readLun(entry, maxLun);
    volume.image.username = readText(entry, "username");
    volume.image.password = readText(entry, "password");
    const auto scripts =
        readKey(entry, "scriptsPrePost", [](const json& value) { return value.get<std::vector<json>>(); });
    for (const json& script : scripts) {
        volume.scripts.push_back(readScript(script));
    }
    return volume;
}

VolumeScript Backup::readScript(const json& script) {
    std::string name = readName(script, "scriptname");
    const std::uint32_t timeout = readTimeout(script, name);
    return {std::move(name), timeout};
}

std::uint32_t Backup::readTimeout(const json& script, const std::string& name) {
    try {
        const std::optional<std::int32_t> seconds = wholeNumber<std::int32_t>(script.at("timeout"));
        return seconds && *seconds > 0 ? static_cast<std::uint32_t>(*seconds) : defaultTimeout;
    } catch (const json::exception& error) {
        logger.log(info::level::debug, "No timeout value given for PPS script '%s'; using default (err: %s)",
                   name.c_str(), error.what());
        return defaultTimeout;
    }
}

std::shared_ptr<core::ITransport> Backup::makeTransport(const std::string& interface,
                                                        const core::TransportKind& kind,
                                                        const core::RemoteImage& image) {
    logger.log(info::level::debug, "Backup transport interface requested: %s",
               interface.empty() ? "<not specified>" : printable(interface).c_str());
    logger.log(info::level::info, "Backup transport interface: %s", kind.name);
    return kind.make(logger, image);
}

} // namespace agent::ordak
