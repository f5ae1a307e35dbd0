#pragma once

#include "os/FileDescriptor.h"

#include <string>

namespace bekctl {

/// Sends lines to systemd's journal as those of the agent, so that `journalctl -u bekd` shows them.
/// Owns:    the socket.
/// Threads: one at a time.
/// Fails:   the constructor throws PosixError if there is no journal. A line that the journal doesn't take
///          within ten seconds is dropped.
/// The format is systemd's Native Journal Protocol.
class JournalSocket {
public:
    JournalSocket();

    /// `priority` is one of syslog's, 0 to 7; `text` is one line.
    void send(int priority, const std::string& text) const;

private:
    os::FileDescriptor socket;
};

} // namespace bekctl
