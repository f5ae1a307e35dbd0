#pragma once

#include <cstdint>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace restore::view {

/// A file of any kind, as its directory has it.
struct Entry {
    std::string name;
    struct ::stat status{};
    std::string target; ///< of a symbolic link
};

/// All but "." and "..", in the order of their bytes. Throws std::runtime_error if it can't be read.
std::vector<Entry> entriesOf(int directory);
/// One of them. Throws std::runtime_error if there is none.
Entry entryOf(int directory, const std::string& name);

/// Whether a name in a volume's top is that of a file that the snapshot driver or the agent keeps there. No
/// backup copies what is in them: in an image it is anything.
bool isDriverFile(const std::string& name);

/// "drwxr-xr-x".
std::string modeText(mode_t mode);
/// "file", "directory", "link", "fifo", "socket", "block device", "character device".
std::string typeText(mode_t mode);
/// The name with a backslash before what would break its line: blanks stay, a line feed becomes "\n", and
/// other control characters "\ooo".
std::string escaped(const std::string& name);

} // namespace restore::view
