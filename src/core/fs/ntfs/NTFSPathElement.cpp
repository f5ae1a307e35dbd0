#include "core/fs/ntfs/NTFSPathElement.h"

#include <cstddef>
#include <cwchar>
#include <stdexcept>
#include <utility>

namespace agent::core::fs {

namespace {

std::wstring wideOf(const std::string& text) {
    std::wstring wide(text.size(), L'\0'); // each character takes at least one byte
    std::mbstate_t state{};
    const char* rest = text.c_str();
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the state is our own
    const std::size_t length = std::mbsrtowcs(wide.data(), &rest, wide.size(), &state);
    if (length == static_cast<std::size_t>(-1)) {
        throw std::runtime_error("A part of the path is not UTF-8: " + text);
    }
    wide.resize(length);
    return wide;
}

} // namespace

NTFSPathElement::NTFSPathElement(std::string text) : text(std::move(text)), wide(wideOf(this->text)) {}

int NTFSPathElement::compare(const std::wstring& name) const {
    return ::wcscasecmp(wide.c_str(), name.c_str());
}

void NTFSPathElement::fail(const char* reason, const char* rest) const {
    throw std::runtime_error(reason + text + rest);
}

} // namespace agent::core::fs
