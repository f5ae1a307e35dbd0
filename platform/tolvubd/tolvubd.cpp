// Only what the header declares is visible outside the library.
#pragma GCC visibility push(default)
#include "tolvubd.h"
#pragma GCC visibility pop

#include "Driver.h"
#include "Layout.h"
#include "Status.h"
#include "SystemLog.h"

#include <cerrno>
#include <exception>
#include <new>
#include <string>
#include <system_error>
#include <unistd.h>

namespace {

using tolvubd::Busy;
using tolvubd::Driver;
using tolvubd::Mode;

int32_t failed(int error, const std::string& operation, const char* what) {
    tolvubd::logLine(tolvubd::Severity::error, operation + " has failed: " + what);
    errno = error;
    return -1;
}

/// No exception leaves the library: the caller may be written in any language.
template <class Work>
int32_t guard(const char* operation, const Work& work) noexcept {
    try {
        work();
        return 0;
    } catch (const std::system_error& error) {
        return failed(error.code().value(), operation, error.what());
    } catch (const std::bad_alloc& error) {
        return failed(ENOMEM, operation, error.what());
    } catch (const std::exception& error) {
        return failed(EIO, operation, error.what());
    }
}

template <class Work>
int32_t report(const char* operation, const Work& work) noexcept {
    return guard(operation, [&] {
        Driver driver;
        work(driver);
    });
}

/// A session that does nothing else still updates the status files. The caller only wants to see the status,
/// so this doesn't wait for another session, unless there is no status file yet.
void showStatus() {
    const bool isShown = ::access(tolvubd::layout::info, F_OK) == 0;
    try {
        const Driver session(isShown ? Busy::fail : Busy::wait);
    } catch (const std::system_error& error) {
        if (error.code().value() != EWOULDBLOCK) {
            throw;
        }
    }
}

std::string text(const char* pointer) {
    if (pointer == nullptr) {
        throw std::system_error(EFAULT, std::generic_category(), "no text");
    }
    return pointer;
}

} // namespace

// NOLINTBEGIN(readability-identifier-naming): the names of the C interface
int32_t tolvubd_setup_snapshot(uint32_t minor, const char* block_device, const char* cow_path,
                               uint64_t cow_size, uint64_t cache_size) {
    return report("setup_snapshot", [&](Driver& driver) {
        driver.setupSnapshot(minor, text(block_device), text(cow_path), cow_size, cache_size);
    });
}

int32_t tolvubd_transition_snapshot(uint32_t minor, const char* cow_path, uint64_t cow_size) {
    return report("transition_snapshot",
                  [&](Driver& driver) { driver.transitionSnapshot(minor, text(cow_path), cow_size); });
}

int32_t tolvubd_transition_incremental(uint32_t minor) {
    return report("transition_incremental", [&](Driver& driver) { driver.transitionIncremental(minor); });
}

int32_t tolvubd_reload_snapshot(uint32_t minor, const char* block_device, const char* cow_path,
                                uint64_t cache_size) {
    return report("reload_snapshot", [&](Driver& driver) {
        driver.reload(Mode::snapshot, minor, text(block_device), text(cow_path), cache_size);
    });
}

int32_t tolvubd_reload_incremental(uint32_t minor, const char* block_device, const char* cow_path,
                                   uint64_t cache_size) {
    return report("reload_incremental", [&](Driver& driver) {
        driver.reload(Mode::tracking, minor, text(block_device), text(cow_path), cache_size);
    });
}

int32_t tolvubd_reconfigure(uint32_t minor, uint64_t cache_size) {
    return report("reconfigure", [&](Driver& driver) { driver.reconfigure(minor, cache_size); });
}

int32_t tolvubd_destroy(uint32_t minor) {
    return report("destroy", [&](Driver& driver) { driver.destroy(minor); });
}

const struct tolvubd_status_files* tolvubd_get_status_files(void) {
    static const struct tolvubd_status_files files = {tolvubd::layout::info, tolvubd::layout::version};
    guard("start", showStatus);
    return &files;
}

int32_t tolvubd_check_snapshot(uint32_t minor) {
    return report("check_snapshot", [&](Driver& driver) { driver.checkSnapshot(minor); });
}

const char* const* tolvubd_get_own_files(void) {
    static const char* const names[] = {tolvubd::layout::eraFile, nullptr};
    return names;
}

int32_t tolvubd_get_room(const char* block_device, uint64_t* bytes) {
    return report("get_room", [&](Driver& driver) { *bytes = driver.roomBeyondCowFile(text(block_device)); });
}
// NOLINTEND(readability-identifier-naming)
