"""How the daemon handles config.json."""
import json

import pytest

from lab.daemon import BASE, CONFIG

UNREADABLE = {
    "empty": b"",
    "truncated": b'{"log.lifetimeHours": 72, "holepunch.ena',
    "not UTF-8": b'{"autoupdate.channel": "\xff\xfe"}',
    "array of garbage": b"[1, 2, nonsense]",
    "two documents": b"{} {}",
    "trailing comma": b'{"holepunch.enabled": true,}',
    "binary": bytes(range(256)),
    "nested too deep": b"[" * 100_000 + b"]" * 100_000,
    "too large": b'{"autoupdate.channel": "' + b"x" * 1024 * 1024 + b'"}',
}
WRONG = [
    ("log.lifetimeHours", 0),
    ("log.lifetimeHours", 8761),
    ("log.lifetimeHours", "72"),
    ("log.lifetimeHours", None),
    ("holepunch.enabled", 1),
    ("holepunch.enabled", "true"),
    ("autoupdate.channel", 5),
    ("autoupdate.checkIntervalHours", 13),
    ("autoupdate.shortCheckIntervalMinutes", 6),
    ("backup.heartbeat.timeoutMinutes", 11),
    ("transports.iscsi.timeoutSeconds", -1),
    ("transports.iscsi.maxRetries", 6),
    ("cache.timeoutMinutes", [15]),
]
HARMLESS = {
    "no options": b"{}",
    "options": b'{"log.lifetimeHours": 8760, "autoupdate.channel": "any", "holepunch.enabled": true}',
    "unknown key": b'{"no.such.option" : 17}',
    "key of a volume": b'{"volumes.0f1e.cowFileSizeMiB": 4096}',
    "array": b"[1, 2]",
}


def write_config(content):
    BASE.mkdir(parents=True, exist_ok=True)
    CONFIG.write_bytes(content)


@pytest.mark.parametrize("content", UNREADABLE.values(), ids=UNREADABLE.keys())
@pytest.mark.parametrize("is_foreground", [True, False])
def test_file_that_does_not_parse(fail_to_start, content, is_foreground):
    """The start fails with the name of the file, which isn't changed, so that its owner can correct it."""
    write_config(content)
    daemon = fail_to_start(foreground=is_foreground)
    assert str(CONFIG) in daemon.errors
    assert CONFIG.read_bytes() == content


def test_directory_in_place_of_the_file(fail_to_start):
    """The directory isn't mistaken for a missing file, nor for a file with a wrong text."""
    CONFIG.mkdir(parents=True)
    daemon = fail_to_start()
    assert f'"{CONFIG}": it can\'t be read' in daemon.errors


@pytest.mark.parametrize("key, value", WRONG)
def test_wrong_value_is_reported(foreground, key, value):
    """The log gets one line at level error; the agent runs, and the file isn't changed."""
    content = json.dumps({"holepunch.enabled": True, key: value}).encode()
    write_config(content)
    daemon = foreground()
    line = f'[ERROR:]    Found invalid agent configuration option {{"{key}" : {json.dumps(value)}}}\n'
    assert daemon.log.count("Found invalid agent configuration option") == 1
    assert line in daemon.log
    assert CONFIG.read_bytes() == content
    assert daemon.stop() == 0


@pytest.mark.parametrize("content", HARMLESS.values(), ids=HARMLESS.keys())
def test_harmless_file_stays_as_it_is(foreground, content):
    """No error is logged, and no key is removed or added, known or unknown."""
    write_config(content)
    daemon = foreground()
    assert "configuration" not in daemon.output
    assert daemon.stop() == 0
    assert CONFIG.read_bytes() == content


def test_missing_file_is_not_made(foreground):
    """Without the file every option has its default, and defaults are never written."""
    daemon = foreground()
    assert daemon.stop() == 0
    assert not CONFIG.exists()
