#pragma once

#include "zephane/wire/Hello.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace zephane {

/// The connections of a server: those whose client has yet to prove itself, and the others, which are
/// sessions.
/// Owns:    nothing but what they are stopped by.
/// Threads: any. What stops a connection is called without a lock, in the thread that wants it stopped.
/// Fails:   never.
class Sessions {
public:
    using Number = std::uint64_t;
    /// Ends a connection, and doesn't wait. Gets why, in words.
    using Stop = std::function<void(const std::string& why)>;

    /// A client that says nothing must not keep others out: beyond this many, the oldest goes.
    static constexpr std::size_t mostPending = 256;
    /// Who holds the secret of one image must not keep those of others out.
    static constexpr std::size_t mostOfOneImage = 16;

    explicit Sessions(std::size_t most) : most(most) {}

    void setMost(std::size_t sessions);
    /// A new connection.
    Number add(Stop stop);
    /// Its client has proven that it may use the image. False if there are too many sessions, in all or of
    /// this image, or if the connection has been stopped.
    [[nodiscard]] bool prove(Number number, const wire::ImageName& image);
    /// The connection has ended.
    void remove(Number number);

    /// All there are, and those that are added from now on.
    void stopAll(const std::string& why);
    void stopThose(const std::function<bool(const wire::ImageName& image)>& isMeant, const std::string& why);

private:
    struct Session {
        wire::ImageName image;
        Stop stop;
    };

    mutable std::mutex mutex;
    std::size_t most;                 // guarded by mutex
    std::string end;                  // why all are stopped, if they are; guarded by mutex
    Number last = 0;                  // guarded by mutex
    std::map<Number, Stop> pending;   // guarded by mutex; the oldest first
    std::map<Number, Session> proven; // guarded by mutex
};

} // namespace zephane
