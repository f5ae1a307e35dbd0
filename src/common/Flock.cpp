#include "common/Flock.h"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace agent {

// O_CLOEXEC: a script that outlives the agent must not keep holding the lock.
Flock::Flock(std::string path)
    : path(std::move(path)), descriptor(::open(this->path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (!descriptor) {
        throw std::runtime_error("Unable to lock file");
    }
    // Anybody who can open the file can lock it, and so prevent every later start of the agent.
    static_cast<void>(::fchmod(descriptor.get(), S_IRUSR | S_IWUSR));
    if (::flock(descriptor.get(), LOCK_EX | LOCK_NB) != 0) {
        throw std::runtime_error(errno == EAGAIN ? "File already locked" : "Unknown lock failure");
    }
}

Flock::~Flock() {
    descriptor.reset();
    ::unlink(path.c_str());
}

void Flock::writePid() {
    const std::string pid = std::to_string(::getpid());
    if (pid.empty()) {
        throw std::runtime_error("PID conversion failure");
    }
    if (::ftruncate(descriptor.get(), 0) != 0) {
        throw std::runtime_error("Unable to truncate lock file");
    }
    if (::write(descriptor.get(), pid.data(), pid.size()) == -1) {
        throw std::runtime_error("Unable to write to lock file");
    }
}

} // namespace agent
