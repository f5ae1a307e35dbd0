#pragma once

#include "os/FileDescriptor.h"

#include <string>

namespace bekctl {

/// The journal of systemd, told lines as those of the agent: `journalctl -u bekd` shows them.
/// Owns:    the socket.
/// Threads: one at a time.
/// Fails:   PosixError if there is no journal. A line that it doesn't take within ten seconds is dropped.
/// Source of the format: Native Journal Protocol of systemd.
class JournalSocket {
public:
    JournalSocket();

    /// `priority` is that of syslog, 0 to 7; `text` one line.
    void send(int priority, const std::string& text) const;

private:
    os::FileDescriptor socket;
};

} // namespace bekctl
