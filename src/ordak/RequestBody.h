#pragma once

#include <atomic>
#include <cstddef>
#include <string>

namespace agent::ordak {

/// Collects the body of one incoming request.
///
/// The limit for the paired device is generous. A device that isn't paired only needs to send a few bytes, so
/// a longer body from it is received but dropped completely: half a text may have another meaning.
/// Owns:    the bytes, and their share of `kept`, the sum over all requests. The destructor releases both.
/// Threads: one thread at a time for each body; any number of bodies may share `kept`.
/// Fails:   `append` returns false if a limit is exceeded; it throws std::bad_alloc.
class RequestBody {
public:
    /// In bytes, for one body and for all bodies in memory together: more than any appliance sends.
    static constexpr std::size_t maxBytes = std::size_t{128} * 1024 * 1024;
    /// In bytes, for a body from a device that isn't paired.
    static constexpr std::size_t maxUnpairedBytes = std::size_t{16} * 1024;

    explicit RequestBody(std::atomic<std::size_t>& kept) : kept(kept) {}
    RequestBody(const RequestBody&) = delete;
    RequestBody& operator=(const RequestBody&) = delete;
    ~RequestBody() { drop(); }

    /// Adds a piece. Returns false if this body, or all bodies in memory together, would exceed maxBytes.
    [[nodiscard]] bool append(const std::string& piece, bool isPaired);
    /// Whether the body was dropped because it is too long for an unpaired device. It then stays empty.
    [[nodiscard]] bool isDropped() const noexcept { return dropped; }
    /// Returns the whole body, which is empty afterwards.
    std::string take();

private:
    bool accountFor(std::size_t count);
    void drop() noexcept;

    std::atomic<std::size_t>& kept;
    std::string bytes;
    std::size_t received = 0;
    bool dropped = false;
};

} // namespace agent::ordak
