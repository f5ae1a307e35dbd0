"""bekctl as the tests call it."""
import json
import subprocess

from lab.daemon import program

SECONDS = 60
WELL, UNWELL, UNUSABLE = 0, 1, 2


def run_bekctl(*arguments, **options):
    """One call, which has ended."""
    return subprocess.run([program("bekctl"), *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, check=False, timeout=SECONDS, **options)


def shown(*arguments, status=WELL):
    """What a call prints for people."""
    done = run_bekctl(*arguments)
    assert (done.returncode, done.stderr) == (status, ""), done
    return done.stdout


def told(*arguments, status=WELL):
    """What a call prints for programs."""
    return json.loads(shown(*arguments, "--json", status=status))
