#include "Target.h"

#include <charconv>
#include <string_view>
#include <utility>

namespace bekctl {

namespace {

constexpr unsigned short iscsiPort = 3260;

/// Splits the text into the host and what follows it.
std::pair<std::string_view, std::string_view> split(std::string_view text) {
    if (text.starts_with('[')) {
        const std::size_t end = text.find(']');
        return end == std::string_view::npos ? std::pair(std::string_view(), text)
                                             : std::pair(text.substr(1, end - 1), text.substr(end + 1));
    }
    const std::size_t colon = text.find(':');
    return colon == std::string_view::npos ? std::pair(text, std::string_view())
                                           : std::pair(text.substr(0, colon), text.substr(colon));
}

} // namespace

std::optional<Target> parseTarget(const std::string& text) {
    const auto [host, rest] = split(text);
    unsigned short port = iscsiPort;
    if (!rest.empty()) {
        const char* const end = rest.data() + rest.size();
        const auto [stop, error] = std::from_chars(rest.data() + 1, end, port);
        if (!rest.starts_with(':') || error != std::errc() || stop != end || port == 0) {
            return std::nullopt;
        }
    }
    return host.empty() ? std::nullopt : std::optional(Target{std::string(host), port});
}

} // namespace bekctl
