"""Follows a backup with the appliance's calls until it has ended, and says why it failed.

    outcome = watch(appliance, identifier, progress)     # progress takes each status
    outcome.is_success, outcome.lines

The status may stay "active" after the backup's run has ended, so the log is read too.
"""
import dataclasses
import re
import threading
import time

POLL_SECONDS = 1
QUIET_SECONDS = 3 # without a change, before the log is read
LIMIT_SECONDS = 900 # without a change; the agent waits five minutes, twice, for a silent target
LOG_SECONDS = 3 # for the log line with the reason
LOG_LINES = 10000 # the most that the agent returns
INFO, ERROR = 2, 4
ACTIVE, FINISHED = "active", "finished"
ERRORS = ("connection_error", "snapshot_error")
RUN_BEGINS = "Generated new backup ID: "
RUN_ENDS = ("Backup run finished", "Exception occurred during backup run: ",
            "Unknown exception occurred during backup run")
# The errors of libiscsi, and of the second transport, when a connection is refused.
REFUSED = re.compile(r"Target portal: (\S+) LUN.*(?:Can not reconnect right now|refused)"
                     r"|connect to zephane://([^/ ]+)\S* code: -111\b")


@dataclasses.dataclass(frozen=True)
class Outcome:
    """The outcome of a backup. `lines` say what went wrong."""

    is_success: bool
    lines: tuple = ()


class Refused(Exception):
    """The agent has answered with an error status."""

    def __init__(self, answer):
        super().__init__(answer)
        self.answer = answer


def content_of(answer):
    if not answer.is_success:
        raise Refused(answer)
    return answer.content


def run_log(appliance, identifier):
    """The lines that the agent has logged since it generated the backup's ID. None if they can't be found, as
    when the log's level excludes the line with the ID."""
    lines = content_of(appliance.logs(lines=LOG_LINES, severity=INFO))["log"]
    lines = sorted(lines, key=lambda line: line["timestamp"]) # the log files come in any order
    begins = [number for number, line in enumerate(lines) if line["message"].startswith(RUN_BEGINS)]
    for number, end in zip(begins, [*begins[1:], len(lines)]):
        if lines[number]["message"] == RUN_BEGINS + identifier:
            return lines[number + 1:end]
    return None


def has_run_ended(lines):
    return any(line["message"].startswith(RUN_ENDS) for line in lines or ())


def first_error(lines):
    """The message of the first error, which has the reason; later errors are about the cleanup."""
    return next((line["message"] for line in lines or () if line["severity"] >= ERROR), None)


def reason_lines(appliance, identifier):
    """The reason why a backup failed, according to the log, as lines."""
    deadline = time.monotonic() + LOG_SECONDS
    while True:
        error = first_error(run_log(appliance, identifier))
        if error is not None or time.monotonic() >= deadline:
            break
        threading.Event().wait(POLL_SECONDS)
    if error is None:
        return ["the agent's log doesn't say why: lab/appliance logs"]
    refused = REFUSED.search(error)
    if refused is None:
        return [error]
    portal = refused[1] or refused[2]
    return [error, f"nobody listens at {portal}, most likely: see whether the target is up there, and "
                   "compare address and port"]


class UnchangedTimer:
    """Measures how long a status has been the same, apart from its elapsed time."""

    def __init__(self):
        self._last = None
        self._since = 0.0

    def seconds(self, status):
        relevant = {key: value for key, value in status.items() if key != "elapsedTime"}
        if relevant != self._last:
            self._last, self._since = relevant, time.monotonic()
        return time.monotonic() - self._since


def ending_of(appliance, identifier, status, quiet):
    """The reason to stop waiting, as lines; None if the backup goes on."""
    failed = [error for error in ERRORS if status[error]]
    if status["status"] != ACTIVE or failed: # a backup that never had a snapshot stays "active"
        return failed
    if quiet >= QUIET_SECONDS and has_run_ended(run_log(appliance, identifier)):
        return ['the run has ended, whatever its status says: it stays "active" until the agent is restarted']
    if quiet >= LIMIT_SECONDS:
        return [f"nothing has changed for {LIMIT_SECONDS // 60} minutes, and the log tells of no end; "
                f"watched no longer: lab/appliance cancel {identifier} ends the backup"]
    return None


def watch(appliance, identifier, progress):
    """Polls the status until the backup has ended. The polling also keeps the backup alive: the agent gives a
    backup up if nobody has asked for its status for three minutes."""
    unchanged = UnchangedTimer()
    while True:
        status = content_of(appliance.status(identifier))
        progress(status)
        ending = ending_of(appliance, identifier, status, unchanged.seconds(status))
        if ending is not None:
            break
        threading.Event().wait(POLL_SECONDS)
    if status["status"] == FINISHED:
        return Outcome(True, tuple(ending))
    return Outcome(False, (*ending, *reason_lines(appliance, identifier)))
