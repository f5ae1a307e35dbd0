#include "common/UUIDGenerator.h"

#include <uuid/uuid.h>

#include <array>
#include <stdexcept>

namespace agent {

namespace {

std::string toText(const uuid_t& uuid) {
    std::array<char, UUID_STR_LEN> buffer{};
    uuid_unparse(uuid, buffer.data());
    return buffer.data();
}

} // namespace

std::string UUIDGenerator::generate() const {
    uuid_t uuid;
    uuid_generate(uuid);
    return toText(uuid);
}

std::string UUIDGenerator::parse(const std::string& text) const {
    uuid_t uuid;
    // uuid_parse would ignore everything after an embedded NUL, hence the check of the size.
    if (text.size() != UUID_STR_LEN - 1 || uuid_parse(text.c_str(), uuid) != 0) {
        throw std::invalid_argument("\"" + text + "\" is not a UUID");
    }
    return toText(uuid);
}

std::string UUIDGenerator::nil() const {
    uuid_t uuid;
    uuid_clear(uuid);
    return toText(uuid);
}

} // namespace agent
