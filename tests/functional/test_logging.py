"""What the daemon logs, where it logs to, and what it does if it can't."""
import datetime
import os
import pathlib
import re
import shutil

import pytest

from lab.daemon import BASE, LOGS, READY_LINE
from narrow_pipe import fill

LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} "
                  r"(\[CRITICAL:\] |\[ERROR:\]    |\[WARNING:\]  |\[INFO:\]     |\[DEBUG:\]    )\S.*")
START = ["Core engine started", "HTTP server started", READY_LINE]
STOP = ["HTTP server stopped", "Core engine stopped", "Agent daemon stopped"]
LOG_USER = 1
LOG_INFO = 6


def messages(text):
    return [line[36:] for line in text.splitlines()]


def log_file():
    """The only log file."""
    [path] = LOGS.iterdir()
    return path


def check_fallback(daemon, log, error):
    """Checks that each message that couldn't be written to the file is on standard error and in the system
    log."""
    assert daemon.stop() == 0
    assert "Agent daemon stopping" in messages(daemon.output) # the screen shows all messages
    received = log.messages
    expected = ["Generated new agentUUID", *START, *STOP]
    assert [message["text"].rstrip("\n")[36:][:23] for message in received] == [
        text[:23] for text in expected]
    for message in received:
        assert int(message["priority"]) == LOG_USER << 3 | LOG_INFO
        assert message["ident"] == "tolvubackupagent"
        assert int(message["pid"]) == daemon.pid
        assert LINE.fullmatch(message["text"].rstrip("\n"))
    lines = daemon.errors.splitlines()
    assert len(lines) == len(expected)
    assert all(re.fullmatch(error, line) for line in lines)
    daemon.expect_errors(error)


def start_without_log(make_daemon):
    """Starts a daemon whose log files can't show when it is ready."""
    daemon = make_daemon()
    daemon.wait_for_output(READY_LINE)
    return daemon


def test_file_in_place_of_the_directory(make_daemon, system_log):
    """If its log directory can't be made, the agent runs, and logs to the system log."""
    BASE.mkdir(parents=True, exist_ok=True)
    LOGS.write_text("no directory")
    daemon = start_without_log(make_daemon)
    check_fallback(daemon, system_log, r"~~Logging Error~~ dir::make\(.*Not a directory.*")
    assert LOGS.read_text() == "no directory"


def test_read_only_directory(make_daemon, system_log, tmpfs):
    """The same if no files can be made in the directory."""
    tmpfs(LOGS, "ro")
    daemon = start_without_log(make_daemon)
    check_fallback(daemon, system_log, "~~Logging Error~~ Could not open output log file")


def test_full_disk(make_daemon, system_log, tmpfs):
    """The same if the file system is full."""
    tmpfs(LOGS, "size=4k")
    (LOGS / "filler").write_bytes(b"x" * 4096)
    daemon = start_without_log(make_daemon)
    check_fallback(daemon, system_log,
                   "~~Logging Error~~ File stream error occurred while outputting log message")


def test_disk_has_room_again(make_daemon, system_log, tmpfs):
    """The file gets messages again as soon as there is room."""
    tmpfs(LOGS, "size=4k")
    filler = LOGS / "filler"
    filler.write_bytes(b"x" * 4096)
    daemon = start_without_log(make_daemon)
    daemon.expect_errors("~~Logging Error~~ File stream error occurred while outputting log message")
    filler.unlink()
    assert daemon.stop() == 0
    assert messages(log_file().read_text()) == STOP
    assert len(system_log.messages) == 1 + len(START)


def test_no_system_log_either(make_daemon, tmpfs):
    """If nothing can be logged, the agent still starts and stops."""
    tmpfs(LOGS, "ro")
    daemon = start_without_log(make_daemon)
    daemon.expect_errors("~~Logging Error~~ Could not open output log file")
    assert daemon.stop() == 0


@pytest.mark.parametrize("is_open", [True, False], ids=["full", "closed"])
def test_standard_error_that_nobody_reads(make_daemon, tmpfs, is_open):
    """If standard error is a pipe whose reader has gone, or doesn't read, the agent neither ends nor blocks,
    though every message fails to reach the file."""
    tmpfs(LOGS, "ro")
    reader, writer = os.pipe()
    if is_open:
        fill(writer)
    else:
        os.close(reader)
    daemon = make_daemon(stderr=writer)
    os.close(writer)
    daemon.wait_for_output(READY_LINE)
    assert daemon.stop() == 0
    assert messages(daemon.output)[-1] == "Agent daemon stopped"
    if is_open:
        os.close(reader)


def test_background_agent_falls_back(make_daemon, system_log, tmpfs):
    """A background agent has no standard error, so only the system log is left."""
    tmpfs(LOGS, "ro")
    daemon = make_daemon(foreground=False)
    daemon.expect_errors("~~Logging Error~~ Could not open output log file")
    system_log.wait_for(READY_LINE)
    assert daemon.stop() == 0
    assert [message["text"].rstrip("\n")[36:] for message in system_log.messages][1:] == [*START, *STOP]


def test_system_log_is_for_emergencies(foreground, system_log):
    """While messages can be written to the file, none goes to the system log."""
    daemon = foreground()
    assert daemon.stop() == 0
    assert system_log.messages == []


@pytest.mark.parametrize("what", ["directory", "file"])
def test_removed_while_running(foreground, what):
    """The next message makes the file, and the directory, again."""
    daemon = foreground()
    if what == "directory":
        shutil.rmtree(LOGS)
    else:
        log_file().unlink()
    assert daemon.stop() == 0
    assert messages(log_file().read_text()) == STOP


def test_lines_and_modes(make_daemon):
    """Timestamp, tag and text are in their places, the timestamps are in order and current; only root and its
    group may read."""
    before = datetime.datetime.now().replace(microsecond=0)
    daemon = make_daemon(umask=0).wait_until_ready()
    assert daemon.stop() == 0
    lines = log_file().read_text().splitlines()
    assert messages("\n".join(lines))[1:] == [*START, *STOP]
    assert all(LINE.fullmatch(line) for line in lines + daemon.output.splitlines()
               if line != "Stopping services...")
    stamps = [datetime.datetime.fromisoformat(line[:23]) for line in lines]
    assert stamps == sorted(stamps)
    assert before <= stamps[0] and stamps[-1] <= datetime.datetime.now()
    assert log_file().stat().st_mode & 0o7777 == 0o640
    assert LOGS.stat().st_mode & 0o7777 == 0o755


@pytest.mark.parametrize("zone, hours", [("EAST-14", 14), ("WEST+12", -12)])
def test_local_time(foreground, zone, hours):
    """Timestamps and file name follow the time zone: these two zones never have the same date."""
    local = datetime.timezone(datetime.timedelta(hours=hours))
    days = {datetime.datetime.now(local).date()}
    daemon = foreground(environment={"TZ": zone})
    now = datetime.datetime.now(local)
    days.add(now.date())
    assert log_file().name in {f"bek_{day}.log" for day in days}
    stamp = datetime.datetime.fromisoformat(daemon.log[:23]).replace(tzinfo=local)
    assert abs(now - stamp) < datetime.timedelta(minutes=1)
    assert daemon.stop() == 0


def day(age):
    """The name of the log file of `age` days ago."""
    return f"bek_{datetime.date.today() - datetime.timedelta(days=age)}.log"


FOREIGN = ["notes.txt", "bek_2016-03-04.log.gz", "bek_2016-03-04.txt", "bek_2016_03_04.log",
           "abc_2016-03-04.log"]


def test_old_files_are_removed_at_start(foreground):
    """Log files older than seven days are removed; younger ones and other files stay, however old."""
    LOGS.mkdir(parents=True)
    stay = {day(1), day(6), *FOREIGN}
    for name in {day(9), day(400), "bek_2016-03-04.log"} | stay:
        (LOGS / name).write_text("old")
        os.utime(LOGS / name, (0, 0))
    assert foreground().stop() == 0
    left = {path.name for path in LOGS.iterdir()}
    assert stay < left
    assert len(left - stay) == 1 # today's file


def test_retention_runs_once_a_day(foreground):
    """If today's file exists already, no old files are removed."""
    assert foreground().stop() == 0
    old = LOGS / day(30)
    old.write_text("old")
    (LOGS / day(-1)).write_text("") # in case midnight passes now
    assert foreground().stop() == 0
    assert old.exists()


@pytest.mark.parametrize("stored, kept, file_has, file_lacks", [
    ("debug", "debug", "Logger level loaded from database: debug", None),
    ("DEBUG", "DEBUG", "Logger level loaded from database: debug", None),
    ("max", "max", "Logger level loaded from database: max", None),
    ("info", "info", READY_LINE, "Logger level loaded"),
    ("verbose", "info", "Database entry for log_level was not valid, updating to default: info",
     "Agent daemon stopping"),
    ("7", "info", "Database entry for log_level was not valid, updating to default: info",
     "Agent daemon stopping"),
    ("", "", READY_LINE, "log_level"),
    ("warning", "warning", "Agent installation UUID", READY_LINE),
    ("min", "min", "Agent installation UUID", READY_LINE),
])
def test_stored_level(foreground, database, stored, kept, file_has, file_lacks):
    """The level in the database decides what the file gets, once it has been loaded; the screen gets
    everything. A stored text is replaced only if it is no level."""
    assert foreground().stop() == 0
    database("insert into config (key, value) values ('log_level', ?)", stored)
    daemon = foreground()
    assert daemon.stop() == 0
    assert file_has in daemon.log
    assert file_lacks is None or file_lacks not in daemon.log
    assert ("Agent daemon stopping" in daemon.log) == (kept.lower() in ("debug", "max"))
    assert {READY_LINE, "Agent daemon stopping"} < set(messages(daemon.output))
    assert database("select value from config where key = 'log_level'") == [(kept,)]


def test_no_level_is_stored_unasked(foreground, database):
    """Without a stored level the level is info, and nothing is stored."""
    assert foreground().stop() == 0
    assert database("select key from config") == [("agentUUID",)]
    assert pathlib.Path(log_file()).read_text().count("[DEBUG:]") == 0
