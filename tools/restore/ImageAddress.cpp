#include "ImageAddress.h"

#include <charconv>
#include <curl/curl.h>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace restore {

namespace {

constexpr std::uint16_t iscsiPort = 3260;
constexpr std::uint16_t zephanePort = 25568;
constexpr std::uint64_t blockBytes = 512;
constexpr int mostLuns = 16'384; // LUNs are addressed by one byte or by 14 bits

struct FreeUrl {
    void operator()(CURLU* url) const noexcept { ::curl_url_cleanup(url); }
};
struct FreeText {
    void operator()(char* text) const noexcept { ::curl_free(text); }
};
using Url = std::unique_ptr<CURLU, FreeUrl>;

[[noreturn]] void refuse(const std::string& text, const std::string& reason) {
    throw std::invalid_argument("\"" + text + "\" is no address of an image: " + reason);
}

Url urlOf(const std::string& text) {
    Url url(::curl_url());
    if (!url ||
        ::curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
        refuse(text, "it can't be read as a URL");
    }
    return url;
}

/// Returns an empty text if there is no such part.
std::string partOf(const Url& url, CURLUPart part) {
    char* text = nullptr;
    if (::curl_url_get(url.get(), part, &text, CURLU_URLDECODE) != CURLUE_OK) {
        return {};
    }
    return std::unique_ptr<char, FreeText>(text).get();
}

template <typename Number>
Number numberIn(const std::string& text, std::string_view digits, const char* what) {
    Number number{};
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    if (digits.empty() || error != std::errc() || stop != end) {
        refuse(text, std::string(what) + " \"" + std::string(digits) + "\" is no number that can be");
    }
    return number;
}

std::string withoutBrackets(const std::string& host) {
    return host.starts_with('[') && host.ends_with(']') ? host.substr(1, host.size() - 2) : host;
}

std::uint64_t offsetIn(const std::string& text, const std::string& query) {
    constexpr std::string_view key = "offset=";
    if (query.empty()) {
        return 0;
    }
    if (!query.starts_with(key)) {
        refuse(text, "only offset=BYTES can stand behind the question mark");
    }
    const auto offset =
        numberIn<std::uint64_t>(text, std::string_view(query).substr(key.size()), "the offset");
    if (offset % blockBytes != 0) {
        refuse(text, "the offset isn't a multiple of 512 bytes");
    }
    return offset;
}

/// Splits the URL's path at its last slash, and drops the first one.
std::pair<std::string, std::string> splitPath(const std::string& text, const std::string& path,
                                              const char* form) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        refuse(text, std::string("it has the form ") + form);
    }
    return {path.substr(1, slash - 1), path.substr(slash + 1)};
}

ImageAddress remoteAddress(const std::string& text, ImageAddress::Kind kind, std::uint16_t usualPort) {
    const Url url = urlOf(text);
    if (!partOf(url, CURLUPART_PASSWORD).empty()) {
        refuse(text, "a password doesn't belong there, as everybody on this machine can read it; see "
                     "--password-file");
    }
    ImageAddress address;
    address.kind = kind;
    address.text = text;
    address.host = withoutBrackets(partOf(url, CURLUPART_HOST));
    const std::string port = partOf(url, CURLUPART_PORT);
    address.port = port.empty() ? usualPort : numberIn<std::uint16_t>(text, port, "the port");
    if (address.host.empty() || address.port == 0) {
        refuse(text, "it names no host, or no port");
    }
    address.user = partOf(url, CURLUPART_USER);
    address.path = partOf(url, CURLUPART_PATH);
    address.offset = offsetIn(text, partOf(url, CURLUPART_QUERY));
    return address;
}

ImageAddress iscsiAddress(const std::string& text) {
    ImageAddress address = remoteAddress(text, ImageAddress::Kind::iscsi, iscsiPort);
    std::string lun;
    std::tie(address.target, lun) =
        splitPath(text, address.path, "iscsi://[USER@]HOST[:PORT]/TARGET/LUN[?offset=BYTES]");
    address.path.clear();
    address.lun = numberIn<int>(text, lun, "the LUN");
    if (address.lun < 0 || address.lun >= mostLuns) {
        refuse(text, "there is no such LUN");
    }
    return address;
}

ImageAddress zephaneAddress(const std::string& text) {
    ImageAddress address = remoteAddress(text, ImageAddress::Kind::zephane, zephanePort);
    std::string volumeId;
    std::tie(address.path, volumeId) =
        splitPath(text, address.path, "zephane://HOST[:PORT]/PATH/VOLUME-ID[?offset=BYTES]");
    address.volumeId = numberIn<std::uint64_t>(text, volumeId, "the volume ID");
    return address;
}

} // namespace

bool ImageAddress::wantsSecret() const {
    return kind == Kind::zephane || (kind == Kind::iscsi && !user.empty());
}

std::string portalOf(const ImageAddress& address) {
    const bool isVersion6 = address.host.find(':') != std::string::npos;
    return (isVersion6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

ImageAddress parseImageAddress(const std::string& text) {
    if (text.starts_with("iscsi://")) {
        return iscsiAddress(text);
    }
    if (text.starts_with("zephane://")) {
        return zephaneAddress(text);
    }
    ImageAddress address;
    address.text = text;
    if (text.starts_with("nbd://") || text.starts_with("nbds://") || text.starts_with("nbd+unix://") ||
        text.starts_with("nbds+unix://")) {
        address.kind = ImageAddress::Kind::nbd;
    } else if (text.empty()) {
        refuse(text, "it is empty");
    } else {
        address.path = text;
    }
    return address;
}

} // namespace restore
