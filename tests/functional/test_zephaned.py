"""zephaned, the server of the second transport, from an administrator's point of view."""
import json
import os
import pathlib
import pwd
import signal
import socket
import stat
import subprocess

import pytest

from lab.daemon import program
from lab.services import Service, wait_until

MIB = 1 << 20
SECONDS = 20
WRITABLE = 8
BUSY, REFUSED, NO_ENGINE = -16, -13, -5


def zephaned(*arguments, environment=None):
    return subprocess.run([program("zephaned"), *map(str, arguments)], capture_output=True, text=True,
                          check=False, timeout=SECONDS, env=environment)


def password_of(done):
    """The password that was generated for an added image."""
    assert done.returncode == 0, done.stderr
    return next(line.split()[1] for line in done.stdout.splitlines() if line.split()[0] == "password")


def engines():
    """The PIDs of the nbdkit processes in this namespace."""
    found = set()
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if (process / "comm").read_text() == "nbdkit\n" and is_ours(process):
                found.add(int(process.name))
        except OSError:
            pass # it has ended
    return found


def is_ours(process):
    return os.readlink(process / "ns/mnt") == os.readlink("/proc/self/ns/mnt")


class Server(Service):
    """A zephaned with a configuration of its own, on any free port."""

    def __init__(self, directory, user=None):
        super().__init__()
        self.directory = directory
        self.config = directory / "zephaned.json"
        self.run = directory / "run"
        as_user = ["setpriv", "--reuid", user, "--regid", "nogroup", "--clear-groups"] if user else []
        self.command = (*map(str, as_user), str(program("zephaned")), "--config", str(self.config))
        self.write()

    def write(self, **values):
        content = json.loads(self.config.read_text()) if self.config.exists() \
            else {"listen": ["127.0.0.1:0"], "runtimeDirectory": str(self.run)}
        self.config.touch(mode=0o600)
        self.config.write_text(json.dumps(content | values))

    def add(self, name, *arguments):
        return zephaned("--config", self.config, "add", name, 7, *arguments)

    def add_image(self, name):
        """Adds an image; returns its password."""
        return password_of(self.add(name, self.directory / name, "--size", "8M"))

    def reload(self):
        """Reloads the configuration; returns what the server prints."""
        before = len(self.output)
        os.kill(self.pid, signal.SIGHUP)
        return wait_until(lambda: "configuration " in self.output[before:] and self.output[before:], SECONDS,
                          "the configuration to be read")

    def is_ready(self):
        return " ready\n" in self.output

    @property
    def port(self):
        line, = [line for line in self.output.splitlines() if " listening at " in line]
        return int(line.rsplit(":", 1)[1])

    def expect(self, text):
        wait_until(lambda: text in self.output, SECONDS, text)

    def end_by(self, number):
        """Ends the server by a signal; returns its exit status."""
        process, self._process = self._process, None
        process.send_signal(number)
        return process.wait(SECONDS)


class Client:
    """A client of the second transport, in a process of its own."""

    def __init__(self, server, name, password, flags=WRITABLE):
        self.process = subprocess.Popen(
            [program("ZephaneProbe"), "127.0.0.1", str(server.port), name, "7", str(flags), password],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def __call__(self, command):
        """Runs a command; returns the code of its status."""
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())["code"]

    def kill(self):
        self.process.kill()
        self.process.wait(SECONDS)

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        with self.process:
            self.process.kill()


def code_of_open(*arguments, **options):
    with Client(*arguments, **options) as client:
        return client("open")


@pytest.fixture
def server(tmp_path):
    """A server that isn't started yet. Nothing of it may be left at the end."""
    made = Server(tmp_path)
    yield made
    made.stop()
    wait_until(lambda: not engines(), SECONDS, "engines gone")


def test_image_from_its_making_to_its_end(server):
    image = server.directory / "data"
    done = server.add("host1/data", image, "--size", "8M")
    password = password_of(done)
    assert "qualifiedName  host1/data\n" in done.stdout
    assert zephaned("--config", server.config, "--check").returncode == 0
    listed = zephaned("--config", server.config, "list", "--json").stdout
    assert json.loads(listed) == [{"path": "host1/data", "volumeId": 7, "backend": str(image)}]
    assert password not in listed + zephaned("--config", server.config, "list").stdout

    server.start()
    with Client(server, "host1/data", password) as client:
        assert [client(line) for line in ("open", "seek 4096", "write 100000", "close")] == [0] * 4
    assert image.read_bytes() == bytes(4096) + b"w" * 100000 + bytes(8 * MIB - 104096)

    done = zephaned("--config", server.config, "remove", "host1/data", 7)
    assert done.returncode == 0 and f"stays where it is: {image}" in done.stdout
    assert "has been read again" in server.reload()
    assert code_of_open(server, "host1/data", password) == REFUSED
    assert image.stat().st_size == 8 * MIB
    assert password not in server.output


WRONG_CALLS = {
    "unknown command": (["show"], 2, "show"),
    "unknown option": (["--port", "1"], 2, "--port"),
    "no image": (["add"], 2, "PATH"),
    "no back end": (["add", "a", "7"], 2, "BACKEND"),
    "volume by name": (["add", "a", "seven", "/x"], 1, "seven is no volume ID"),
    "negative volume": (["add", "--", "a", "-7", "/x"], 1, "-7 is no volume ID"),
    "volume beyond 64 bits": (["add", "a", "18446744073709551616", "/x"], 1, "is no volume ID"),
    "no size": (["add", "a", "7", "/x", "--size", "10 GB"], 1, "10 GB is no size"),
    "relative back end": (["add", "a", "7", "x", "--size", "1G"], 1, "neither a path that begins with /"),
    "missing back end": (["add", "a", "7", "/nowhere/x"], 1, "/nowhere/x: No such file or directory"),
    "directory": (["add", "a", "7", "/tmp"], 1, "/tmp: an image is a file or a block device"),
    "directory of images": (["add", "a", "7", '["file", "dir=/tmp"]'], 1, "never a directory"),
    "not a list": (["add", "a", "7", "[file]"], 1, "no list of texts in JSON"),
    "control character": (["add", "a\nb", "7", "nbd://h"], 1, "without control characters"),
    "not UTF-8": (["add", b"\xff", "7", "nbd://h"], 1, "UTF-8"),
    "unknown image": (["remove", "a", "7"], 1, "there is no image a 7"),
}


@pytest.mark.parametrize("arguments, status, text", WRONG_CALLS.values(), ids=WRONG_CALLS)
def test_wrong_call_says_what_is_wrong_and_changes_nothing(server, arguments, status, text):
    before = server.config.read_text()
    done = subprocess.run([program("zephaned"), "--config", server.config, *arguments], capture_output=True,
                          text=True, check=False, timeout=SECONDS)
    assert (done.returncode, done.stdout) == (status, "")
    assert text in done.stderr and "terminate" not in done.stderr
    assert server.config.read_text() == before


@pytest.mark.parametrize("text, expected", [
    ("", "this isn't JSON"),
    ('{"listen": "127.0.0.1:1"}', ": listen: this has to be a list"),
    ('{"port": 1}', 'there is no key "port" here; there are: listen, '),
    ('{"images": [{"path": "a"}]}', ': images[0]: the key "volumeId" is missing'),
    ('{"images": [{"path": "a", "volumeId": 1, "secret": "s", "backend": "/nowhere/x"}]}',
     "a 1: /nowhere/x: No such file or directory"),
])
def test_check_names_file_place_and_reason(server, text, expected):
    server.config.write_text(text)
    done = zephaned("--config", server.config, "--check")
    assert done.returncode == 1
    assert done.stderr.startswith(f"zephaned: {server.config}: ")
    assert expected in done.stderr


def test_configuration_that_others_may_read_is_refused(server):
    server.config.chmod(0o640)
    for arguments in ([], ["--check"], ["list"], ["add", "a", 7, "nbd://h"]):
        done = zephaned("--config", server.config, *arguments)
        assert done.returncode == 1
        assert f"chmod 600 {server.config}" in done.stderr


def test_machine_that_can_not_serve(server):
    with socket.create_server(("127.0.0.1", 0)) as other:
        server.write(listen=[f"127.0.0.1:{other.getsockname()[1]}"])
        done = zephaned("--config", server.config)
        assert (done.returncode, "Address already in use" in done.stderr) == (1, True)
    server.write(listen=["127.0.0.1:0"])
    done = zephaned("--config", server.config, environment={"PATH": "/nowhere"})
    assert (done.returncode, "apt install nbdkit" in done.stderr) == (1, True)
    server.start()
    done = zephaned("--config", server.config)
    assert (done.returncode, "another zephaned uses it" in done.stderr) == (1, True)
    server.write(runtimeDirectory="/nowhere/run")
    done = zephaned("--config", server.config)
    assert (done.returncode, "/nowhere/run: it can't be made" in done.stderr) == (1, True)


def test_reload_takes_images_over_and_leaves_sessions_alone(server):
    first = server.add_image("first")
    server.start()
    with Client(server, "first", first) as client:
        assert client("open") == 0
        second = server.add_image("second")
        assert code_of_open(server, "second", second) == REFUSED
        assert "2 images" in server.reload()
        assert code_of_open(server, "second", second) == 0

        content = server.config.read_text()
        server.config.write_text("{")
        assert f"the configuration stays as it was: {server.config}: this isn't JSON" in server.reload()
        assert code_of_open(server, "second", second) == 0

        server.config.write_text(content.replace(first, "another secret"))
        server.reload()
        assert client("write 1000") == 0
        assert client("close") == 0
    assert code_of_open(server, "first", first) == REFUSED
    assert code_of_open(server, "first", "another secret") == 0


def test_removed_image_ends_its_sessions(server):
    password = server.add_image("data")
    server.start()
    with Client(server, "data", password) as client:
        assert client("open") == 0
        zephaned("--config", server.config, "remove", "data", 7)
        server.reload()
        wait_until(lambda: client("write 1000") < 0, SECONDS, "the session to end")
    server.expect("the image isn't served any more")
    wait_until(lambda: not engines(), SECONDS, "the engine gone")


def test_image_has_one_writer_and_any_number_of_readers(server):
    password = server.add_image("data")
    server.start()
    with Client(server, "data", password) as writer, Client(server, "data", password, flags=0) as reader:
        assert (writer("open"), reader("open")) == (0, 0)
        assert code_of_open(server, "data", password) == BUSY
        assert code_of_open(server, "data", password, flags=0) == 0
        assert (reader("read 1000"), reader("write 1000") < 0) == (0, True)
        assert len(engines()) == 2
        writer.kill()
        wait_until(lambda: code_of_open(server, "data", password) == 0, SECONDS, "the image free again")
    server.expect("refused: another client is writing to the image")


def test_engine_that_dies_takes_its_sessions_along_and_no_others(server):
    passwords = {name: server.add_image(name) for name in ("data", "files")}
    server.start()
    with Client(server, "data", passwords["data"]) as client:
        assert client("open") == 0
        engine, = engines()
        with Client(server, "files", passwords["files"]) as other:
            assert other("open") == 0
            os.kill(engine, signal.SIGKILL)
            wait_until(lambda: client("write 1000") < 0, SECONDS, "the session to end")
            assert client("close") < 0
            assert other("write 1000") == 0
        wait_until(lambda: code_of_open(server, "data", passwords["data"]) == 0, SECONDS, "a new engine")
    server.expect("data 7: nbdkit has ended by itself, with signal 9")


def test_killed_server_leaves_nothing_behind(server):
    password = server.add_image("data")
    server.start()
    with Client(server, "data", password) as client:
        assert (client("open"), client("write 1000")) == (0, 0)
        assert len(engines()) == 1
        server.end_by(signal.SIGKILL)
        wait_until(lambda: not engines(), SECONDS, "the engine gone")
        assert client("write 1000") < 0
    server.start()
    assert code_of_open(server, "data", password) == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_server_ends_in_order(server, number):
    password = server.add_image("data")
    server.start()
    with Client(server, "data", password) as client:
        assert (client("open"), client("write 1000")) == (0, 0)
        assert server.end_by(number) == 0
        assert client("write 1000") < 0
    assert server.output.endswith(" ended\n")
    assert not engines()
    assert not list(server.run.iterdir())


def test_engine_that_does_not_come_up(server):
    server.add_image("data")
    (server.directory / "data").unlink()
    password = json.loads(server.config.read_text())["images"][0]["secret"]
    server.start()
    assert "data 7: " in server.output and "No such file or directory" in server.output
    assert code_of_open(server, "data", password) == NO_ENGINE
    server.expect("nbdkit has ended by itself, with exit status 1")
    assert code_of_open(server, "data", password) == NO_ENGINE


def test_nobody_else_gets_at_the_engines(server):
    password = server.add_image("data")
    server.start()
    with Client(server, "data", password) as client:
        assert client("open") == 0
        assert stat.S_IMODE(server.run.stat().st_mode) == 0o700
        assert stat.S_IMODE(server.config.stat().st_mode) == 0o600
        engine, = engines()
        for file in ("cmdline", "environ"):
            assert password.encode() not in pathlib.Path(f"/proc/{engine}/{file}").read_bytes()
        links = {os.readlink(link) for link in pathlib.Path(f"/proc/{engine}/fd").iterdir()}
        assert not any(link.startswith("socket:") and is_inet(link) for link in links)


def is_inet(link):
    """Whether a descriptor is a TCP socket."""
    inode = link.removeprefix("socket:[").removesuffix("]")
    return any(line.split()[9] == inode
               for name in ("tcp", "tcp6")
               for line in pathlib.Path("/proc/net", name).read_text().splitlines()[1:])


def test_server_of_an_unprivileged_user(tmp_path):
    nobody = pwd.getpwnam("nobody")
    directory = pathlib.Path("/run/zephaned-of-nobody")
    directory.mkdir()
    os.chown(directory, nobody.pw_uid, nobody.pw_gid)
    server = Server(directory, user="nobody")
    server.config.unlink()
    password = server.add_image("data") # run by root, but the file gets the owner of the directory
    for path in (server.config, directory / "data"):
        assert (path.owner(), stat.S_IMODE(path.stat().st_mode)) == ("nobody", 0o600)
    server.write(listen=["127.0.0.1:0"], runtimeDirectory=str(server.run))
    with server:
        with Client(server, "data", password) as client:
            assert [client(line) for line in ("open", "write 1000", "close")] == [0] * 3
        assert server.end_by(signal.SIGTERM) == 0
    assert (directory / "data").read_bytes().startswith(b"w" * 1000)
