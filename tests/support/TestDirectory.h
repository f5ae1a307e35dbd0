#pragma once

#include "common/BaseDirectories.h"
#include "common/Directory.h"
#include "common/Path.h"
#include "common/UUIDGenerator.h"

#include <fstream>
#include <sstream>
#include <string>

namespace agent::test {

/// An empty directory for a test. The destructor removes it with its contents.
/// Owns:    the directory and all that tests put there.
/// Threads: one constructs and destroys it; `path` and `/` are safe from any.
/// Fails:   the constructor throws PosixError. If the directory can't be removed, the program ends.
class TestDirectory {
public:
    TestDirectory() : location(dir::testing() / UUIDGenerator().generate()) { dir::make(location); }
    TestDirectory(const TestDirectory&) = delete;
    TestDirectory& operator=(const TestDirectory&) = delete;
    ~TestDirectory() { dir::remove(location); }

    [[nodiscard]] const Path& path() const { return location; }
    Path operator/(const Path& part) const { return location / part; }

private:
    Path location;
};

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string readFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

} // namespace agent::test
