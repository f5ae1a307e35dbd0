#pragma once

#include "TransportSubject.h"
#include "info/log/Logger.h"

namespace agent::contract {

/// A subject of a real server, which keeps the image in a file: what has arrived is looked up there. Where
/// the server is and how the image is called, the environment says.
/// Owns, Threads, Fails: as TransportSubject.
class FileSubject : public TransportSubject {
public:
    /// Leaves the file with a time of its last change that no later change can have.
    void setImage(const Bytes& image) override;
    Bytes image() override;
    std::string lastWrite() override;

protected:
    FileSubject();
    /// What the environment says; std::invalid_argument for a variable that isn't there.
    static std::string setting(const char* name);

    info::Logger logger; ///< what a transport complains about goes to standard error

private:
    const std::string file = setting("TARGET_FILE");
};

} // namespace agent::contract
