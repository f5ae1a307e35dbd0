#include "unit/db/WriteStream.h"

namespace agent::test::stream {

namespace {

enum Kind : std::uint64_t { checksum, config, device, journal, incremental, kinds };

constexpr std::uint64_t volumes = 3;

std::string volumeOf(std::uint64_t number) {
    return "volume " + std::to_string(number / kinds % volumes);
}

db::ChangeContext contextOf(std::uint64_t number) {
    return static_cast<db::ChangeContext>(number / (kinds * volumes) % 2);
}

db::ChecksumType typeOf(std::uint64_t number) {
    return static_cast<db::ChecksumType>(number % 2);
}

std::string keyOf(std::uint64_t number) {
    return "key " + std::to_string(slotOf(number));
}

} // namespace

void perform(db::IDataProviderExtended& provider, std::uint64_t number) {
    const std::string text = std::to_string(number);
    switch (number % kinds) {
    case checksum:
        return provider.setVolumeChecksum(volumeOf(number), static_cast<std::uint32_t>(number),
                                          typeOf(number));
    case config:
        return provider.setConfigValue(keyOf(number), text);
    case device:
        return provider.setDevice(static_cast<std::int32_t>(number), text, text);
    case journal:
        return provider.setVolumeJournalChangeId(volumeOf(number), contextOf(number), number, number);
    default:
        return provider.setVolumeIncrementalSizeBlocks(volumeOf(number), number);
    }
}

std::uint64_t slotOf(std::uint64_t number) {
    switch (number % kinds) {
    case device:
        return device;
    case journal:
        return number % slotCount;
    default:
        return number % (kinds * volumes);
    }
}

bool deletesFirst(std::uint64_t slot) {
    return slot % kinds == config || slot % kinds == device;
}

std::string readStatement(std::uint64_t slot) {
    const std::string ofVolume = " where volume_uuid = '" + volumeOf(slot) + "';";
    const std::string prefix = contextOf(slot) == db::ChangeContext::Current ? "current" : "next";
    switch (slot % kinds) {
    case checksum:
        return "select image_checksum || ' ' || image_checksum_type from volumes" + ofVolume;
    case config:
        return "select group_concat(value) from config where key = '" + keyOf(slot) + "';";
    case device:
        return "select group_concat(id || ' ' || ip || ' ' || agentUUID) from device;";
    case journal:
        return "select " + prefix + "_journal_id || ' ' || " + prefix +
               "_journal_change_id from change_journal" + ofVolume;
    default:
        return "select incremental_size_blocks from change_journal" + ofVolume;
    }
}

std::string expectedText(std::uint64_t number) {
    const std::string text = std::to_string(number);
    switch (number % kinds) {
    case checksum:
        return text + (typeOf(number) == db::ChecksumType::gcrypt32crc ? " gcrypt32crc" : " libcrc32c");
    case device:
        return text + " " + text + " " + text;
    case journal:
        return text + " " + text;
    default:
        return text;
    }
}

bool isUnwritten(const std::optional<std::string>& text) {
    return !text || *text == "0 unknown" || *text == "0 0" || *text == "0";
}

} // namespace agent::test::stream
