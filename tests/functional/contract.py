"""Runs the test suite that all transports share, on a transport to a real server, which the program finds by
environment variables."""
import json
import os
import subprocess

from lab.daemon import program

IMAGE_BYTES = 64 << 10
SECONDS = 60


def assert_keeps_contract(name, directory, **settings):
    """Runs the program of that name with `settings` in its environment; it writes its report in
    `directory`."""
    report = directory / "report.json"
    done = subprocess.run([program(name), "--gtest_brief=1", f"--gtest_output=json:{report}"],
                          env={**os.environ, **{key: str(value) for key, value in settings.items()}},
                          capture_output=True, text=True, timeout=SECONDS, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    found = json.loads(report.read_text())
    assert (found["tests"], found["failures"], found["disabled"]) == (found["tests"], 0, 0)
    assert found["tests"] > 10
