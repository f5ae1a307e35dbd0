#include "info/log/Reason.h"

#include <algorithm>

namespace agent::info {

namespace {

constexpr bool isCodeCharacter(char character) {
    return (character >= 'a' && character <= 'z') || character == '-';
}

static_assert(std::ranges::all_of(reasons, [](const Reason& each) {
    return !each.code.empty() && std::ranges::all_of(each.code, isCodeCharacter) &&
           std::ranges::count(reasons, each.code, &Reason::code) == 1;
}));

} // namespace

std::string markOf(const Reason& reason) {
    return " [" + std::string(kindName(reason.kind)) + ":" + std::string(reason.code) + "]";
}

const Reason* findReason(std::string_view text) {
    text.remove_suffix(text.ends_with('\n') ? 1 : 0);
    const auto* const found =
        std::ranges::find_if(reasons, [text](const Reason& each) { return text.ends_with(markOf(each)); });
    return found == reasons.end() ? nullptr : found;
}

const Reason& reasonOf(const std::exception& error, const Reason& otherwise) {
    const auto* const reasoned = dynamic_cast<const HasReason*>(&error);
    return reasoned == nullptr ? otherwise : *reasoned->reason;
}

} // namespace agent::info
