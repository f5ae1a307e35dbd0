#include "core/script/ForeignWriter.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <sys/stat.h>
#include <system_error>

namespace agent::core::script {

namespace {

namespace fs = std::filesystem;

constexpr mode_t permissions = 07777;
/// The kernel's limit.
constexpr int maxLinks = 40;

std::string describe(const fs::path& place, const struct ::stat& found) {
    std::array<char, 8> mode{};
    std::snprintf(mode.data(), mode.size(), "%04o", found.st_mode & permissions);
    return "\"" + place.string() + "\" (owner " + std::to_string(found.st_uid) + ", mode " + mode.data() +
           ")";
}

/// Resolves a path component by component, like the kernel.
class PathResolver {
public:
    /// Resolves `rest` from `place`, which has been checked. Returns what others can write to, or an empty
    /// text.
    std::string follow(fs::path place, fs::path rest) {
        while (!rest.empty()) {
            const fs::path step = *rest.begin();
            rest = withoutFirst(rest);
            if (step.empty() || step == ".") {
                continue;
            }
            if (step == "..") {
                place = place.parent_path();
                continue;
            }
            const fs::path next = place / step;
            struct ::stat found{};
            if (::lstat(next.c_str(), &found) != 0) {
                return {};
            }
            if (S_ISLNK(found.st_mode)) {
                if (++links > maxLinks) {
                    return "\"" + next.string() + "\" (too many links)";
                }
                const fs::path target = readLink(next);
                place = target.is_absolute() ? target.root_path() : place;
                rest = target.relative_path() / rest;
            } else if (isForeign(found)) {
                return describe(next, found);
            } else {
                place = next;
            }
        }
        return {};
    }

    static bool isForeign(const struct ::stat& found) {
        return found.st_uid != 0 || (found.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    }

private:
    static fs::path withoutFirst(const fs::path& path) {
        fs::path rest;
        for (auto part = std::next(path.begin()); part != path.end(); ++part) {
            rest /= *part;
        }
        return rest;
    }

    static fs::path readLink(const fs::path& link) {
        std::error_code gone;
        return fs::read_symlink(link, gone);
    }

    int links = 0;
};

} // namespace

std::string findForeignWriter(const std::string& path) {
    const fs::path whole = fs::absolute(path);
    const fs::path root = whole.root_path();
    struct ::stat found{};
    if (::lstat(root.c_str(), &found) == 0 && PathResolver::isForeign(found)) {
        return describe(root, found);
    }
    return PathResolver().follow(root, whole.relative_path());
}

} // namespace agent::core::script
