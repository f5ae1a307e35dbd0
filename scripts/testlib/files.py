"""Runs test files, each by a pytest of its own, several at once; the longest ones start first."""

import concurrent.futures
import os
import subprocess
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PYTEST = ["/usr/bin/python3", "-m", "pytest", "-q", "-p", "no:cacheprovider"]
LIMIT_SECONDS = 1200


class Files:
    """The files of one folder, whose durations.txt says how long each of them takes. `wrapper` is the command
    that runs pytest; each file's report goes to `reports`."""

    success_statuses = (0,) # of pytest
    limit = LIMIT_SECONDS # per file

    def __init__(self, folder, reports, wrapper=(), environment=None):
        self.folder = folder
        self.reports = ROOT / reports
        self.wrapper = wrapper
        self.environment = environment or {}

    def arguments(self, path):
        """pytest's arguments for a file."""
        return [path]

    def run(self, path):
        """Returns the file, its exit status, its seconds and its output."""
        begin = time.monotonic()
        command = [*self.wrapper, *PYTEST, f"--junitxml={self.reports / path.stem}.xml",
                   *self.arguments(path)]
        try:
            done = subprocess.run(command, cwd=ROOT, env={**os.environ, **self.environment}, text=True,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  check=False, timeout=self.limit)
        except subprocess.TimeoutExpired as error:
            output = (error.stdout or b"").decode(errors="replace")
            return path, -1, time.monotonic() - begin, f"{output}\nnot done within {self.limit} s"
        return path, done.returncode, time.monotonic() - begin, done.stdout

    def run_all(self, paths, at_once):
        """Prints a line for each file that ends, and its output if it fails. Returns the results of run()."""
        self.reports.mkdir(parents=True, exist_ok=True)
        results = []
        for path, status, seconds, output in self._run_some_at_once(paths, at_once):
            results.append((path, status, seconds, output))
            if status not in self.success_statuses:
                print(f"--- {path.relative_to(ROOT)}: status {status}\n{output}")
            print(f"{len(results)}/{len(paths)} {path.name}: {seconds:.1f} s", flush=True)
        return results

    def status(self, results):
        """The exit status for what run_all() has returned."""
        return 0 if all(status in self.success_statuses for _, status, _, _ in results) else 1

    def remember(self, results):
        """Stores how long each file took, for the order of later runs."""
        durations = self._remembered() | {path.name: round(seconds) for path, _, seconds, _ in results}
        longest_first = sorted(durations.items(), key=lambda item: -item[1])
        lines = [f"{seconds:5} {name}\n" for name, seconds in longest_first if any(self.folder.rglob(name))]
        self._durations().write_text("".join(lines))

    def _run_some_at_once(self, paths, at_once):
        seconds = self._remembered()
        paths = sorted(paths, key=lambda path: -seconds.get(path.name, LIMIT_SECONDS))
        with concurrent.futures.ThreadPoolExecutor(at_once) as pool:
            for done in concurrent.futures.as_completed([pool.submit(self.run, path) for path in paths]):
                yield done.result()

    def _durations(self):
        return self.folder / "durations.txt"

    def _remembered(self):
        """The seconds of each file by its name; a file without an entry starts first."""
        lines = self._durations().read_text().splitlines() if self._durations().exists() else []
        return {name: int(seconds) for seconds, name in map(str.split, lines)}
