#pragma once

#include <array>
#include <cstddef>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace agent::info {

/// Why a backup sends more than was requested, or why something has failed. The code is for programs; the
/// text of the log is for people. A log line with a reason ends with the reason's mark: ` [fallback:CODE]`
/// or ` [failure:CODE]`. Codes are never renamed, because programs that monitor the log depend on them.
struct Reason {
    enum class Kind { fallback, failure };

    std::string_view code; ///< lower-case words joined by dashes
    Kind kind;
    std::string_view meaning;
    std::string_view remedy;
};

/// All reasons; docs/operations.md has the same table.
// clang-format off
inline constexpr std::array reasons = {
    // The backup sends more than was requested.
    Reason{"volume-unknown", Reason::Kind::fallback,
           "the agent's database doesn't know the volume: its first backup, a file system made anew, or a "
           "database that has been replaced",
           "nothing at a first backup; else see what became of agent.sqlite"},
    Reason{"database-unreadable", Reason::Kind::fallback,
           "the database couldn't tell what the last finished backup left",
           "end the program that has agent.sqlite open; sqlite3 agent.sqlite 'pragma integrity_check'"},
    Reason{"image-unfinished", Reason::Kind::fallback,
           "a backup that copies or compares everything has begun to write the image and not finished",
           "nothing; see why that one failed"},
    Reason{"image-differs", Reason::Kind::fallback,
           "the image isn't what the last finished backup left",
           "nothing after a failed backup; else compare LUN and offset at once, as what is there is being "
           "written over"},
    Reason{"not-tracked", Reason::Kind::fallback,
           "the snapshot driver doesn't track the volume",
           "after a restart, have the reload scripts run in time; else nothing"},
    Reason{"tracking-lost", Reason::Kind::fallback,
           "the driver has lost track of the volume, or an earlier run has left a snapshot",
           "once, nothing; if it comes back, give the CoW file more room"},
    Reason{"everything-compared", Reason::Kind::fallback,
           "the snapshot was taken without a record of what has changed, so everything is compared",
           "see the code before it"},
    Reason{"tracking-not-begun", Reason::Kind::fallback,
           "the driver doesn't track the volume after this backup, so the next one compares everything",
           "nothing after a failed backup; else see the lines before it"},
    Reason{"debt-unknown", Reason::Kind::fallback,
           "a failed backup couldn't keep what is still to be brought to the image; the next one compares "
           "everything",
           "nothing; the lines before say why"},
    Reason{"used-blocks-unknown", Reason::Kind::fallback,
           "it isn't certain which blocks are in use, so free ones are copied, too",
           "see the code before it; else e2fsck -fn, xfs_repair -n, fsck.fat -n or ntfsresize -i on the "
           "unmounted volume"},
    Reason{"ext-bitmaps", Reason::Kind::fallback,
           "the bitmaps of an ext file system are out of date, damaged or of a kind that isn't read",
           "see that the snapshot driver can freeze the volume; e2fsck -fn on the unmounted volume"},
    Reason{"xfs-free-space", Reason::Kind::fallback,
           "the free space of an XFS file system is damaged or of a kind that isn't read",
           "xfs_repair -n on the unmounted volume"},
    Reason{"fat-table", Reason::Kind::fallback,
           "the volume isn't FAT32 as all drivers know it",
           "fsck.fat -n on the unmounted volume; nothing, if the time and the room that it takes are there"},
    Reason{"ntfs-bitmap", Reason::Kind::fallback,
           "the bitmap of an NTFS volume, or what leads there, is damaged or of a form that isn't read",
           "chkdsk /f in Windows; ntfsresize -i on the unmounted volume"},
    Reason{"hfs-bitmap", Reason::Kind::fallback,
           "the bitmap of an HFS+ volume is out of date, damaged or of a form that isn't read",
           "unmount the volume if it has a journal; copy the header at byte 1024 to byte 0 if the two "
           "differ"},
    Reason{"block-size-differs", Reason::Kind::fallback,
           "the file system has blocks of another size than its mount point says",
           "unmount what is mounted over it, or mount it elsewhere; nothing for blocks larger than the "
           "kernel shows"},
    Reason{"changes-unreadable", Reason::Kind::fallback,
           "the driver's record of changes can't be read, so unchanged blocks are copied, too",
           "see the error in the line; look at the disk"},
    Reason{"excluder-failed", Reason::Kind::fallback,
           "blocks that need not be copied can't be told any more, so all that follow are copied",
           "see the lines before it"},
    Reason{"driver-file-copied", Reason::Kind::fallback,
           "the file system doesn't say where the driver's own file lies, so that is copied, too",
           "nothing; the smallest volumes.UUID.cowFileSizeMiB costs least"},
    Reason{"snapshot-not-mounted", Reason::Kind::fallback,
           "the snapshot can't be mounted, so the driver's own files can't be found in it and are copied, "
           "too",
           "mount the volume by hand with the options ro and norecovery, and see what the kernel says"},
    Reason{"target-retried", Reason::Kind::fallback,
           "the target was gone for a moment, and nothing is compared any more from here on",
           "if it comes often, look at the target and the network"},
    Reason{"block-not-compared", Reason::Kind::fallback,
           "a piece of the image couldn't be read, so it is written without being compared",
           "look at the target's storage"},
    // Something has failed.
    Reason{"volume-not-found", Reason::Kind::failure,
           "there is no such file system on the machine, or udisks2 doesn't see it",
           "compare the UUID with lsblk -f; see that udisks2 runs"},
    Reason{"volumes-unknown", Reason::Kind::failure,
           "udisks2 doesn't say which volumes there are",
           "install udisks2, and see that it and the system's bus run"},
    Reason{"volume-inaccessible", Reason::Kind::failure,
           "the volume's device is gone",
           "look at the disk"},
    Reason{"volume-not-mounted", Reason::Kind::failure,
           "the volume isn't mounted, and only a mounted one can be snapshotted",
           "mount it"},
    Reason{"file-system-unsupported", Reason::Kind::failure,
           "the file system isn't one that the agent copies",
           "leave the volume out"},
    Reason{"file-system-broken", Reason::Kind::failure,
           "the file system contradicts itself where the used blocks stand",
           "check the unmounted volume with its file system's own tool"},
    Reason{"volume-full", Reason::Kind::failure,
           "the volume has no room for the CoW file, and for what the driver notes beside it",
           "free as much as the line says, or set a smaller volumes.UUID.cowFileSizeMiB"},
    Reason{"history-missing", Reason::Kind::failure,
           ".tolvu.inc is missing, so nobody can tell what failed backups owe",
           "order one backup of another type than INCREMENTAL"},
    Reason{"history-broken", Reason::Kind::failure,
           ".tolvu.inc breaks off or can't be merged, as after a full disk",
           "order the backup again: it compares everything"},
    Reason{"driver-unusable", Reason::Kind::failure,
           "the snapshot driver isn't loaded, is too old or says what can't be read",
           "see that the driver's service runs, and its version"},
    Reason{"snapshot-failed", Reason::Kind::failure,
           "the driver couldn't take the snapshot",
           "see the number in the line and what the driver says in the system's log; order the backup again"},
    Reason{"snapshot-unsupported", Reason::Kind::failure,
           "the driver takes no snapshots of this file system or device",
           "leave the volume out, or ask whoever the driver is from"},
    Reason{"snapshot-not-destroyed", Reason::Kind::failure,
           "a snapshot that an earlier run has left can't be removed",
           "close what is open below /tmp/tolvuMountRoot and order the backup again"},
    Reason{"snapshot-lost", Reason::Kind::failure,
           "the snapshot hasn't lasted for its copy, so what was copied isn't of one moment",
           "a larger CoW file for No space left on device; else leave the volume's devices alone during a "
           "backup"},
    Reason{"script-missing", Reason::Kind::failure,
           "a quiesce script that the request names isn't there",
           "put it below /etc/tolvu/bek/pps, or take it out of the request"},
    Reason{"script-refused", Reason::Kind::failure,
           "others than root can change a quiesce script, or its name goes on behind a NUL byte",
           "chown root and chmod go-w the script and every directory above it"},
    Reason{"script-not-started", Reason::Kind::failure,
           "a quiesce script couldn't be started",
           "see the error in the line before; processes and memory may be used up"},
    Reason{"target-refused", Reason::Kind::failure,
           "the target's host refuses the port",
           "see that the target runs and listens there; compare address and port, and the firewall"},
    Reason{"target-unreachable", Reason::Kind::failure,
           "the target doesn't answer, or not as one",
           "compare address and port; look at the network, the firewall and the target's log"},
    Reason{"target-login", Reason::Kind::failure,
           "the target knows no such name, password or secret",
           "compare target name, user and password or secret"},
    Reason{"target-image", Reason::Kind::failure,
           "the target can't give the image that is asked for",
           "compare LUN, or path and volume ID; see the target's log, and whether another client has the "
           "image"},
    Reason{"target-lost", Reason::Kind::failure,
           "the target was gone for longer than it is waited for, or its storage fails",
           "look at the target and the network and order the backup again"},
    Reason{"image-too-small", Reason::Kind::failure,
           "the image ends before the volume does, or its storage is full",
           "give the LUN or the image the volume's size behind the offset; make room"},
    Reason{"image-unreadable", Reason::Kind::failure,
           "the image can't be summed up: it can't be read, or has less than 10 MiB behind the offset",
           "look at the target; compare LUN and offset"},
    Reason{"volume-unreadable", Reason::Kind::failure,
           "the volume or its snapshot can't be read",
           "look at the disk; see whether the snapshot has lasted"},
    Reason{"appliance-silent", Reason::Kind::failure,
           "the appliance hasn't asked for the status for 180 seconds",
           "look at the appliance and the network"},
    Reason{"backup-failed", Reason::Kind::failure,
           "a backup has failed for the reason that the line gives",
           "see the line, and those of level error before it"},
    Reason{"clean-up-failed", Reason::Kind::failure,
           "what the backup has left couldn't be put back",
           "nothing: the next backup clears up; if its status stays active, start the agent anew"},
    Reason{"client-certificate", Reason::Kind::failure,
           "whoever has connected shows no certificate of the agent's authority",
           "compare certs/ca.crt with the authority of the appliance's certificate; compare the clocks"},
    Reason{"not-paired", Reason::Kind::failure,
           "a device asks that the agent isn't paired with",
           "pair it"},
    Reason{"pairing-refused", Reason::Kind::failure,
           "a request to pair names another device than its certificate does",
           "pair with the device's own certificate and number"},
    Reason{"certificate-unavailable", Reason::Kind::failure,
           "the agent's own certificate can't be had or be used",
           "see provisioning, and the line's text"},
    Reason{"port-taken", Reason::Kind::failure,
           "the API's port can't be listened at",
           "find who listens at 25567: ss -ltnp"},
    Reason{"already-running", Reason::Kind::failure,
           "another instance of the agent has the lock",
           "stop that one first"},
};
// clang-format on

/// The reason with this code. A code that isn't in the table is a compile-time error.
consteval const Reason& reason(std::string_view code) {
    for (const Reason& candidate : reasons) {
        if (candidate.code == code) {
            return candidate;
        }
    }
    throw std::invalid_argument("no such code");
}

/// "fallback" or "failure".
constexpr std::string_view kindName(Reason::Kind kind) {
    return kind == Reason::Kind::fallback ? "fallback" : "failure";
}

/// The mark at the end of a line with this reason, with the blank before it.
std::string markOf(const Reason& reason);

/// The reason whose mark is at the end of a message or a line, with or without a newline; null if there is no
/// known mark. A peer or a script may have put a mark into its own text, so the result is only a hint: base
/// no decision on it.
const Reason* findReason(std::string_view text);

/// Base class of exceptions that carry a reason for the code that catches and logs them.
/// Owns:    nothing; reasons are constants.
/// Threads: as for any value: many readers, or one writer.
/// Fails:   never.
class HasReason {
public:
    explicit HasReason(const Reason& reason) : reason(&reason) {}
    HasReason(const HasReason&) = default;
    HasReason(HasReason&&) = default;
    HasReason& operator=(const HasReason&) = default;
    HasReason& operator=(HasReason&&) = default;
    virtual ~HasReason() = default;

    const Reason* reason;
};

/// An exception of type `Error` that carries a reason.
template <typename Error>
class WithReason : public Error, public HasReason {
public:
    template <typename... Arguments>
    explicit WithReason(const Reason& reason, Arguments&&... arguments)
        : Error(std::forward<Arguments>(arguments)...), HasReason(reason) {}
};

/// The reason that `error` carries, or `otherwise` if it carries none.
const Reason& reasonOf(const std::exception& error, const Reason& otherwise);

} // namespace agent::info
