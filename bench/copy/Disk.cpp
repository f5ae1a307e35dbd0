#include "bench/copy/Disk.h"

#include "core/transport/Libiscsi.h"

#include <poll.h>
#include <stdexcept>

namespace agent::bench {

namespace {

constexpr const char* initiatorName = "iqn.2026-01.example:floor";
constexpr int longestWait = 60; // seconds

unsigned char* asLibraryHasIt(std::byte* data) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the library wants other bytes
    return reinterpret_cast<unsigned char*>(data);
}

} // namespace

Disk::Disk(const std::string& portal, const std::string& target, int lun)
    : context(iscsi_create_context(initiatorName)), lun(lun) {
    require(context && iscsi_set_targetname(context.get(), target.c_str()) == 0 &&
                iscsi_set_session_type(context.get(), ISCSI_SESSION_NORMAL) == 0 &&
                iscsi_set_timeout(context.get(), longestWait) == 0 &&
                iscsi_full_connect_sync(context.get(), portal.c_str(), lun) == 0,
            "no session with the target");
    const core::iscsi::Task task(iscsi_readcapacity16_sync(context.get(), lun));
    const auto* const capacity =
        core::iscsi::isGood(task)
            ? static_cast<const scsi_readcapacity16*>(scsi_datain_unmarshall(task.get()))
            : nullptr;
    require(capacity != nullptr && capacity->block_length != 0, "the target doesn't tell its block size");
    blockSize = capacity->block_length;
    iscsi_set_noautoreconnect(context.get(), 1);
}

void Disk::write(std::uint64_t offset, std::byte* data, std::size_t length) {
    const core::iscsi::Task task(iscsi_write16_sync(context.get(), lun, blockAt(offset), asLibraryHasIt(data),
                                                    static_cast<std::uint32_t>(length),
                                                    static_cast<int>(blockSize), 0, 0, 0, 0, 0));
    require(core::iscsi::isGood(task), "the target refuses a write");
}

void Disk::read(std::uint64_t offset, std::size_t length) {
    const core::iscsi::Task task(iscsi_read16_sync(context.get(), lun, blockAt(offset),
                                                   static_cast<std::uint32_t>(length),
                                                   static_cast<int>(blockSize), 0, 0, 0, 0, 0));
    require(core::iscsi::isGood(task), "the target refuses a read");
}

void Disk::beginWrite(std::uint64_t offset, std::byte* data, std::size_t length, Answered answered,
                      void* place) {
    require(iscsi_write16_task(context.get(), lun, blockAt(offset), asLibraryHasIt(data),
                               static_cast<std::uint32_t>(length), static_cast<int>(blockSize), 0, 0, 0, 0, 0,
                               answered, place) != nullptr,
            "a write can't be sent");
}

void Disk::beginRead(std::uint64_t offset, std::byte* data, std::size_t length, Answered answered,
                     void* place) {
    scsi_task* const task =
        iscsi_read16_task(context.get(), lun, blockAt(offset), static_cast<std::uint32_t>(length),
                          static_cast<int>(blockSize), 0, 0, 0, 0, 0, answered, place);
    require(task != nullptr &&
                scsi_task_add_data_in_buffer(task, static_cast<int>(length), asLibraryHasIt(data)) == 0,
            "a read can't be sent");
}

void Disk::serve() {
    pollfd connection{.fd = iscsi_get_fd(context.get()),
                      .events = static_cast<short>(iscsi_which_events(context.get())),
                      .revents = 0};
    require(::poll(&connection, 1, longestWait * 1000) > 0, "the target doesn't answer");
    require(iscsi_service(context.get(), connection.revents) == 0, "the session has ended");
}

void Disk::logOut() {
    iscsi_logout_sync(context.get());
}

void Disk::require(bool isDone, const char* what) {
    if (!isDone) {
        throw std::runtime_error(std::string(what) +
                                 (context ? ": " + core::iscsi::errorOf(context) : std::string()));
    }
}

} // namespace agent::bench
