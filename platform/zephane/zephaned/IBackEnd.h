#pragma once

#include <string>

namespace zephane {

/// What serves one image by NBD.
/// Owns:    see the classes that implement it.
/// Threads: any.
/// Fails:   never.
class IBackEnd {
public:
    virtual ~IBackEnd() = default;
    /// The path of the Unix socket where it takes connections, some time after it was made.
    [[nodiscard]] virtual const std::string& socket() const = 0;
    /// From then on nothing of it writes to the image any more.
    [[nodiscard]] virtual bool hasEnded() const = 0;
    /// Asks it to end, and doesn't wait.
    virtual void stop() = 0;
};

} // namespace zephane
