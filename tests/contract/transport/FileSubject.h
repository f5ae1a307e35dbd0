#pragma once

#include "TransportSubject.h"
#include "info/log/Logger.h"

namespace agent::contract {

/// A subject on a real server that stores the image in a file, which is read to see what has arrived.
/// Environment variables set the server's address and the image's name.
/// Owns:    its logger; the file and the server belong to the environment.
/// Threads: one.
/// Fails:   by exception, which fails the test.
class FileSubject : public TransportSubject {
public:
    /// Sets the file's modification time to the distant past, so that any later write changes it.
    void setImage(const Bytes& image) override;
    Bytes image() override;
    std::string lastWrite() override;

protected:
    FileSubject();
    /// The value of an environment variable; throws std::invalid_argument if it isn't set.
    static std::string setting(const char* name);

    info::Logger logger; ///< writes what a transport logs to standard error

private:
    const std::string file = setting("TARGET_FILE");
};

} // namespace agent::contract
