"""How scripts/test runs its steps in parallel, counts tests and shows its progress."""

import io
import os
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))

from testlib.display import Display  # noqa: E402
from testlib.lanes import Lanes  # noqa: E402
from testlib.step import Step  # noqa: E402

SECONDS = 20
REPORT = '<testsuites><testsuite><testcase name="a"/><testcase name="b"/>{}</testsuite></testsuites>'
FAILED = '<testcase name="c"><failure/></testcase>'
AWAIT = f"timeout {SECONDS} sh -c 'until [ -e {{}} ]; do sleep 0.05; done'"
# Run as a program: one step that never ends, and one after it.
ENDLESS = """\
import signal, sys
sys.path.insert(0, sys.argv[1])
from testlib.display import Display
from testlib.lanes import Lanes
from testlib.step import Step
signal.signal(signal.SIGTERM, lambda *_: sys.exit(7))
steps = [Step("wait", ["sh", "-c", "sleep 987654 & echo $! >child; wait"]), Step("next", ["touch", "next"])]
Lanes(".", ".", Display(2)).run([[[step] for step in steps]])
"""


class Terminal(io.StringIO):
    def isatty(self):
        return True


@pytest.fixture
def run(tmp_path):
    """run(LANE...) returns whether all steps succeeded, and the output."""
    def run_lanes(*lanes, output=None, **options):
        output = output or io.StringIO()
        display = Display(sum(len(chain) for lane in lanes for chain in lane), output, **options)
        Lanes(tmp_path, tmp_path, display).run(lanes)
        is_well = display.finish()
        return is_well, re.sub(r"\b\d+ s\b", "0 s", output.getvalue())
    return run_lanes


def shell(name, script, **options):
    return Step(name, ["sh", "-c", script], **options)


def test_a_good_step_is_one_line(run):
    assert run([[shell("one", "echo noise")]]) == (
        True, "one begins\none: 0 s, 0 s of the processors\nall: 1 of 1 steps in 0 s\n0 passed, 0 failed\n")


def test_a_failing_step_shows_its_output_and_counts(run):
    assert run([[shell("one", "echo noise; exit 3")]]) == (
        False, "one begins\nnoise\none: FAILED after 0 s, 0 s of the processors\n    0 passed, 1 failed\n"
               "all: 1 of 1 steps in 0 s\n0 passed, 1 failed\n")


@pytest.mark.parametrize("more, status, passed, failed", [("", 0, 2, 0), (FAILED, 1, 2, 1), ("", 139, 2, 1)])
def test_reports_are_counted_and_a_crash_is_a_failure(run, tmp_path, more, status, passed, failed):
    script = f"mkdir reports && echo '{REPORT.format(more)}' >reports/a.xml; exit {status}"
    is_well, output = run([[shell("tests", script, reports=tmp_path / "reports")]])
    assert is_well == (failed == 0)
    assert output.endswith(f"    {passed} passed, {failed} failed\nall: 1 of 1 steps in 0 s\n"
                           f"{passed} passed, {failed} failed\n")


def test_reports_of_an_earlier_run_do_not_count(run, tmp_path):
    (tmp_path / "reports").mkdir()
    (tmp_path / "reports/old.xml").write_text(REPORT.format(FAILED))
    assert run([[shell("tests", "true", reports=tmp_path / "reports")]])[0]


def test_what_needs_a_failed_step_is_left_out_and_nothing_else(run, tmp_path):
    chains = [[shell("build", "false"), shell("tests", "touch tests")], [shell("other", "touch other")]]
    assert not run(chains)[0]
    assert not (tmp_path / "tests").exists()
    assert (tmp_path / "other").exists()


def test_a_failed_test_keeps_no_other_from_running(run, tmp_path):
    chain = [shell("build", "true"), shell("one", "false", is_test=True), shell("two", "true", is_test=True)]
    is_well, output = run([chain])
    assert (is_well, output.splitlines()[-1]) == (False, "1 passed, 1 failed")


def test_what_a_step_computes_is_counted_with_its_children(tmp_path):
    busy = "import time\nwhile time.process_time() < 1.1: pass"
    step = shell("one", f"/usr/bin/python3 -c '{busy}'; true")
    step.start(tmp_path, tmp_path / "log")
    assert step.wait()
    assert step.cpu_seconds >= 1


def test_lanes_run_side_by_side(run):
    lanes = [[[shell("one", f"touch one; {AWAIT.format('two')}")]],
             [[shell("two", f"{AWAIT.format('one')} && touch two")]]]
    assert run(*lanes)[0]


def test_steps_are_as_nice_as_they_should_be(run):
    expected = min(os.nice(0) + 7, 19)
    assert f"nice: {expected}\n" in run([[shell("one", "echo nice: $(nice); exit 1", nice=7)]])[1]


def test_what_is_to_be_shown_is_shown_of_a_good_step(run):
    step = shell("fuzz", "echo noise; echo units: 12", shown="units", is_test=True)
    assert run([[step]])[1] == ("fuzz begins\nunits: 12\nfuzz: 0 s, 0 s of the processors\n"
                                "    1 passed, 0 failed\nall: 1 of 1 steps in 0 s\n1 passed, 0 failed\n")


def test_elsewhere_a_line_now_and_then_says_what_runs_and_how_far_it_is(run):
    step = shell("build", f"echo '[3/70] one'; {AWAIT.format('go')}")
    after = shell("go", "sleep 2; touch go")
    output = run([[step]], [[after]], heartbeat=0.7)[1]
    lines = re.findall(r"^0 of 2 steps, 0 s: .*build 0 s \(3/70\).*$", output, re.MULTILINE)
    assert lines, output
    assert "build begins\n" in output and "go begins\n" in output


def test_the_end_says_what_was_run(run):
    chain = [shell("build", "false"), shell("tests", "true")]
    assert run([chain], what="unit, lint")[1].splitlines()[-2:] == [
        "unit, lint: 1 of 2 steps in 0 s", "0 passed, 1 failed"]


def test_a_person_sees_what_runs_and_how_far_it_is(run):
    step = shell("build", f"echo '[3/70] one'; {AWAIT.format('go')}")
    after = shell("go", "sleep 1; touch go")
    output = run([[step]], [[after]], output=Terminal())[1]
    assert re.search(r"\r\x1b\[K0 of 2 steps, 0 s: [^\r]*build 0 s \(3/70\)", output)
    assert re.search(r"\r\x1b\[Kbuild: 0 s, 0 s of the processors\n", output)
    assert output.endswith("\r\x1b[Kall: 2 of 2 steps in 0 s\n0 passed, 0 failed\n")
    assert "begins" not in output


def test_a_run_that_is_ended_leaves_nothing_running(tmp_path):
    with subprocess.Popen([sys.executable, "-c", ENDLESS, ROOT / "scripts"], cwd=tmp_path,
                          stdout=subprocess.PIPE, text=True) as process:
        child = tmp_path / "child"
        deadline = time.monotonic() + SECONDS
        while not (child.exists() and child.read_text().endswith("\n")):
            assert time.monotonic() < deadline
            time.sleep(0.05)
        process.send_signal(signal.SIGTERM)
        assert process.wait(SECONDS) == 7
    assert not is_running(int(child.read_text()), deadline)
    assert not (tmp_path / "next").exists()


def is_running(number, deadline):
    """Whether a process still runs at the deadline; the machine's first process may take a while to reap
    it."""
    while time.monotonic() < deadline:
        try:
            os.kill(number, 0)
        except ProcessLookupError:
            return False
        if Path(f"/proc/{number}/stat").read_text().split()[2] == "Z":
            return False
        time.sleep(0.05)
    return True
