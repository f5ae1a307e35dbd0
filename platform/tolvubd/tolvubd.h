/* The control library of the tolvubd snapshot driver.
 *
 * Every function returns 0 when the driver has done what was asked, and anything else when it hasn't; errno
 * then holds the reason. Each blocks until the driver has finished, so that its status shows the outcome.
 * Paths are absolute and end with a NUL. Safe from any thread and from several processes: they take turns.
 */
#pragma once

/* NOLINTBEGIN(readability-identifier-naming,modernize-*): the interface is C, with the driver's own names. */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Takes a first snapshot of a mounted block device, shown as /dev/tolvu<minor>. What the driver keeps of
 * it goes to a new file `cow_path` on the same file system, of `cow_size` MiB. `cache_size` 0 means the
 * default. */
int32_t tolvubd_setup_snapshot(uint32_t minor, const char* block_device, const char* cow_path,
                               uint64_t cow_size, uint64_t cache_size);
/* Ends tracking with a new snapshot; the record of what has changed is closed in the CoW file so far. */
int32_t tolvubd_transition_snapshot(uint32_t minor, const char* cow_path, uint64_t cow_size);
/* Ends a snapshot and tracks from there on what changes. */
int32_t tolvubd_transition_incremental(uint32_t minor);
/* Gives a device back to the driver that was in a snapshot, or tracked, before the machine was restarted;
 * `cow_path` is relative to the mount point, as the driver reports it. */
int32_t tolvubd_reload_snapshot(uint32_t minor, const char* block_device, const char* cow_path,
                                uint64_t cache_size);
int32_t tolvubd_reload_incremental(uint32_t minor, const char* block_device, const char* cow_path,
                                   uint64_t cache_size);
int32_t tolvubd_reconfigure(uint32_t minor, uint64_t cache_size);
/* Forgets the device. */
int32_t tolvubd_destroy(uint32_t minor);

/* What follows is only where no kernel driver shows /proc/tolvu-info and /sys/module/tolvubd/version. A
 * program that wants to run with either driver looks these symbols up weakly. */

/* The files that take the place of the kernel's. Each call looks at the devices and brings the files to what
 * it finds, unless the driver is busy: then they stay as they are. */
struct tolvubd_status_files {
    const char* info;
    const char* version;
};
const struct tolvubd_status_files* tolvubd_get_status_files(void);
/* 0 if /dev/tolvu<minor> shows one moment and has done so all the time; else nothing that was read of it can
 * be relied on. To be asked after the last read. */
int32_t tolvubd_check_snapshot(uint32_t minor);
/* The names of the files that the driver keeps at a volume's root beside its CoW files; ends with NULL. */
const char* const* tolvubd_get_own_files(void);
/* How much of a volume tolvubd_setup_snapshot or tolvubd_transition_snapshot would take now, in bytes, beside
 * the CoW file. */
int32_t tolvubd_get_room(const char* block_device, uint64_t* bytes);

#ifdef __cplusplus
}
#endif
/* NOLINTEND(readability-identifier-naming,modernize-*) */
