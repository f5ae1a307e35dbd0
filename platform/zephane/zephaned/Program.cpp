#include "zephane/zephaned/Program.h"

#include "zephane/zephaned/Config.h"

#include <cstdlib>
#include <sstream>
#include <unistd.h>

namespace zephane {

std::string findProgram(const std::string& name) {
    const char* const path = ::getenv("PATH"); // NOLINT(concurrency-mt-unsafe): nobody changes it
    std::istringstream directories(path == nullptr ? "/usr/bin:/bin" : path);
    for (std::string directory; std::getline(directories, directory, ':');) {
        const std::string file = directory + "/" + name;
        if (directory.starts_with('/') && ::access(file.c_str(), X_OK) == 0) {
            return file;
        }
    }
    throw ConfigError(name + " isn't to be found in PATH; install it, such as by apt install " + name);
}

} // namespace zephane
