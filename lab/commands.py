"""Running the machine's tools."""
import subprocess

SECONDS = 600


def run(*command, **options):
    """Runs a tool; returns its standard output. If it fails, raises an OSError with what it printed on
    standard error."""
    words = [str(word) for word in command]
    done = subprocess.run(words, capture_output=True, text=True, check=False, timeout=SECONDS, **options)
    if done.returncode != 0:
        raise OSError(f"{' '.join(words)}: {done.stderr.strip() or done.returncode}")
    return done.stdout.strip()
