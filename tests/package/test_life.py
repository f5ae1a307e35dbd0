"""Packages are installed, upgraded, removed and purged: what is kept, what is removed, and what is
printed."""
import pytest
from package_file import pack

PAIRING = "/etc/tolvu/bek/agent.sqlite"
KEY = "/etc/tolvu/bek/certs/server.key"
SCRIPT = "/etc/tolvu/bek/reload_0"
STATE = "/var/lib/tolvubd/state.json"
RECORD = "/etc/tolvubd/boot.json"
IMAGE = "/srv/images/host.img"
KEPT = (PAIRING, KEY, SCRIPT, STATE, RECORD, IMAGE, "/etc/zephaned/zephaned.json")
LISTING = """#!/bin/sh
echo 'minor  state'
echo '    0  tracking  /dev/vg/data'
"""


@pytest.fixture
def used(installed):
    """A system that was in use."""
    for path in KEPT:
        installed.write(path)
    return installed


def enabled(system, unit):
    return system.exists(f"/etc/systemd/system/*.wants/{unit}")


def test_installed_all_is_there_and_what_can_be_started_is_enabled(installed, packages):
    for name in packages:
        assert installed.status(name) == "installed"
    assert "bekd version: 2.1.23.0" in installed.run("bekd", "--help", check=False)
    for program in ("/usr/sbin/bekd", "/usr/sbin/zephaned", "/usr/bin/tolvuctl", "/usr/bin/bek-usedmap"):
        assert "not found" not in installed.run("ldd", program)
    for unit in ("bekd.service", "bekd-reload.service", "tolvubd-start.service", "tolvubd-close.service",
                 "tolvubd-initramfs.path"):
        assert enabled(installed, unit), unit
    assert not enabled(installed, "zephaned.service") # has no image yet
    assert installed.run("stat", "--format=%U %a", "/srv/images", "/etc/zephaned") == "zephaned 700\n" * 2
    assert installed.run("stat", "--dereference", "--format=%G %a", "/var/log/bekd") == "adm 2750\n"


def test_units_are_well_formed(installed):
    installed.write("/usr/sbin/update-initramfs", "#!/bin/sh\n")
    installed.run("chmod", "755", "/usr/sbin/update-initramfs")
    units = installed.run("sh", "-c", "ls /lib/systemd/system/bekd* /lib/systemd/system/tolvubd* "
                          "/lib/systemd/system/zephaned*").split()
    for unit in units:
        said = installed.run("systemd-analyze", "verify", "--man=no", unit, check=False)
        assert [line for line in said.splitlines() if unit.rsplit("/", 1)[1] in line] == []


def test_an_upgrade_keeps_what_there_was(used, packages, tmp_path):
    newer = [package.changed(tmp_path, Version="2.1.24.0") for package in packages.values()]
    said = used.install(*newer)
    assert used.run("dpkg-query", "--show", "--showformat=${Version}", "bekd") == "2.1.24.0"
    assert all(used.exists(path) for path in KEPT)
    assert enabled(used, "bekd.service")
    assert "tracked" not in said and "left" not in said


def test_an_upgrade_leaves_a_unit_disabled(used, packages, tmp_path):
    used.run("systemctl", "disable", "bekd.service")
    used.install(*(package.changed(tmp_path, Version="2.1.24.0") for package in packages.values()))
    assert not enabled(used, "bekd.service")


def test_removed_packages_leave_what_belongs_to_the_administrator(used, packages):
    used.run("dpkg", "--remove", *packages)
    assert [path for path in KEPT if not used.exists(path)] == []
    assert not used.exists("/usr/sbin/bekd") and not used.exists("/usr/bin/tolvuctl")


def test_purged_packages_leave_images_and_nothing_else(used, packages):
    said = used.run("dpkg", "--purge", *packages)
    assert [path for path in KEPT if used.exists(path)] == [IMAGE]
    assert "images are left in /srv/images" in said
    assert "bekd: volumes are still tracked" in said
    for path in ("/etc/tolvu", "/etc/tolvubd", "/var/lib/tolvubd", "/etc/zephaned", "/usr/lib/bekd",
                 "/etc/systemd/system/*.wants/*bekd*", "/etc/systemd/system/*.wants/tolvu*"):
        assert not used.exists(path), path


def test_purging_what_was_never_used_says_nothing_of_volumes(installed, packages):
    said = installed.run("dpkg", "--purge", *packages)
    assert "volume" not in said and "left" not in said
    assert not installed.exists("/srv/images")


def test_a_purge_names_files_on_protected_volumes_and_leaves_them(used, packages):
    names = (".tolvu", ".tolvu.era", ".tolvu 1")
    volume = used.volume("/srv/data of all")
    for name in (*names, "precious"):
        (volume / name).write_text(name, encoding="utf-8")
    said = used.run("dpkg", "--purge", "bekd", "libtolvubd0")
    for name in names:
        assert f"/srv/data of all/{name}\n" in said
    assert "chattr -i FILE && rm FILE" in said and "No volume is touched" in said
    assert "precious" not in said
    for name in (*names, "precious"):
        assert (volume / name).read_text(encoding="utf-8") == name


def test_a_removal_says_what_is_tracked(used, packages):
    used.write("/usr/bin/tolvuctl", LISTING)
    said = used.run("dpkg", "--remove", "bekd", "libtolvubd0")
    assert "volumes are tracked:\n    0  tracking  /dev/vg/data\n" in said
    assert "tracking ends then" in said and "tolvuctl destroy MINOR" in said
    assert used.exists(STATE) and used.exists(RECORD)


@pytest.fixture
def driver(tmp_path, packages):
    """The package of a kernel driver, with a library and a tool of its own."""
    tree = tmp_path / "driver"
    library = next(path for path in packages["libtolvubd0"].files() if path.endswith("libtolvubd.so"))
    for path in ("DEBIAN/control", library.lstrip("/"), "usr/bin/tolvuctl"):
        (tree / path).parent.mkdir(parents=True, exist_ok=True)
    content = packages["libtolvubd0"].unpack(tmp_path / "ours")
    (tree / library.lstrip("/")).write_bytes((content / library.lstrip("/")).read_bytes())
    (tree / "usr/bin/tolvuctl").write_text("#!/bin/sh\n", encoding="ascii")
    (tree / "usr/bin/tolvuctl").chmod(0o755)
    (tree / "DEBIAN/control").write_text(
        "Package: kernel-driver\nVersion: 1\nArchitecture: all\nMaintainer: nobody <nobody@localhost>\n"
        "Provides: tolvubd-library\nConflicts: tolvubd-library\nReplaces: tolvubd-library\n"
        "Description: a driver\n", encoding="ascii")
    return pack(tree, tmp_path / "kernel-driver_1_all.deb")


def test_a_driver_takes_the_librarys_place_and_the_agent_stays(used, driver):
    used.install(driver)
    assert used.status("kernel-driver") == used.status("bekd") == "installed"
    assert used.status("libtolvubd0") == "config-files"
    assert "not found" not in used.run("ldd", "/usr/sbin/bekd")
    used.run("dpkg", "--purge", "libtolvubd0")
    assert used.exists(STATE) and used.exists(SCRIPT) # they may belong to the driver by now


def test_the_library_takes_the_drivers_place_again(used, driver, packages):
    used.install(driver)
    used.install(packages["libtolvubd0"])
    assert used.status("libtolvubd0") == used.status("bekd") == "installed"
    assert used.status("kernel-driver") != "installed"
