#include "Uuid.h"

#include "Failure.h"

#include <uuid/uuid.h>

namespace tolvubd {

std::string makeUuid() {
    UuidBytes bytes{};
    ::uuid_generate_random(bytes.data());
    return uuidText(bytes);
}

bool isUuid(const std::string& text) {
    UuidBytes bytes{};
    return text.size() == UUID_STR_LEN - 1 && ::uuid_parse(text.c_str(), bytes.data()) == 0;
}

std::string uuidText(const UuidBytes& bytes) {
    std::array<char, UUID_STR_LEN> text{};
    ::uuid_unparse_lower(bytes.data(), text.data());
    return text.data();
}

UuidBytes uuidBytes(const std::string& text) {
    UuidBytes bytes{};
    if (!isUuid(text) || ::uuid_parse(text.c_str(), bytes.data()) != 0) {
        fail(EINVAL, "not a UUID: " + text);
    }
    return bytes;
}

} // namespace tolvubd
