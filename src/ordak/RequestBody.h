#pragma once

#include <atomic>
#include <cstddef>
#include <string>

namespace agent::ordak {

/// The body of one request while it comes in.
///
/// What the paired device may send is generous; a device that isn't paired has nothing to say that takes more
/// than a few bytes, so a longer body of it is received but not kept: none of it, since half a text may mean
/// something else than the whole.
/// Owns:    the bytes; its share of `kept`, the sum over all requests, is given back with them.
/// Threads: one at a time for a body; `kept` may be shared by any number of them.
/// Fails:   only for want of memory.
class RequestBody {
public:
    /// In bytes, of one body and of all that are kept at a time: above anything that an appliance sends.
    static constexpr std::size_t mostBytes = std::size_t{128} * 1024 * 1024;
    /// In bytes, of a body from a device that isn't paired.
    static constexpr std::size_t mostUnpairedBytes = std::size_t{16} * 1024;

    explicit RequestBody(std::atomic<std::size_t>& kept) : kept(kept) {}
    RequestBody(const RequestBody&) = delete;
    RequestBody& operator=(const RequestBody&) = delete;
    ~RequestBody() { drop(); }

    /// Adds a piece. False: the body is longer than any may be, or too much is kept of others.
    [[nodiscard]] bool append(const std::string& piece, bool isPaired);
    /// The body is longer than that of an unpaired device may be: it is empty, and stays so.
    [[nodiscard]] bool isDropped() const noexcept { return dropped; }
    /// The whole, which is empty afterwards.
    std::string take();

private:
    bool reserve(std::size_t count);
    void drop() noexcept;

    std::atomic<std::size_t>& kept;
    std::string bytes;
    std::size_t received = 0;
    bool dropped = false;
};

} // namespace agent::ordak
