"""Installs the checkout's Debian packages in a machine."""
import pathlib
import re
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILT = ROOT / "build" / "packages"
REPACKED = ROOT / "build" / "repacked"
NAMES = ("libtolvubd0", "libzephane0", "bekd") # the packages that a protected machine needs
MADE_OF = ("CMakeLists.txt", "cmake", "debian", "packaging", "platform", "src", "tools")
BUILD_SECONDS = 1800
SECONDS = 900


def packages(names=NAMES):
    """The packages of the checkout's current state; builds them if they are older."""
    if not are_newer_than_sources(found(names), names):
        subprocess.run([ROOT / "scripts" / "package"], check=True, stdin=subprocess.DEVNULL,
                       timeout=BUILD_SECONDS)
    return found(names)


def found(names=NAMES):
    return [path for name in names for path in BUILT.glob(f"{name}_*.deb")]


def are_newer_than_sources(paths, names):
    listed = subprocess.run(["git", "ls-files", "-z", *MADE_OF], cwd=ROOT, capture_output=True, text=True,
                            check=True).stdout.rstrip("\0").split("\0")
    sources = [ROOT / name for name in listed if (ROOT / name).exists()]
    return len(paths) == len(names) and \
        min(path.stat().st_mtime for path in paths) > max(path.stat().st_mtime for path in sources)


def install(machine, paths):
    """Installs packages as an administrator does who has downloaded the files. The machine sees them in the
    checkout, and all their dependencies must be installed already."""
    machine.run("dpkg", "--install", *paths, timeout=SECONDS)


def repacked(paths, version):
    """The same packages under another version. Call this while the machine is off, or it may not see the new
    files."""
    REPACKED.mkdir(exist_ok=True)
    return [repack(path, version) for path in paths]


def repack(path, version):
    target = REPACKED / f"{path.name.split('_')[0]}_{version}.deb"
    with tempfile.TemporaryDirectory() as directory:
        tree = pathlib.Path(directory, "tree")
        dpkg_deb("--raw-extract", path, tree)
        control = tree / "DEBIAN" / "control"
        text = control.read_text(encoding="utf-8")
        control.write_text(text.replace(re.search("^Version: (.*)$", text, re.MULTILINE)[1], version),
                           encoding="utf-8")
        dpkg_deb("-Znone", "--root-owner-group", "--build", tree, target)
    return target


def dpkg_deb(*words):
    subprocess.run(["dpkg-deb", *words], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
