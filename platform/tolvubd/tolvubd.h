/* The control library of the tolvubd snapshot driver.
 *
 * Every function returns 0 on success. Any other value means failure, with the reason in errno. Each call
 * blocks until the driver has finished, so that the status files show the outcome. Paths are absolute and
 * NUL-terminated. All functions may be called from any thread of any process: a lock serialises the calls.
 */
#pragma once

/* NOLINTBEGIN(readability-identifier-naming,modernize-*): the interface is C, with the driver's own names. */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Takes the first snapshot of a mounted block device and shows it as /dev/tolvu<minor>. The driver keeps its
 * data in a new file `cow_path` of `cow_size` MiB on the same file system. `cache_size` 0 means the default.
 */
int32_t tolvubd_setup_snapshot(uint32_t minor, const char* block_device, const char* cow_path,
                               uint64_t cow_size, uint64_t cache_size);
/* Ends tracking with a new snapshot. The record of changed blocks goes to the CoW file used until now. */
int32_t tolvubd_transition_snapshot(uint32_t minor, const char* cow_path, uint64_t cow_size);
/* Ends the snapshot; the driver goes on tracking changed blocks. */
int32_t tolvubd_transition_incremental(uint32_t minor);
/* Reload a device that was a snapshot, or was tracked, before the machine was restarted. `cow_path` is
 * relative to the mount point, as in the driver's status. */
int32_t tolvubd_reload_snapshot(uint32_t minor, const char* block_device, const char* cow_path,
                                uint64_t cache_size);
int32_t tolvubd_reload_incremental(uint32_t minor, const char* block_device, const char* cow_path,
                                   uint64_t cache_size);
int32_t tolvubd_reconfigure(uint32_t minor, uint64_t cache_size);
/* Ends the snapshot or the tracking, and removes the device and its CoW file. */
int32_t tolvubd_destroy(uint32_t minor);

/* The functions below exist only in this user-space driver, where no kernel driver shows /proc/tolvu-info and
 * /sys/module/tolvubd/version. A program that is to run with either driver declares them as weak symbols. */

/* The paths of the files that stand in for the kernel's status files. Each call checks the devices and
 * updates the files, unless the driver is busy: then the files stay as they are. */
struct tolvubd_status_files {
    const char* info;
    const char* version;
};
const struct tolvubd_status_files* tolvubd_get_status_files(void);
/* Returns 0 if /dev/tolvu<minor> has been consistent ever since the snapshot was taken. On failure, discard
 * everything that was read from it. Call this after the last read. */
int32_t tolvubd_check_snapshot(uint32_t minor);
/* The names of the files, besides CoW files, that the driver keeps in a volume's root directory. The list
 * ends with NULL. */
const char* const* tolvubd_get_own_files(void);
/* Sets `bytes` to the space that tolvubd_setup_snapshot or tolvubd_transition_snapshot would now use on the
 * volume, in addition to the CoW file. */
int32_t tolvubd_get_room(const char* block_device, uint64_t* bytes);

#ifdef __cplusplus
}
#endif
/* NOLINTEND(readability-identifier-naming,modernize-*) */
