"""Lanes of steps that run side by side.

A lane is a list of chains, which run one after another. A chain is a list of steps, the first of which makes
what the others need: if it fails, they are left out.
"""

import threading
from pathlib import Path

REFRESH_SECONDS = 0.5


class Lanes:
    """Runs lanes, each in a thread of its own."""

    def __init__(self, root, logs, display):
        self.root = root
        self.logs = Path(logs)
        self.display = display
        self.stopping = threading.Event()

    def run(self, lanes):
        """Runs all lanes to their end. When interrupted, ends the running steps and starts no more."""
        threads = [threading.Thread(target=self._run_lane, args=(lane,)) for lane in lanes]
        for thread in threads:
            thread.start()
        try:
            for thread in threads:
                while thread.is_alive():
                    self.display.refresh()
                    thread.join(REFRESH_SECONDS)
        finally:
            self.stopping.set()
            for step in list(self.display.running):
                step.end()
            for thread in threads:
                thread.join()

    def _run_lane(self, chains):
        for first, *others in chains:
            if self._run_step(first):
                for step in others:
                    self._run_step(step)

    def _run_step(self, step):
        if self.stopping.is_set():
            return False
        step.start(self.root, self.logs / f"{step.name}.log".replace(" ", "-"))
        self.display.started(step)
        if self.stopping.is_set():
            step.end()
        is_well = step.wait()
        self.display.ended(step, is_well)
        return is_well
