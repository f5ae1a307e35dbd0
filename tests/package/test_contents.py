"""The content of the packages, and that an installation by CMake has the same."""
import pathlib
import re
import subprocess

import pytest
from package_file import output_of

UNITS = r"(/usr)?/lib/systemd/system"
LIBRARIES = r"/usr/lib/[^/]+-linux-gnu"
# The files that a package may contain, besides its documents.
RULES = {
    "bekd": (r"/usr/sbin/(bekd|bekctl)", r"/usr/bin/bek-usedmap", rf"{UNITS}/bekd[^/]*\.service",
             r"/usr/lib/bekd/[^/]+", r"/var/log/bekd"),
    "libtolvubd0": (rf"{LIBRARIES}/libtolvubd\.so", r"/usr/bin/tolvuctl", rf"{UNITS}/tolvubd-[^/]+",
                    r"(/usr)?/lib/udev/rules\.d/59-tolvubd\.rules",
                    r"(/usr)?/lib/systemd/system-shutdown/tolvubd",
                    r"/usr/share/initramfs-tools/(hooks|scripts/local-premount)/tolvubd"),
    "libzephane0": (rf"{LIBRARIES}/libzephane(\+\+|ftp)\.so",),
    "zephaned": (r"/usr/sbin/zephaned", rf"{UNITS}/zephaned\.service"),
    "bek-restore": (r"/usr/sbin/bek-restore", r"/usr/lib/bek-restore/(bek-audit|nbdkit-bek-plugin\.so)",
                    rf"{UNITS}/bek-audit@\.(service|timer)"),
}
NAMED = {"bekd": "bek(d|ctl|-usedmap)[^/]*", "libtolvubd0": "tolvu[^/]*", "libzephane0": "-",
         "zephaned": "zephaned[^/]*", "bek-restore": "bek-restore"}
DOCUMENTS = (r"/usr/share/doc/{package}/[^/]+", r"/usr/share/lintian/overrides/{package}",
             r"/usr/share/man/man[58]/{named}\.[58]\.gz", r"/usr/share/bash-completion/completions/{named}",
             r"/usr/share/zsh/vendor-completions/_{named}")
# The files that it must contain.
REQUIRED = {
    "bekd": ("/usr/sbin/bekd", "/usr/bin/bek-usedmap", "/usr/share/man/man8/bekd.8.gz",
             "/systemd/system/bekd.service", "/systemd/system/bekd-journal.service", "/usr/sbin/bekctl",
             "/var/log/bekd"),
    "libtolvubd0": ("/usr/bin/tolvuctl", "/libtolvubd.so", "/udev/rules.d/59-tolvubd.rules",
                    "/systemd/system/tolvubd-start.service", "/systemd/system/tolvubd-close.service",
                    "/usr/share/initramfs-tools/hooks/tolvubd", "/usr/share/man/man8/tolvuctl.8.gz"),
    "libzephane0": ("/libzephane++.so", "/libzephaneftp.so"),
    "zephaned": ("/usr/sbin/zephaned", "/systemd/system/zephaned.service",
                 "/usr/share/man/man8/zephaned.8.gz"),
    "bek-restore": ("/usr/sbin/bek-restore", "/usr/lib/bek-restore/nbdkit-bek-plugin.so",
                    "/usr/lib/bek-restore/bek-audit", "/systemd/system/bek-audit@.timer",
                    "/usr/share/man/man8/bek-restore.8.gz"),
}
RUNNABLE = re.compile(r"/s?bin/|/usr/lib/bekd/|/bek-audit$|/system-shutdown/|/initramfs-tools/")
ENDBR64 = b"\xf3\x0f\x1e\xfa"
# Made by the packaging, not by CMake.
DEBIAN_ONLY = re.compile("/usr/share/(doc|lintian)/")


def is_elf(file):
    return file.is_file() and not file.is_symlink() and file.read_bytes()[:4] == b"\x7fELF"


@pytest.fixture(scope="module")
def trees(packages, tmp_path_factory):
    return {name: package.unpack(tmp_path_factory.mktemp(name)) for name, package in packages.items()}


@pytest.fixture(scope="module")
def by_cmake(build, tmp_path_factory):
    """A build installed below a directory, as on systems other than Debian."""
    tree = tmp_path_factory.mktemp("cmake")
    subprocess.run(["cmake", "--install", build, "--prefix", "/usr"], check=True, capture_output=True,
                   env={"PATH": "/usr/bin:/bin", "DESTDIR": str(tree)})
    return tree


@pytest.mark.parametrize("name", RULES)
def test_a_package_has_what_is_its_own_and_nothing_else(packages, name):
    rules = [*RULES[name], *(rule.format(package=name, named=NAMED[name]) for rule in DOCUMENTS)]
    paths = packages[name].files()
    assert [path for path in paths if not any(re.fullmatch(rule, path) for rule in rules)] == []
    for required in REQUIRED[name]:
        assert any(path.endswith(required) for path in paths), required


@pytest.mark.parametrize("name", RULES)
def test_all_belongs_to_root_and_only_programs_can_be_run(packages, name):
    for entry in packages[name].entries():
        wanted = "-rwxr-xr-x" if RUNNABLE.search(entry.path) else "-rw-r--r--"
        wanted = {"d": "drwxr-xr-x", "l": "lrwxrwxrwx"}.get(entry.mode[0], wanted)
        assert (entry.mode, entry.owner) == (wanted, "root/root"), entry.path


def test_programs_know_no_place_of_a_build_and_are_hardened(trees):
    seen = 0
    for tree in trees.values():
        for file in filter(is_elf, tree.rglob("*")):
            seen += 1
            headers = output_of("readelf", "--dynamic", "--notes", "--wide", "--file-header", file)
            assert "RUNPATH" not in headers and "RPATH" not in headers, file
            assert "BIND_NOW" in headers or "Flags: NOW" in headers, file
            assert "PIE" in headers or ".so" in file.name, file
            # Targets of indirect calls and jumps are marked with ENDBR64 in our own code.
            assert file.read_bytes().count(ENDBR64) > 50 or "X86-64" not in headers, file
            assert b"/build/" not in file.read_bytes(), file
    assert seen == 11


def test_dependencies(packages):
    assert packages["bekd"].depends() >= {
        "libtolvubd0 | tolvubd-library", "libzephane0", "udisks2",
        "default-dbus-system-bus | dbus-system-bus"}
    version = packages["bekd"].field("Version")
    for name in ("bekd", "zephaned", "bek-restore"):
        assert f"libzephane0 (= {version})" in packages[name].field("Depends")
    for name in ("Provides", "Conflicts", "Replaces"):
        assert packages["libtolvubd0"].field(name) == "tolvubd-library"
    assert packages["zephaned"].field("Recommends") == "nbdkit"
    # A rescue system has no driver: only the audit calls its library.
    assert not any("tolvu" in one for one in packages["bek-restore"].depends())
    assert "libtolvubd0 | tolvubd-library" in packages["bek-restore"].field("Recommends")


def test_each_needed_library_is_in_a_package_that_is_depended_on(packages, trees):
    """If a program needs a library, the package of that library is among its dependencies."""
    ours = {"libtolvubd.so": "libtolvubd0 | tolvubd-library", "libzephane++.so": "libzephane0",
            "libzephaneftp.so": "libzephane0"}
    others = {"libiscsi.so.7": "libiscsi", "libnbd.so.0": "libnbd0", "libcurl-gnutls.so.4": "libcurl3",
              "libudisks2.so.0": "libudisks2-0", "libdevmapper.so.1.02.1": "libdevmapper1.02.1",
              "libmicrohttpd.so.12": "libmicrohttpd12", "libdbus-1.so.3": "libdbus-1-3"}
    for name, tree in trees.items():
        depends = packages[name].depends() | {name}
        recommended = set((packages[name].field("Recommends") or "").split(", "))
        for file in filter(is_elf, tree.rglob("*")):
            needed = re.findall(r"NEEDED.*\[(.*)\]", output_of("readelf", "--dynamic", "--wide", file))
            for library in needed:
                named = depends | recommended if file.name == "bek-audit" else depends
                if library in ours:
                    assert ours[library] in named or name == "libzephane0", (file, library)
                elif library in others:
                    assert any(one.startswith(others[library]) for one in named), (file, library)


def test_cmake_installs_what_the_packages_have(packages, trees, by_cmake):
    packaged = {path: entry.mode for package in packages.values() for path, entry in package.files().items()
                if not DEBIAN_ONLY.match(path)}
    found = {f"/{file.relative_to(by_cmake)}": file for file in by_cmake.rglob("*")
             if file.is_symlink() or not file.is_dir()}
    assert sorted(found) == sorted(packaged)
    whole = {f"/{file.relative_to(tree)}": file for tree in trees.values() for file in tree.rglob("*")}
    for path, file in found.items():
        if file.is_symlink(): # its target exists only in an installed system
            assert file.readlink() == whole[path].readlink()
            continue
        assert ("x" in packaged[path]) == bool(file.stat().st_mode & 0o100), path
        if is_elf(file):
            assert "RUNPATH" not in output_of("readelf", "--dynamic", file), path
        else:
            assert file.read_bytes() == whole[path].read_bytes(), path


def test_a_program_of_the_build_folder_still_runs_there(build):
    said = subprocess.run([build / "bekd", "--help"], capture_output=True, text=True, check=False)
    assert "bekd version" in said.stdout + said.stderr
    library = pathlib.Path(build, "platform/tolvubd").as_posix()
    assert library in output_of("readelf", "--dynamic", build / "bekd")
