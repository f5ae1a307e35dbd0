#pragma once

#include "zephane/zephaned/ConfigFile.h"

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

namespace zephane {

/// What an administrator does with the configuration.
/// Owns:    nothing; `output` has to stay.
/// Threads: one at a time; other processes take turns.
/// Fails:   ConfigError; everything is as it was then.
class Commands {
public:
    Commands(ConfigFile file, std::ostream& output) : file(std::move(file)), output(output) {}

    /// Whether zephaned can serve what the file says: all that is wrong, a line each, is in the error.
    void check() const;
    /// Gives an image a secret, which is shown this once. `backEnd` is a path, a URI or a list as JSON; with
    /// `size`, in bytes, it is a path where nothing is yet, and a sparse file is made there.
    void add(const wire::ImageName& name, const std::string& backEnd,
             std::optional<std::uint64_t> size) const;
    void list(bool asJson) const;
    /// The data of the image stays.
    void remove(const wire::ImageName& name) const;

private:
    void show(const Config& config, const ImageConfig& image) const;

    ConfigFile file;
    std::ostream& output;
};

/// A whole number below 2^64 and nothing else.
std::optional<std::uint64_t> parseVolumeId(const std::string& text);
/// "10G" and the like, with K, M, G and T for powers of 1024; bytes without them. Nothing for anything else,
/// and for what no file can be as large as.
std::optional<std::uint64_t> parseSize(const std::string& text);

} // namespace zephane
