"""The log in the device API of the real daemon: its lines, and the level from which on they are stored."""
import datetime

import pytest

from lab.appliance_client import DEVICE
from lab.daemon import LOGS

TEXT, JSON = "text/plain", "application/json"
LEVELS = {5: "[CRITICAL:] ", 4: "[ERROR:]    ", 3: "[WARNING:]  ", 2: "[INFO:]     ", 1: "[DEBUG:]    "}


def day(age):
    return datetime.date.today() - datetime.timedelta(days=age)


def write_log(age, lines):
    (LOGS / f"bek_{day(age)}.log").write_text("".join(line + "\n" for line in lines))


def log_line(age, text, severity=2):
    return f"{day(age)} 12:00:00.500 {LEVELS[severity]}{text}"


def logged(appliance, **arguments):
    """The texts in the answer to a log request, which must report no problems."""
    status, content_type, content = appliance.logs(**arguments)
    assert (status, content_type) == (200, JSON)
    assert content["error"] == []
    return [line["message"] for line in content["log"]]


def test_log_entries(agent, appliance):
    """The text, severity and time of a line, and the lines that belong to it."""
    write_log(1, [log_line(1, "first"), "more of it", log_line(1, "broken", severity=4)])
    noon = datetime.datetime.combine(day(1), datetime.time(12))
    assert appliance.logs(last=str(day(1))).content == {"error": [], "log": [
        {"message": "first\nmore of it", "severity": 2, "timestamp": int(noon.timestamp())},
        {"message": "broken", "severity": 4, "timestamp": int(noon.timestamp())}]}
    everything = logged(appliance)
    assert {"first\nmore of it", "broken", f"Pair request from deviceID {DEVICE} accepted"} < set(everything)


def test_log_lines(agent, appliance):
    """The newest lines: a thousand by default, ten thousand at most."""
    texts = [f"line {number}" for number in range(10_050)]
    write_log(1, [log_line(1, text) for text in texts])
    until = str(day(1))
    assert logged(appliance, last=until) == texts[-1000:]
    assert logged(appliance, last=until, lines=3) == texts[-3:]
    assert logged(appliance, last=until, lines=0) == []
    assert logged(appliance, last=until, lines=10_000) == texts[-10_000:]
    warning = "[WARNING:]  Ignoring lines parameter value which exceeds maximum of 10000\n"
    assert warning not in agent.log
    assert logged(appliance, last=until, lines=20_000) == texts[-10_000:]
    assert agent.log.count(warning) == 1


def test_log_dates(agent, appliance):
    """A file is read if its day is in the range. An invalid date is no limit. Files that are eight days old,
    or have another name, are never read."""
    for age in (1, 2, 3, 8):
        write_log(age, [log_line(age, f"{age} days ago")])
    (LOGS / "notes.log").write_text(log_line(1, "notes") + "\n")

    def ages(**arguments):
        texts = logged(appliance, lines=10_000, **arguments)
        return {int(text[0]) for text in texts if text.endswith("days ago")}

    assert ages() == {1, 2, 3}
    assert ages(first=str(day(2))) == {1, 2}
    assert ages(last=str(day(2))) == {2, 3}
    assert ages(first=str(day(2)), last=str(day(2))) == {2}
    assert ages(first=str(day(1)), last=str(day(2))) == set()
    assert ages(first="garbage", last="2026-13-45") == {1, 2, 3}
    assert ages(first=str(day(30))) == {1, 2, 3}
    assert "notes" not in logged(appliance, lines=10_000)


def test_log_severity(appliance):
    """Lines of this severity and above; with no severity, or an invalid one, those from info on."""
    write_log(1, [log_line(1, f"severity {number}", number) for number in LEVELS])

    def severities(severity):
        return {int(text[-1]) for text in logged(appliance, last=str(day(1)), severity=severity)}

    for number in LEVELS:
        assert severities(number) == set(range(number, 6))
    for other in (None, 0, 6, -1):
        assert severities(other) == {2, 3, 4, 5}
    answer = appliance.logs(severity="loud")
    assert (answer.status, answer.content_type) == (500, TEXT)


def test_log_problems(agent, appliance):
    """Files that can't be read are reported, and the others are read."""
    write_log(1, ["belongs to nothing", log_line(1, "good")])
    (LOGS / f"bek_{day(2)}.log").mkdir()
    content = appliance.logs(last=str(day(1))).content
    assert [line["message"] for line in content["log"]] == ["good"]
    [unreadable] = [text for text in content["error"] if text.startswith("failed")]
    [stray] = [text for text in content["error"] if text != unreadable]
    assert unreadable == f"failed reading log file for {day(2)}"
    assert stray.startswith(f"{day(1)} line 1")


def test_empty_log_directory(appliance):
    appliance.log_level("min")
    for path in LOGS.iterdir():
        path.unlink()
    assert appliance.logs() == (200, JSON, {"log": [], "error": []})


def test_log_that_is_no_text(agent, appliance):
    """A request writes bytes that aren't UTF-8 to the log; the rest of the log can still be read."""
    assert appliance.log_level("debug").status == 200
    assert appliance.request("POST", "/pair", b"\xff\xfe\x80").status == 400
    texts = logged(appliance, severity=1)
    assert any(text.startswith("DATA: \N{REPLACEMENT CHARACTER}") for text in texts)


@pytest.mark.parametrize("severity, name", [
    (0, "max"), (1, "debug"), (2, "info"), (3, "warning"), (4, "error"), (5, "critical"), (6, "min"),
    (9, "min"), (-1, "max"), (1e300, "min"), (-1e30, "max"),
])
def test_log_level(foreground, agent, appliance, database, severity, name):
    """The threshold applies to the file at once and after the next start; the screen always shows the changes
    of it. A number outside of the range is replaced by the nearest valid one."""
    assert appliance.log_level(severity) == (200, TEXT, "")
    assert f"[DEBUG:]    Log level set to {name}\n" in agent.output
    clamped = [float(line.split("severity = ")[1].split("'")[0]) for line in agent.output.splitlines()
               if line.endswith("' being clamped into range [0, 6]")]
    assert clamped == ([] if severity in range(7) else [severity])
    assert database("select value from config where key = 'log_level'") == [(name,)]

    def passes(level, text, of):
        return f"{level}{text}\n" in of.log

    appliance.request("POST", "/pair", "{")
    numbers = {"max": 0, "debug": 1, "info": 2, "warning": 3, "error": 4, "critical": 5, "min": 6}
    rejected = "Pair request from deviceID 0 rejected (invalid JSON) [failure:pairing-refused]"
    assert passes(LEVELS[4], rejected, agent) == (numbers[name] <= 4)
    assert passes(LEVELS[3], "Bad API request for pair: ", agent) == (numbers[name] <= 3)
    assert passes(LEVELS[1], "DATA: {", agent) == (numbers[name] <= 1)
    assert agent.stop() == 0
    again = foreground()
    assert again.stop() == 0
    assert passes(LEVELS[2], "HTTP server started", again) == (numbers[name] <= 2)
    assert passes(LEVELS[1], "HTTP server stopping", again) == (numbers[name] <= 1)


@pytest.mark.parametrize("body, reason", [
    ("{", "JSON parsing error in logLevel callback "), ("", "JSON parsing error in logLevel callback "),
    ("{}", "logLevel event received with no 'severity' parameter sent"),
    ("[]", "logLevel event received with no 'severity' parameter sent"),
    ('{"severity": "info"}', "logLevel 'severity' parameter must be a number, but is string"),
])
def test_refused_log_level(appliance, database, body, reason):
    status, content_type, text = appliance.request("POST", "/logLevel", body)
    assert (status, content_type) == (400, TEXT)
    assert text.startswith(reason)
    assert database("select value from config where key = 'log_level'") == []
