"""The Debian packages of a machine, by purpose."""
import re
import subprocess

SYSTEM = "systemd-sysv udev dbus kmod iproute2 procps util-linux mount openssh-server".split()
VOLUMES = """lvm2 dmsetup thin-provisioning-tools cryptsetup-bin udisks2 e2fsprogs xfsprogs dosfstools fusefat
             ntfs-3g fdisk parted attr acl fio""".split()
# For the agent's own tests and the lab, when they run in the machine.
TESTS = """python3 python3-pytest python3-rich tgt nbdkit libnbd-bin gnutls-bin openssl ca-certificates curl
           sqlite3 zstd strace nftables""".split()
# The agent is linked to the libraries of these packages. Other libraries come as dependencies of the tools.
LIBRARIES_OF = """libdbus-1-dev libmicrohttpd-dev libcurl4-gnutls-dev libiscsi-dev libudisks2-dev libnbd-dev
                  libsqlite3-dev libdevmapper-dev libmount-dev libzstd-dev libssl-dev""".split()
# Additional packages for a machine with Debian's own kernel. The host loads the kernel, unless the machine
# boots from a disk of its own. Snapshots of a FAT32 volume are checked there by partclone and mtools.
STOCK_KERNEL = """linux-image-amd64 initramfs-tools zstd busybox-static grub2-common grub-pc-bin
                  grub-efi-amd64-bin efibootmgr partclone mtools""".split()


def libraries():
    """The packages of the libraries. Their names contain versions, which differ between releases."""
    depends = subprocess.run(["dpkg-query", "--show", "--showformat=${Depends}\n", *LIBRARIES_OF],
                             capture_output=True, text=True, check=True).stdout
    names = re.findall(r"(lib[^\s,]+) \(= ", depends)
    return sorted(name for name in names if not name.endswith(("-dev", "-bin")))


def packages():
    return [*SYSTEM, *VOLUMES, *TESTS, *libraries()]
