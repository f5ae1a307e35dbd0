#include "common/Path.h"

#include <utility>

namespace agent {

Path::Path(std::string text) : text(std::move(text)) {}

Path::Path(const char* text) : text(text) {}

Path Path::operator/(const Path& part) const {
    if (part.text.empty()) {
        return *this;
    }
    // Both searches find nothing in a text that is only slashes; it then contributes just the one separator.
    const std::size_t end = text.find_last_not_of('/');
    const std::size_t begin = part.text.find_first_not_of('/');
    std::string joined = end == std::string::npos ? "" : text.substr(0, end + 1);
    joined += '/';
    if (begin != std::string::npos) {
        joined += part.text.substr(begin);
    }
    return joined;
}

Path Path::parent() const {
    const std::size_t slash = text.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? Path("/") : Path(text.substr(0, slash));
}

} // namespace agent
