"""The daemon as a process: command line, background, PID file, signals, exit status."""
import contextlib
import errno
import fcntl
import os
import pathlib
import pwd
import shutil
import signal
import sqlite3
import subprocess

import pytest

from lab.daemon import BASE, CONFIG, DATABASE, LOGS, PID_FILE, READY_LINE, program, stored_pid
from narrow_pipe import NarrowPipe, hold_at

USAGE = ("bekd version: 2.1.23.0\n"
         "Usage:\n"
         "  -h, --help\n"
         "\tHelp: display this help and exit.\n"
         "  -d, --display\n"
         "\tDisplay: Run bekd in foreground.\n"
         "\n")
STOP_LINE = "Stopping services...\r\n"
ALREADY_RUNNING = "[CRITICAL:] An instance of the TolvuBackupAgent is already running. "\
    "[failure:already-running]\n"
STOP = ["Agent daemon stopping", "HTTP server stopping", "HTTP server stopped", "Core engine stopping",
        "Core engine stopped", "Agent daemon stopped"]
STOP_SIGNALS = [signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGHUP]
SECONDS = 20

# The output of a signal handler's exception if the agent is still starting.
ABNORMAL_END = r"terminate called .*'std::runtime_error'|  what\(\):  Agent daemon not started yet"


def run_bekd(*arguments):
    """Runs the daemon with arguments that must make it exit at once."""
    return subprocess.run([program(), *arguments], capture_output=True, text=True, check=False,
                          timeout=SECONDS)


def messages(text):
    """The messages of log lines, without time and tag."""
    return [line[36:] for line in text.splitlines()]


def descriptors(pid):
    """The target of each open descriptor of a process."""
    folder = pathlib.Path(f"/proc/{pid}/fd")
    return {int(entry.name): os.readlink(entry) for entry in folder.iterdir()}


def expect_untouched_machine():
    assert not BASE.exists()
    assert not PID_FILE.exists()


@pytest.fixture
def program_for_everybody():
    """A copy of the daemon that any user can access, wherever the checkout is."""
    copy = pathlib.Path("/tmp/bekd-for-everybody")
    shutil.copy(program(), copy)
    copy.chmod(0o755)
    yield copy
    copy.unlink()


@pytest.mark.bare_site
@pytest.mark.parametrize("arguments", [[], ["-d"], ["-h"]])
def test_other_users_are_refused(program_for_everybody, arguments):
    """A user who isn't root gets one line, before anything is changed; even the usage needs root."""
    nobody = pwd.getpwnam("nobody")
    done = subprocess.run([program_for_everybody, *arguments], capture_output=True, text=True, check=False,
                          user=nobody.pw_uid, group=nobody.pw_gid, extra_groups=[], cwd="/",
                          timeout=SECONDS)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == "Cannot start agent: Must be run as root.\n"
    expect_untouched_machine()


def test_other_user_touches_nothing_of_a_running_agent(program_for_everybody, background):
    """The database, log and PID file of a running daemon keep their content and modification time."""
    background()
    files = [DATABASE, PID_FILE, *LOGS.iterdir()]
    before = [(path.read_bytes(), path.stat().st_mtime_ns) for path in files]
    done = subprocess.run([program_for_everybody], capture_output=True, check=False, user="nobody", cwd="/",
                          timeout=SECONDS)
    assert done.returncode == 1
    assert [(path.read_bytes(), path.stat().st_mtime_ns) for path in files] == before


@pytest.mark.bare_site
@pytest.mark.parametrize("arguments", [
    ["-h"], ["--help"], ["--he"], ["-d", "-h"], ["-dh"], ["--disp", "--hel"], ["something", "-h"],
])
def test_help_is_usage_and_status_1(arguments):
    """The exact usage is printed once on standard output, and nothing else happens."""
    done = run_bekd(*arguments)
    assert (done.returncode, done.stdout, done.stderr) == (1, USAGE, "")
    expect_untouched_machine()


@pytest.mark.bare_site
@pytest.mark.parametrize("arguments", [
    ["-x"], ["-d", "-x"], ["-x", "-d"], ["--nonsense"], ["--display=yes"], ["-x", "-y", "-h"],
])
def test_wrong_options_are_usage_and_status_1(arguments):
    """The usage is printed once, however many options are wrong, and -d starts nothing."""
    done = run_bekd(*arguments)
    assert (done.returncode, done.stdout) == (1, USAGE)
    assert str(program()) in done.stderr
    expect_untouched_machine()


@pytest.mark.parametrize("arguments", [["one", "two"], ["--", "-h"]])
def test_other_arguments_are_ignored(make_daemon, arguments):
    """Arguments that aren't options have no effect."""
    daemon = make_daemon(*arguments).wait_until_ready()
    assert daemon.stop() == 0


@pytest.mark.parametrize("option", ["-d", "--display", "--disp"])
def test_foreground_option_has_long_and_short_forms(make_daemon, option):
    """The process that was started is the agent itself, and there is no PID file."""
    daemon = make_daemon(display=option).wait_until_ready()
    assert daemon.stop() == 0
    assert not PID_FILE.exists()


def test_background_process_is_a_daemon(background):
    """It leads a session of its own, its working directory is /, and only /dev/null is open."""
    daemon = background()
    assert daemon.pid != os.getpid()
    assert os.getsid(daemon.pid) == daemon.pid != os.getsid(0)
    assert os.readlink(f"/proc/{daemon.pid}/cwd") == "/"
    files = descriptors(daemon.pid)
    assert {number: files[number] for number in (0, 1, 2)} == dict.fromkeys((0, 1, 2), "/dev/null")


def test_launcher_ends_with_status_0(background):
    """The process that the administrator's shell waits for returns 0 once the agent is in the background."""
    daemon = background()
    assert daemon.launcher_status == 0
    assert daemon.is_running


def test_pid_file_is_the_number_alone(background):
    """The file has the decimal PID without a newline. Only root may read it: any reader could lock it."""
    daemon = background()
    assert PID_FILE.read_bytes() == b"%d" % daemon.pid
    assert PID_FILE.stat().st_mode & 0o7777 == 0o600


def test_nobody_else_can_lock_what_the_agent_needs(background, database):
    """The agent's files become unreadable for others, even if an earlier version has left them readable."""
    background().stop()
    files = [PID_FILE, DATABASE]
    for path in files:
        path.chmod(0o644)
    daemon = background()
    database("pragma journal_mode = wal")
    with contextlib.closing(sqlite3.connect(DATABASE)) as connection:
        connection.execute("insert into config (key, value) values ('one', '1')")
        connection.commit()
        files += [DATABASE.with_name(DATABASE.name + end) for end in ("-wal", "-shm")]
        for path in files:
            lock = subprocess.run(["flock", "--nonblock", path, "true"], capture_output=True, text=True,
                                  check=False, user="nobody", group="nogroup", extra_groups=[], cwd="/",
                                  env={"PATH": os.environ["PATH"], "LC_ALL": "C"}, timeout=SECONDS)
            assert lock.returncode != 0
            assert "Permission denied" in lock.stderr, path
            assert path.stat().st_mode & 0o7777 == 0o600
    assert daemon.stop() == 0


def test_second_instance_gives_way(background, make_daemon):
    """It is set up completely, finds the lock taken, says so, and doesn't change the first instance's
    file."""
    first = background()
    before = (PID_FILE.read_bytes(), PID_FILE.stat().st_ino, PID_FILE.stat().st_mtime_ns)
    second = make_daemon(foreground=False)
    assert second.wait() == 1
    composed = messages(second.output)
    assert "Found db schema version: 3" in composed
    assert composed[-1] == "Agent daemon created"
    assert ALREADY_RUNNING in second.log
    assert READY_LINE not in second.log
    assert second.log.index("Agent installation UUID: ") < second.log.index(ALREADY_RUNNING)
    assert (PID_FILE.read_bytes(), PID_FILE.stat().st_ino, PID_FILE.stat().st_mtime_ns) == before
    with PID_FILE.open("r+") as file, pytest.raises(BlockingIOError):
        fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
    assert first.stop() == 0


def test_second_instance_meets_a_damaged_database_before_the_lock(background, run_to_end):
    """An error of the database shows first: the lock is taken only after all parts have been set up."""
    background()
    DATABASE.write_bytes(b"no database at all" * 100)
    second = run_to_end(foreground=False)
    assert second.status == 2
    second.expect_errors("Unhandled Exception reached the top of main: .*")
    assert len(second.errors.splitlines()) == 1
    assert "already running" not in second.log


@pytest.mark.parametrize("content", [None, b"", b"99999999999999\n"], ids=["own", "empty", "longer"])
def test_file_of_a_killed_agent_is_taken_over(background, content):
    """After kill -9 the lock is free; the same file gets the new PID in place of its old content."""
    killed = background()
    killed.kill()
    assert stored_pid() == killed.pid
    inode = PID_FILE.stat().st_ino
    if content is not None:
        PID_FILE.write_bytes(content)
    daemon = background()
    assert PID_FILE.read_bytes() == b"%d" % daemon.pid
    assert PID_FILE.stat().st_ino == inode


def test_foreground_beside_a_background_agent(background, run_to_end, connect_appliance):
    """-d needs no lock, so the second agent starts; but the first one has the port. The second stops what it
    has started, and the first one, its PID file and its API aren't affected."""
    first = background()
    before = (PID_FILE.read_bytes(), PID_FILE.stat().st_ino, PID_FILE.stat().st_mtime_ns)
    second = run_to_end()
    failure = f"HTTP server failed to start with err: {errno.EADDRINUSE}"
    assert second.status == 2
    assert second.errors == (f"Unhandled Exception reached the top of main: {failure}, "
                             "application will now exit\n")
    second.expect_errors("Unhandled Exception reached the top of main: .*")
    assert messages(second.log)[1:] == ["Core engine started", f"{failure} [failure:port-taken]",
                                        "Core engine stopped", "HTTP server stopped"]
    assert f"[CRITICAL:] {failure} [failure:port-taken]\n" in second.log
    assert READY_LINE not in second.output
    assert first.is_running
    assert (PID_FILE.read_bytes(), PID_FILE.stat().st_ino, PID_FILE.stat().st_mtime_ns) == before
    assert connect_appliance().install().status == 200
    assert first.stop() == 0


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_signal_stops_foreground_agent(foreground, number):
    """It prints one line on the terminal, stops the services, newest first, and exits with status 0."""
    daemon = foreground()
    assert daemon.stop(number) == 0
    start, stop = daemon.output.split(STOP_LINE)
    assert messages(start)[-1] == READY_LINE
    assert messages(stop) == STOP
    assert not PID_FILE.exists()


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_signal_stops_background_agent(background, database, number):
    """The log at level debug shows that every service stops; the PID file stays, with the old PID."""
    background().stop()
    database("insert into config (key, value) values ('log_level', 'debug')")
    daemon = background()
    assert daemon.stop(number) == 0
    assert messages(daemon.log)[-len(STOP):] == STOP
    assert PID_FILE.read_bytes() == b"%d" % daemon.pid
    with PID_FILE.open("r+") as file:
        fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)


def test_read_only_run_directory(tmpfs, run_to_end):
    """If no PID file can be made, the agent doesn't go into the background."""
    tmpfs("/run", "ro")
    daemon = run_to_end(foreground=False)
    assert daemon.status == 1
    assert "[CRITICAL:] Could not lock PID file: Unable to lock file\n" in daemon.log
    assert READY_LINE not in daemon.log


def test_full_run_directory(tmpfs, run_to_end):
    """If the PID can't be written to the PID file, the file is removed again."""
    tmpfs("/run", "size=4k")
    pathlib.Path("/run/filler").write_bytes(b"x" * 4096)
    daemon = run_to_end(foreground=False)
    assert daemon.status == 1
    assert "[CRITICAL:] Could not lock PID file: Unable to write to lock file\n" in daemon.log
    assert not PID_FILE.exists()


@pytest.mark.bare_site
@pytest.mark.parametrize("is_foreground", [True, False])
def test_exception_at_the_top(fail_to_start, is_foreground):
    """A file that isn't a database: one line on standard error, status 2, and no PID file."""
    BASE.mkdir(parents=True)
    DATABASE.write_bytes(b"no database at all" * 100)
    fail_to_start(foreground=is_foreground)
    assert DATABASE.read_bytes() == b"no database at all" * 100
    assert not PID_FILE.exists()


@pytest.mark.bare_site
@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_signal_during_composition(make_daemon, number):
    """Nothing has to be stopped yet: the agent prints its line on the terminal and exits with status 0. The
    daemon is held by a configuration file that blocks its reader."""
    BASE.mkdir(parents=True)
    os.mkfifo(CONFIG)
    daemon = make_daemon()
    daemon.wait_for_output("Generated new agentUUID")
    assert daemon.stop(number) == 0
    assert daemon.output.endswith(STOP_LINE)
    assert "Agent daemon" not in daemon.output


def start_lines(foreground):
    """The lines that the agent prints while it starts."""
    daemon = foreground()
    lines = daemon.output.splitlines(keepends=True)
    daemon.stop()
    return lines


def test_signal_at_each_line_of_the_start(foreground, make_daemon):
    """The agent is blocked at each line of its start in turn, by a standard output that isn't read, and gets
    SIGTERM there. Before it starts its services, it ends with status 0. While it starts them, it can't stop
    in order, and aborts. At the last line it has started: it stops everything, with status 0."""
    start_lines(foreground) # each start except the first prints the same lines
    lines = start_lines(foreground)
    expected = {}
    seen = {}
    for held, line in enumerate(lines):
        text = line[36:].rstrip("\n")
        starting = any("Agent daemon starting" in earlier for earlier in lines[:held + 1])
        expected[text] = -signal.SIGABRT if starting and text != READY_LINE else 0
        with NarrowPipe(sum(map(len, lines[:held]))) as pipe:
            daemon = make_daemon(stdout=pipe.writer)
            daemon.expect_errors(ABNORMAL_END)
            hold_at(pipe, daemon)
            daemon.send(signal.SIGTERM)
            output = pipe.drain()
            seen[text] = daemon.wait()
            assert "Stopping services...\r" in output
    assert seen == expected
    assert messages(output)[-1] == "Agent daemon stopped"


def test_signal_after_a_start_that_has_failed(background, make_daemon, run_to_end):
    """The services have been stopped again, and the agent is about to exit: a signal has nothing left to
    stop, and doesn't change the status. The daemon is blocked at each line from there on."""
    background()
    failure = "Unhandled Exception reached the top of main: .*"
    lines = []
    for _ in range(2): # each start except the first prints the same lines
        done = run_to_end()
        done.expect_errors(failure)
        lines = done.output.splitlines(keepends=True)
    gone = next(at for at, line in enumerate(lines) if "Agent daemon destroyed" in line)
    assert len(lines) > gone + 3
    for held in range(gone, len(lines)):
        with NarrowPipe(sum(map(len, lines[:held]))) as pipe:
            daemon = make_daemon(stdout=pipe.writer)
            daemon.expect_errors(failure)
            hold_at(pipe, daemon)
            daemon.send(signal.SIGTERM)
            output = pipe.drain()
            assert daemon.wait() == 2, lines[held]
            assert messages(output) == messages("".join(lines))


def test_reader_of_standard_output_goes_away(make_daemon):
    """`bekd -d | head -1`: the agent continues, logs to its file and stops with status 0."""
    reader, writer = os.pipe()
    daemon = make_daemon(stdout=writer)
    os.close(writer)
    with os.fdopen(reader) as lines:
        assert lines.readline()[36:] == "DataProvider created\n"
    daemon.wait_for_log(READY_LINE)
    assert daemon.stop() == 0
    assert messages(daemon.log)[-1] == "Agent daemon stopped"


@pytest.mark.parametrize("is_foreground", [True, False])
def test_started_without_standard_streams(make_daemon, database, is_foreground):
    """If the standard descriptors are closed, the agent doesn't use their numbers for its files: nothing
    foreign is written to the log or the database."""
    closing = ["/bin/sh", "-c", 'exec "$0" "$@" <&- >&- 2>&-']
    daemon = make_daemon(foreground=is_foreground, wrapper=closing)
    daemon.wait_for_log(READY_LINE)
    assert daemon.stop() == 0
    assert messages(daemon.log)[1:] == ["Core engine started", "HTTP server started", READY_LINE,
                                        "HTTP server stopped", "Core engine stopped", "Agent daemon stopped"]
    assert database("pragma integrity_check") == [("ok",)]


def test_runs_from_anywhere(make_daemon, tmp_path):
    """The working directory at the start doesn't matter, nor does a relative path of the program."""
    daemon = make_daemon(foreground=False, cwd=tmp_path, executable=os.path.relpath(program(), tmp_path))
    daemon.wait_until_ready()
    assert daemon.stop() == 0
    assert list(tmp_path.iterdir()) == []
