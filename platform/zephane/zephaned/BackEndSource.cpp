#include "zephane/zephaned/BackEndSource.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace zephane {

namespace {

bool isFilter(const std::string& argument) {
    return argument.starts_with("--filter=");
}

/// The plugin and its parameters, as nbdkit expects them.
std::vector<std::string> pluginArguments(const BackEndSource& source) {
    if (const auto* arguments = std::get_if<std::vector<std::string>>(&source)) {
        return *arguments;
    }
    const auto& place = std::get<std::string>(source);
    return place.starts_with('/') ? std::vector<std::string>{"file", "file=" + place}
                                  : std::vector<std::string>{"nbd", "uri=" + place};
}

/// The file parameter of nbdkit's file plugin; empty for any other plugin.
std::string fileOf(const BackEndSource& source) {
    const std::vector<std::string> arguments = pluginArguments(source);
    const auto plugin = std::ranges::find_if_not(arguments, isFilter);
    if (plugin == arguments.end() || *plugin != "file") {
        return {};
    }
    const auto file = std::find_if(plugin + 1, arguments.end(), [](const std::string& parameter) {
        return parameter.starts_with("file=") || parameter.find('=') == std::string::npos;
    });
    if (file == arguments.end()) {
        return "(none)";
    }
    return file->starts_with("file=") ? file->substr(5) : *file;
}

} // namespace

std::vector<std::string> engineArguments(const BackEndSource& source, bool isWritable) {
    std::vector<std::string> arguments{"--filter=exportname"};
    if (!isWritable) {
        arguments.emplace_back("--readonly");
    }
    std::ranges::copy(pluginArguments(source), std::back_inserter(arguments));
    arguments.emplace_back("exportname-strict=true");
    arguments.emplace_back("exportname=");
    return arguments;
}

// Only a back end that is a file can be checked without starting nbdkit.
std::string problemOf(const BackEndSource& source) {
    const std::string file = fileOf(source);
    if (file.empty()) {
        return {};
    }
    if (!file.starts_with('/')) {
        return "the image's file has to be a path that begins with /, and is " + file;
    }
    struct stat status{};
    if (::stat(file.c_str(), &status) != 0) {
        return file + ": " + std::generic_category().message(errno) + "; make it, such as by truncate -s 10G";
    }
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
        return file + ": an image is a file or a block device";
    }
    if (::access(file.c_str(), R_OK | W_OK) != 0) {
        return file + ": this user may not read and write it: " + std::generic_category().message(errno);
    }
    if (S_ISREG(status.st_mode) && status.st_size == 0) {
        return file + ": it is empty; give it its size, such as by truncate -s 10G";
    }
    return {};
}

std::string describe(const BackEndSource& source) {
    if (const auto* place = std::get_if<std::string>(&source)) {
        return *place;
    }
    std::string text = "nbdkit";
    for (const std::string& argument : std::get<std::vector<std::string>>(source)) {
        text += " " + argument;
        if (!isFilter(argument)) {
            break;
        }
    }
    return text + " ...";
}

} // namespace zephane
