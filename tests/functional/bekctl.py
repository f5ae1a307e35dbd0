"""bekctl, as the tests call it."""
import json
import subprocess

from lab.daemon import program

SECONDS = 60
WELL, UNWELL, UNUSABLE = 0, 1, 2


def run_bekctl(*arguments, **options):
    """Runs bekctl to its end."""
    return subprocess.run([program("bekctl"), *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, check=False, timeout=SECONDS, **options)


def output_of(*arguments, status=WELL):
    """The output of a call for people."""
    done = run_bekctl(*arguments)
    assert (done.returncode, done.stderr) == (status, ""), done
    return done.stdout


def json_of(*arguments, status=WELL):
    """The output of a call for programs, parsed from JSON."""
    return json.loads(output_of(*arguments, "--json", status=status))
