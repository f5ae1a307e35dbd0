#pragma once

#include "zephane/zephaned/ConfigFile.h"

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

namespace zephane {

/// The commands with which an administrator changes the configuration.
/// Owns:    nothing; `output` must outlive it.
/// Threads: one at a time; a lock serialises the changes of several processes.
/// Fails:   ConfigError; nothing has changed then.
class Commands {
public:
    Commands(ConfigFile file, std::ostream& output) : file(std::move(file)), output(output) {}

    /// Checks whether zephaned can serve everything in the file. The error lists all problems, one per line.
    void check() const;
    /// Adds an image with a new secret, which is shown only this once. `backEnd` is a path, a URI or a JSON
    /// list. With `size`, in bytes, it must be a path that doesn't exist yet, where a sparse file is created.
    void add(const wire::ImageName& name, const std::string& backEnd,
             std::optional<std::uint64_t> size) const;
    void list(bool asJson) const;
    /// Removes an image from the configuration, but keeps its data.
    void remove(const wire::ImageName& name) const;

private:
    void show(const Config& config, const ImageConfig& image) const;

    ConfigFile file;
    std::ostream& output;
};

/// Accepts only a whole number below 2^64.
std::optional<std::uint64_t> parseVolumeId(const std::string& text);
/// Accepts a number of bytes, or one with the unit K, M, G or T (powers of 1024), such as "10G". None for
/// anything else, for 0, and for more than the largest possible file.
std::optional<std::uint64_t> parseSize(const std::string& text);

} // namespace zephane
