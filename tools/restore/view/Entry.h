#pragma once

#include <cstdint>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace restore::view {

/// A file of any kind, as an entry of its directory.
struct Entry {
    std::string name;
    struct ::stat status{};
    std::string target; ///< of a symbolic link
};

/// All entries but "." and "..", sorted by their bytes. Throws std::runtime_error if the directory can't be
/// read.
std::vector<Entry> entriesOf(int directory);
/// One entry; an empty name means the open file itself. Throws std::runtime_error if there is none.
Entry entryOf(int directory, const std::string& name);

/// Whether this name in a volume's root directory belongs to a file of the snapshot driver or the agent. No
/// backup copies the content of these files, so in an image it is arbitrary.
bool isDriverFile(const std::string& name);

/// "drwxr-xr-x".
std::string modeText(mode_t mode);
/// "file", "directory", "link", "fifo", "socket", "block device", "character device".
std::string typeText(mode_t mode);
/// Escapes what would break the line of a name: a backslash is doubled, a line feed becomes "\n", and other
/// control characters become "\ooo". Blanks stay.
std::string escaped(const std::string& name);

} // namespace restore::view
