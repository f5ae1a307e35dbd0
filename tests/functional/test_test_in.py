"""scripts/test-in, with a tree of a few programs instead of a whole Debian, which takes long to make."""
import os
import pathlib
import shutil
import signal
import subprocess

import pytest

from lab.services import wait_until

ROOT = pathlib.Path(__file__).resolve().parents[2]
SECONDS = 60
MIRRORS = """\
{own} deb http://mirror.example/debian/ {own} main
{own}-updates deb http://mirror.example/debian/ {own}-updates main
{own}-backports deb http://mirror.example/debian/ {own}-backports main
{own}-security deb http://mirror.example/security/ {own}-security main
other deb http://mirror.example/other/ other main
"""
SETTINGS = """\
APT::Architecture "amd64";
Acquire::http::Proxy "http://127.0.0.1:9";
Acquire::Check-Date "false";
Acquire::http::Proxy-Auto-Detect "/usr/bin/detect";
"""
# Makes a tree that can be entered, and a file with the arguments. The last ones are release, tree and
# mirrors.
MAKE_TREE = """\
#!/bin/bash
set -euo pipefail
tree=${*: -2:1}
mkdir -p "$tree"/{etc,proc,sys,dev,tmp,root,usr/{bin,sbin,lib,lib64}}
for folder in bin sbin lib lib64; do ln -s "usr/$folder" "$tree/$folder"; done
printf '%s\\n' "$@" >"$tree/arguments"
cp "${*: -1}" "$tree/mirrors"
for name in bash cat env ip mkdir rmdir sleep umount unshare; do
    program=$(readlink -f "$(type -P "$name")")
    cp "$program" "$tree/usr/bin/$name"
    for library in $(ldd "$program" | grep -o '/[^ ]*'); do cp -L --parents "$library" "$tree"; done
done
"""
COMMITTED = """\
#!/bin/bash
echo "arguments: $*"
cat file
mapfile -t links < <(ip -brief link)
echo "links: ${#links[@]} ${links[0]%% *}"
[ ! -e build/kept ] || echo "the build is kept"
[ ! -e stray ] || echo "something is left"
mkdir -p build
: >build/kept
: >stray
exit 7
"""
WAITING = "#!/bin/bash\necho waiting\nsleep 654321 &\nsleep 654321\n"


def write(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text, encoding="utf-8")
    path.chmod(0o755)


def own_release():
    return subprocess.run(["sh", "-c", ". /etc/os-release; echo $VERSION_CODENAME"], capture_output=True,
                          text=True, check=True).stdout.strip()


class Checkout:
    """A repository with scripts/test-in and little else."""

    def __init__(self, directory):
        self.root = directory / "checkout"
        programs = directory / "programs"
        write(programs / "mmdebstrap", MAKE_TREE)
        write(programs / "apt-get", f"#!/bin/sh\n[ $1 = update ] || cat <<'END'\n"
                                    f"{MIRRORS.format(own=own_release())}END\n")
        write(programs / "apt-config", f"#!/bin/sh\ncat <<'END'\n{SETTINGS}END\n")
        self.environment = {**os.environ, "PATH": f"{programs}:{os.environ['PATH']}"}
        for program in ("scripts/deps", "lab/machine"):
            write(self.root / program, "#!/bin/bash\n")
        write(self.root / "file", "the last commit\n")
        write(self.root / ".gitignore", "/build/\n")
        shutil.copy(ROOT / "scripts/test-in", self.root / "scripts")
        self.commit(COMMITTED)

    @property
    def tree(self):
        return self.root / "build/trees/trixie"

    def commit(self, test):
        write(self.root / "scripts/test", test)
        git = ["git", "-C", self.root, "-c", "user.name=A", "-c", "user.email=a@example.org"]
        for command in (["init", "--quiet"], ["add", "."], ["commit", "--quiet", "--message", "All"]):
            subprocess.run([*git, *command], check=True)

    def start(self, *arguments):
        """Starts it as from a terminal: a shell can't reset signals that were ignored when it started."""
        return subprocess.Popen(["env", "--default-signal=INT,HUP", self.root / "scripts/test-in",
                                 *arguments], env=self.environment, text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)

    def run(self, *arguments):
        """Runs it; returns its exit status, standard output and standard error."""
        with self.start(*arguments) as process:
            output, errors = process.communicate(timeout=SECONDS)
            return process.returncode, output, errors

    def is_entered(self):
        """Whether any process has its root or its program in the tree."""
        inode = self.tree.stat().st_ino
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if (process / "root").stat().st_ino == inode:
                    return True
            except OSError:
                continue
        return False


@pytest.fixture
def checkout(tmp_path):
    return Checkout(tmp_path)


@pytest.fixture
def waiting(checkout):
    """A run whose tests never end."""
    checkout.commit(WAITING)
    with checkout.start("trixie") as process:
        assert "making a Debian trixie" in process.stdout.readline()
        assert process.stdout.readline() == "waiting\n"
        yield process
        process.kill()


@pytest.mark.parametrize("arguments", [[], ["sid"], ["test"], ["trixie", "build"], ["--inside"]])
def test_what_is_no_release_and_no_script_is_refused(checkout, arguments):
    status, output, errors = checkout.run(*arguments)
    assert (status, output) == (2, "")
    assert errors.startswith("usage: scripts/test-in RELEASE [test [PART...]|demo]\n")
    assert not (checkout.root / "build").exists()


def test_only_root_may(checkout):
    shutil.copy(ROOT / "scripts/test-in", "/tmp/test-in")
    done = subprocess.run(["setpriv", "--reuid=65534", "--clear-groups", "/tmp/test-in", "trixie"],
                          capture_output=True, text=True, cwd="/", check=False)
    assert (done.returncode, done.stderr) == (2, "test-in: must be run as root\n")


def test_the_last_commit_is_tested_and_the_build_is_kept(checkout):
    write(checkout.root / "file", "what is not committed\n")
    output = ("test-in: what is not committed is left out\n"
              "arguments: unit lint\nthe last commit\nlinks: 1 lo\n")
    status, first, errors = checkout.run("trixie", "test", "unit", "lint")
    assert (status, errors) == (7, "")
    assert first == "test-in: making a Debian trixie in build/trees/trixie, which is done once\n" + output
    assert checkout.run("trixie", "test", "unit", "lint") == (7, output + "the build is kept\n", "")


def test_the_tree_is_made_from_the_machines_own_mirrors(checkout):
    assert checkout.run("trixie")[0] == 7
    assert (checkout.tree / "mirrors").read_text() == (
        "deb http://mirror.example/debian/ trixie main\n"
        "deb http://mirror.example/debian/ trixie-updates main\n"
        "deb http://mirror.example/security/ trixie-security main\n")
    assert (checkout.tree.parent / "trixie.settings").read_text() == (
        'Acquire::http::Proxy "http://127.0.0.1:9";\nAcquire::Check-Date "false";\n')
    assert "trixie" in (checkout.tree / "arguments").read_text().splitlines()


def test_a_tree_that_cannot_be_made_is_not_used(checkout):
    write(checkout.root.parent / "programs/mmdebstrap", f"{MAKE_TREE}echo no room >&2\nexit 1\n")
    status, _, errors = checkout.run("trixie")
    assert (status, errors) == (2, "no room\ntest-in: the making of the tree failed\n")
    write(checkout.root.parent / "programs/mmdebstrap", MAKE_TREE)
    assert checkout.run("trixie")[0] == 7


def test_a_tree_is_for_one_run_at_a_time(checkout, waiting):
    assert checkout.run("trixie") == (2, "", "test-in: another run has the tree of trixie in use\n")
    assert waiting.poll() is None


@pytest.mark.parametrize("number, status", [(signal.SIGTERM, 143), (signal.SIGINT, 130), (signal.SIGHUP, 129),
                                            (signal.SIGKILL, -signal.SIGKILL)])
def test_nothing_stays_of_a_run_that_is_ended(checkout, waiting, number, status):
    assert checkout.is_entered()
    waiting.send_signal(number)
    assert waiting.wait(SECONDS) == status
    if number == signal.SIGKILL:
        wait_until(lambda: not checkout.is_entered(), SECONDS, "the end of what ran in the tree")
    assert not checkout.is_entered()
    assert str(checkout.tree) not in pathlib.Path("/proc/self/mountinfo").read_text()
    shutil.rmtree(checkout.tree)
