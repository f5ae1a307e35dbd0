"""The state in the daemon's database, across restarts, kills and changes of version."""
import contextlib
import random
import sqlite3
import time
import uuid

import pytest

from lab.daemon import BASE, DATABASE, LOGS, PID_FILE, READY_LINE
from narrow_pipe import NarrowPipe, hold_at

TABLES = {"config", "device", "volumes", "change_journal"}
LONGEST_DELAY = 0.06 # several times as long as a start; most delays are far shorter
NEWER = "This is a database newer than what this agent is prepared for, continue at your own risk"

# The tables of earlier versions, and their version numbers.
CONFIG_TABLE = ("create table config (id integer primary key autoincrement not null, key text not null, "
                "value text null);")
VOLUMES_TABLE = ("create table volumes (volume_uuid text primary key not null, image_checksum text not null "
                 "default '0', backup_status text not null default 'unknown');")
VERSIONS = {
    0: "create table device (id integer not null);",
    1: "create table device (id integer not null, ip text default '', agentUUID text default '');",
    2: "create table device (id integer not null, ip text default '', agentUUID text default '');"
       "alter table volumes add column image_checksum_type text default 'unknown';",
}


def make_database(script):
    BASE.mkdir(parents=True, exist_ok=True)
    with contextlib.closing(sqlite3.connect(DATABASE)) as connection:
        connection.executescript(script)


def dump_database():
    with contextlib.closing(sqlite3.connect(DATABASE)) as connection:
        return list(connection.iterdump())


def columns(database, table):
    return [row[1] for row in database(f"pragma table_info({table})")]


def check_state(database):
    """Checks that the database is sound and complete, and that there are no other files beside it."""
    assert database("pragma integrity_check") == [("ok",)]
    assert database("pragma user_version") == [(3,)]
    tables = database("select name from sqlite_master where type = 'table' and name not like 'sqlite_%'")
    assert {name for (name,) in tables} == TABLES
    [(stored,)] = database("select value from config where key = 'agentUUID'")
    assert str(uuid.UUID(stored)) == stored
    assert {path.name for path in BASE.iterdir()} == {DATABASE.name, LOGS.name, "certs"}


def test_first_start_makes_the_database(foreground, database):
    """The database has all tables, schema version 3, and an identity, which the log shows."""
    daemon = foreground()
    assert daemon.stop() == 0
    check_state(database)
    [(stored,)] = database("select value from config where key = 'agentUUID'")
    assert f"Generated new agentUUID: {stored}\n" in daemon.log
    assert database("select * from device") == []
    assert columns(database, "device") == ["id", "ip", "agentUUID"]
    assert columns(database, "volumes") == ["volume_uuid", "image_checksum", "backup_status",
                                            "image_checksum_type"]


@pytest.mark.parametrize("end", ["stop", "kill"])
def test_identity_stays(background, foreground, database, end):
    """However a run has ended, the next one has the same UUID, and the rest of the database is unchanged."""
    getattr(background(), end)()
    before = dump_database()
    [(stored,)] = database("select value from config where key = 'agentUUID'")
    for start in (background, foreground):
        daemon = start()
        assert f"Agent installation UUID: {stored}\n" in daemon.log
        getattr(daemon, end)()
        assert dump_database() == before


def test_each_installation_has_an_identity_of_its_own(foreground, database):
    """A second installation gets another UUID."""
    assert foreground().stop() == 0
    [(first,)] = database("select value from config where key = 'agentUUID'")
    DATABASE.unlink()
    assert foreground().stop() == 0
    [(second,)] = database("select value from config where key = 'agentUUID'")
    assert first != second


@pytest.mark.parametrize("version", VERSIONS)
def test_earlier_version_is_upgraded(foreground, database, version):
    """Missing parts are added, and every row is kept."""
    make_database(CONFIG_TABLE + VOLUMES_TABLE + VERSIONS[version] + f"pragma user_version = {version};"
                  "insert into config (key, value) values ('agentUUID', "
                  "'11111111-2222-3333-4444-555555555555');"
                  "insert into device (id) values (77);"
                  "insert into volumes (volume_uuid, image_checksum) values ('one', '12345');")
    daemon = foreground()
    assert f"Found db schema version: {version}\n" in daemon.output
    assert "Agent installation UUID: 11111111-2222-3333-4444-555555555555\n" in daemon.log
    assert daemon.stop() == 0
    check_state(database)
    assert database("select id, ip, agentUUID from device") == [(77, "", "")]
    assert database("select * from volumes") == [("one", "12345", "unknown", "unknown")]


def test_newer_version_is_left_alone(foreground, database):
    """The agent logs a warning and continues; tables, rows and version number stay."""
    assert foreground().stop() == 0
    database("alter table volumes add column later text default 'x'")
    database("create table later (one integer)")
    database("pragma user_version = 9")
    before = dump_database()
    daemon = foreground()
    assert f"[WARNING:]  {NEWER}\n" in daemon.log
    assert daemon.stop() == 0
    assert dump_database() == before
    assert database("pragma user_version") == [(9,)]


@pytest.mark.parametrize("is_foreground", [True, False])
def test_killed_at_a_random_moment(make_daemon, background, database, is_foreground):
    """kill -9 at any moment of the first start or of a later one: the next start works, in the background
    too, where the old PID file is still there."""
    moments = random.Random(int(is_foreground))
    for run in range(30):
        if run % 5 == 0:
            DATABASE.unlink(missing_ok=True)
        daemon = make_daemon(start=False, foreground=is_foreground)
        daemon.spawn()
        time.sleep(LONGEST_DELAY * moments.random() ** 3) # a random moment: nothing to wait for
        daemon.kill_all()
        next_one = background()
        assert int(PID_FILE.read_text()) == next_one.pid
        assert next_one.stop() == 0
        check_state(database)


def test_killed_at_each_line_of_the_first_start(make_daemon, foreground, background, database):
    """kill -9 after each line that a first start prints: the next start works and completes the database."""
    daemon = foreground()
    lines = daemon.output.splitlines(keepends=True)
    assert daemon.stop() == 0
    assert lines[-1][36:] == READY_LINE + "\n"
    for held in range(1, len(lines)):
        DATABASE.unlink()
        with NarrowPipe(sum(map(len, lines[:held]))) as pipe:
            daemon = make_daemon(stdout=pipe.writer)
            hold_at(pipe, daemon)
            daemon.kill()
            assert len(pipe.drain().splitlines()) == held
        next_one = background()
        assert next_one.stop() == 0
        check_state(database)
