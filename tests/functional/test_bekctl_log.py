"""bekctl log: the agent's log for people, for programs and for the journal."""
import json
import pathlib
import socket
import subprocess

import pytest

from lab.daemon import LOGS, PID_FILE, program

JOURNAL = pathlib.Path("/run/systemd/journal/socket")
SECONDS = 30
LINES = """\
2026-03-03 23:59:59.999 [INFO:]     the day before
2026-03-04 10:54:56.007 [INFO:]     Agent daemon started
2026-03-04 10:54:57.000 [ERROR:]    Volume 1 could not be found. [failure:volume-not-found]
its second line
2026-03-04 10:54:58.000 [DEBUG:]    a detail
""".splitlines(keepends=True)

pytestmark = pytest.mark.bare_site


@pytest.fixture(autouse=True)
def logs():
    LOGS.mkdir(parents=True)
    write(LINES[0], "2026-03-03")
    write("".join(LINES[1:]))
    yield
    for path in LOGS.iterdir():
        path.unlink()
    LOGS.rmdir()


def write(text, day="2026-03-04"):
    with open(LOGS / f"bek_{day}.log", "a", encoding="utf-8") as file:
        file.write(text)


def log(*options, status=0):
    done = subprocess.run([program("bekctl"), "log", *options], capture_output=True, text=True, check=False,
                          timeout=SECONDS)
    assert (done.returncode, done.stderr if status == 0 else "") == (status, "")
    return done.stdout


def test_last_lines():
    assert log() == "".join(LINES)
    assert log("--lines", "2") == "".join(LINES[-2:])
    assert log("-n", "0") == ""


def test_level_counts_for_all_lines_of_a_message():
    assert log("--level", "error") == "".join(LINES[2:4])


def test_objects():
    objects = [json.loads(line) for line in log("--json").splitlines()]
    assert [entry["level"] for entry in objects] == ["info", "info", "error", "error", "debug"]
    assert objects[2]["reason"]["code"] == "volume-not-found"
    assert objects[1]["text"] == "Agent daemon started"
    assert objects[1]["reason"] is None and objects[3]["time"] is None


def test_control_characters_do_not_reach_a_terminal():
    write("2026-03-04 10:54:59.000 [INFO:]     \x1b[2J\n")
    assert "\x1b" not in log("-n", "1")


def test_no_log_at_all():
    for path in LOGS.iterdir():
        path.unlink()
    assert log() == ""


@pytest.fixture
def following():
    processes = []

    def start(*options):
        processes.append(subprocess.Popen([program("bekctl"), "log", "--follow", *options], text=True,
                                          stdout=subprocess.PIPE, stderr=subprocess.PIPE))
        return processes[-1]
    yield start
    for process in processes:
        process.kill()
        process.communicate()


def test_follows_over_midnight(following):
    process = following("-n", "1")
    assert process.stdout.readline() == LINES[-1]
    write("2026-03-04 10:55:00.000 [INFO:]     more\n")
    assert process.stdout.readline().endswith("more\n")
    write("2026-03-05 00:00:00.000 [INFO:]     the next day\n", "2026-03-05")
    assert process.stdout.readline().endswith("the next day\n")


def test_follower_ends_with_its_reader(following):
    process = following("-n", "1")
    process.stdout.readline()
    process.stdout.close()
    write("2026-03-04 10:55:00.000 [INFO:]     nobody reads this\n")
    assert process.wait(timeout=SECONDS) != 0


@pytest.fixture
def journal():
    JOURNAL.parent.mkdir(parents=True, exist_ok=True)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as receiver:
        receiver.bind(str(JOURNAL))
        receiver.settimeout(SECONDS)
        yield receiver
    JOURNAL.unlink()


def fields(message):
    return dict(line.split("=", 1) for line in message.decode().splitlines())


def test_the_journal_gets_lines_as_those_of_the_agents_unit(following, journal):
    PID_FILE.write_text("4711", encoding="ascii")
    following("--journal", "--lines", "1")
    assert fields(journal.recv(65536))["MESSAGE"] == "a detail"
    write("2026-03-04 10:55:00.000 [WARNING:]  first\nPRIORITY=0\n")
    expected = {"PRIORITY": "4", "SYSLOG_IDENTIFIER": "bekd", "OBJECT_PID": "4711"}
    assert fields(journal.recv(65536)) == {**expected, "MESSAGE": "first"}
    assert fields(journal.recv(65536)) == {**expected, "MESSAGE": "PRIORITY=0"}
    PID_FILE.unlink()
    write("2026-03-04 10:55:01.000 [INFO:]     " + "x" * 100_000 + "\n")
    message = fields(journal.recv(65536))
    assert message["PRIORITY"] == "6" and "OBJECT_PID" not in message
    assert set(message["MESSAGE"]) == {"x"}


def test_no_journal():
    assert log("--journal", status=2) == ""
