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

/* Only where no kernel driver shows /proc/tolvu-info and /sys/module/tolvubd/version: the files that take
 * their place. A program that wants to run with either looks this symbol up weakly. */
struct tolvubd_status_files {
    const char* info;
    const char* version;
};
const struct tolvubd_status_files* tolvubd_get_status_files(void);

#ifdef __cplusplus
}
#endif
/* NOLINTEND(readability-identifier-naming,modernize-*) */
