#include "StateStore.h"

#include "AtomicFile.h"
#include "Failure.h"
#include "Layout.h"
#include "SystemLog.h"
#include "Uuid.h"

#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>

namespace tolvubd {

namespace {

/// Enough for some thousand devices with the longest possible paths.
constexpr std::size_t largestState = std::size_t{16} << 20;
constexpr std::size_t sessionSize = 36;

os::FileDescriptor takeLock(Busy busy) {
    os::FileDescriptor lock = openFile(layout::lock, O_RDWR | O_CREAT, ownerOnly);
    while (::flock(lock.get(), busy == Busy::wait ? LOCK_EX : LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR) {
            failWithErrno("lock the driver");
        }
    }
    return lock;
}

void makeDirectory(const char* path, mode_t mode) {
    if (::mkdir(path, mode) != 0 && errno != EEXIST) {
        failWithErrno(std::string("make ") + path);
    }
}

Table emptyTable() {
    Table table;
    table.session = makeUuid();
    return table;
}

std::string readSession() {
    try {
        return readFile(layout::session, sessionSize);
    } catch (const std::system_error& error) {
        if (error.code().value() != ENOENT && error.code().value() != EFBIG) {
            throw; // a passing read error must not cost all devices
        }
        return {};
    }
}

} // namespace

StateStore::StateStore(Busy busy) {
    makeDirectory(layout::store, 0700);
    lock = takeLock(busy);
    makeDirectory(layout::runtime, 0755); // its existence shows that there is a driver
}

Table StateStore::load() const {
    return observeTable();
}

void StateStore::write(const Table& table) const {
    replaceFileDurably(layout::state, writeTable(table), ownerOnly);
}

void StateStore::restorePrevious() const {
    restorePreviousFile(layout::state);
}

Table observeTable() {
    try {
        return readTable(readFile(layout::state, largestState));
    } catch (const std::system_error& error) {
        if (error.code().value() != ENOENT) {
            throw;
        }
    } catch (const std::exception& error) {
        logLine(Severity::error,
                std::string("the state can't be read, all devices are lost: ") + error.what());
    }
    return emptyTable();
}

bool isLive(const Table& table) {
    return readSession() == table.session;
}

void markLive(const Table& table) {
    replaceFileWithoutSync(layout::session, table.session, ownerOnly);
}

} // namespace tolvubd
