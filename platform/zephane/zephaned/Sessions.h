#pragma once

#include "os/Mutex.h"
#include "zephane/wire/Hello.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace zephane {

/// The connections of a server: pending ones, whose client has yet to prove itself, and proven ones
/// (sessions).
/// Owns:    the functions that stop the connections.
/// Threads: any. A Stop function is called without the lock, in the thread that stops the connection.
/// Fails:   never.
class Sessions {
public:
    using Number = std::uint64_t;
    /// Ends a connection without waiting for that. `why` is for the log.
    using Stop = std::function<void(const std::string& why)>;

    /// The most pending connections. One more ends the oldest, so that silent clients don't keep others out.
    static constexpr std::size_t mostPending = 256;
    /// The most sessions of one image, so that the holder of one secret doesn't keep the others out.
    static constexpr std::size_t mostPerImage = 16;

    explicit Sessions(std::size_t limit) : limit(limit) {}

    void setLimit(std::size_t sessions);
    /// Adds a pending connection.
    Number add(Stop stop);
    /// Makes the connection a session, because its client has proven itself for the image. Returns false if
    /// there are too many sessions, in all or of this image, or if the connection has been stopped.
    [[nodiscard]] bool prove(Number number, const wire::ImageName& image);
    /// Removes a connection that has ended.
    void remove(Number number);

    /// Stops all connections, and also those that are added from now on.
    void stopAll(const std::string& why);
    void stopMatching(const std::function<bool(const wire::ImageName& image)>& matches,
                      const std::string& why);

private:
    struct Session {
        wire::ImageName image;
        Stop stop;
    };

    mutable os::Mutex mutex;
    std::size_t limit GUARDED_BY(mutex);
    std::string endReason GUARDED_BY(mutex); // why all are stopped; empty if they aren't
    Number last GUARDED_BY(mutex) = 0;
    std::map<Number, Stop> pending GUARDED_BY(mutex); // the oldest first
    std::map<Number, Session> proven GUARDED_BY(mutex);
};

} // namespace zephane
