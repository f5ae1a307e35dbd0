#pragma once

#include "core/transport/IscsiLibrary.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace agent::bench {

/// A disk of a target, as plainly as the library gives it.
/// Owns:    the session with the target, which needs no account.
/// Threads: one at a time.
/// Fails:   by std::runtime_error; the session is no use then.
class Disk {
public:
    /// What the library calls with each answer: a status of SCSI's, the task, which is the callee's, and
    /// `place`. It is called no later than in the destructor.
    using Answered = void (*)(iscsi_context* context, int status, void* task, void* place);

    Disk(const std::string& portal, const std::string& target, int lun);

    /// One command, and its answer.
    void write(std::uint64_t offset, std::byte* data, std::size_t length);
    void read(std::uint64_t offset, std::size_t length);

    /// One command more in flight. `data` is used until it is answered.
    void beginWrite(std::uint64_t offset, std::byte* data, std::size_t length, Answered answered,
                    void* place);
    void beginRead(std::uint64_t offset, std::byte* data, std::size_t length, Answered answered, void* place);
    /// Waits until something can be sent or has come, and deals with it.
    void serve();

    void logOut();

private:
    [[nodiscard]] std::uint64_t blockAt(std::uint64_t offset) const { return offset / blockSize; }
    void require(bool isDone, const char* what);

    core::iscsi::Context context;
    int lun;
    std::uint32_t blockSize = 0;
};

} // namespace agent::bench
