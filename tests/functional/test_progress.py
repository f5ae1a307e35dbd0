"""The progress of a backup, as lab/appliance and the demo show it: lines, and bars on a terminal."""
import fcntl
import io
import os
import re
import struct
import termios
import time

import pytest

from appliance_site import ACTIVE, DISK, FAILED, FINISHED, MB, status_of
from lab.progress import shown_progress


def lines_of(*statuses, **options):
    """The output for a quick sequence of statuses, without a terminal."""
    stream = io.StringIO()
    with shown_progress(stream, **options) as progress:
        for status in statuses:
            progress(status)
    return stream.getvalue().splitlines()


def test_type_is_not_shown_before_it_is_settled():
    assert lines_of(status_of(ACTIVE, totalSize=(1 << 64) - 1)) == [f"{DISK} preparing"]


def test_estimate_below_zero_is_not_shown():
    assert lines_of(status_of(ACTIVE, totalSize=(1 << 64) - 4096)) == [f"{DISK} full active, 5.0 MB"]


def test_end_is_shown_as_all_that_there_was():
    assert lines_of(status_of(FINISHED, totalSize=25 * MB)) == [f"{DISK} full finished, 20.0 MB of 20.0 MB"]


def test_lines_are_few_while_only_bytes_go_by():
    changes = [status_of(ACTIVE, bytesTransferred=count * MB) for count in range(3)]
    assert lines_of(*changes, FINISHED) == [f"{DISK} full active, 0.0 MB of 20.0 MB",
                                            f"{DISK} full finished, 20.0 MB of 20.0 MB"]


def test_volumes_by_name():
    [line] = lines_of(FAILED, names={DISK: "data"}, prefix="  | ")
    assert line == "  | data full failed, 5.0 MB of 20.0 MB"


UUIDS = ("0f1e7a41-7a41-4a5e-9d0c-2f0b64b1a7de", "9a1fbd36-8c51-4a1e-9d0c-2f0e6f2f4b0e")


def status_of_two(state, *sizes, kind="differential"):
    """The status of a backup of two volumes, with (transferred, total) for each."""
    return ACTIVE | {"status": state, "details": [
        {"volume": uuid, "status": state, "type": kind,
         "transfer": {"bytesTransferred": done, "totalSize": total}}
        for uuid, (done, total) in zip(UUIDS, sizes)]}


def on_a_terminal(*statuses, columns=80, pause=0.3, **options):
    """The final screen, as lines, on a terminal with this number of columns and 24 lines."""
    reader, writer = os.openpty()
    fcntl.ioctl(writer, termios.TIOCSWINSZ, struct.pack("4H", 24, columns, 0, 0))
    shown = b""
    with open(writer, "w", encoding="utf-8") as terminal:
        with shown_progress(terminal, **options) as progress:
            for status in statuses:
                progress(status)
                time.sleep(pause)
                shown += os.read(reader, 1 << 16)
        shown += os.read(reader, 1 << 16)
    os.close(reader)
    text = re.sub(r"\x1b\[[0-9;?]*[a-zA-Z]", "", shown.decode().rsplit("\x1b[2K", 1)[-1])
    return [line for line in text.replace("\r", "\n").split("\n") if line.strip()]


@pytest.fixture(autouse=True)
def terminal_of_a_person(monkeypatch):
    monkeypatch.setenv("TERM", "xterm")
    for name in ("COLUMNS", "LINES", "NO_COLOR"):
        monkeypatch.delenv(name, raising=False)


def test_bars_on_a_terminal():
    [line] = on_a_terminal(ACTIVE, FINISHED)
    assert re.fullmatch(rf"{DISK} full \S+ 20.0 of 20.0 MB +[\d,.]+ MB/s finished", line), line


def test_bars_of_several_volumes_have_a_total():
    lines = on_a_terminal(status_of_two("active", (0, 40 * MB), (0, 2 * MB)),
                          status_of_two("active", (20 * MB, 40 * MB), (1 * MB, 2 * MB)))
    assert [line.split()[0] for line in lines[-3:]] == ["0f1e7a41", "9a1fbd36", "total"]
    assert all("MB/s" in line and "0:00:" in line for line in lines[-3:]), lines
    assert "21.0 of 42.0 MB" in lines[-1]


@pytest.mark.parametrize("state", ["active", "finished"])
def test_bars_fit_a_terminal_of_80_columns(state):
    """The bars fit even for terabytes at hundreds of megabytes a second, for most of a day."""
    lines = on_a_terminal(*(status_of_two(state, (done, 9_999_999 * MB), (done, 9_999_999 * MB))
                            for done in (1_234_000 * MB, 1_234_100 * MB, 1_234_200 * MB)),
                          names={UUIDS[0]: "a name that is long"})
    assert len(lines) >= 3 and max(map(len, lines)) <= 80
    for line in lines[-3:]:
        assert re.search(r"[\d,]+ of [\d,]+ MB ", line) and "MB/s" in line, line


def test_bars_of_what_is_not_known_yet():
    [line] = on_a_terminal(status_of(ACTIVE, bytesTransferred=0, totalSize=(1 << 64) - 1))
    assert line.split()[0] == DISK and line.split()[-1] == "preparing"
