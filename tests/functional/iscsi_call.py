"""The program IscsiCall, which contains only the transport to an iSCSI target, and its log."""
import json
import os
import select
import subprocess
import tempfile

from lab.daemon import program
from lab.services import wait_until

SECONDS = 60
ROUNDS = 5 # of retries
WARNING = 2
LONGEST_WRITE = 256 << 10 # one command
LONGEST_READ = 128 << 10 # likewise
OVERWRITE = "165" # freed memory is filled with it, so that a use after free shows
WRITE_FAILED = "Failed during iscsi write command."
READ_FAILED = "Failed during iscsi read command."
WRITE_AGAIN = "Write iscsi failed. Sleeping, reconnecting, and retrying. [fallback:target-retried]"
READ_AGAIN = "Read iscsi failed. Sleeping, reconnecting, and retrying. [fallback:target-retried]"


class Transport:
    """The program, with a transport to one image. Commands can be sent ahead; each gets one answer, in
    order."""

    def __init__(self, target, image, *, offset=0, user="", password="", name=None, portal=None, lun=None):
        self._errors = tempfile.TemporaryFile()
        self._process = subprocess.Popen(
            [program("IscsiCall"), name or target.name, portal or target.portal, str(lun or image.lun),
             str(offset), user, password],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._errors,
            env={**os.environ, "MALLOC_PERTURB_": OVERWRITE})
        self._received = b""

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        try:
            self._process.communicate(timeout=SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.communicate()
        self._errors.close()
        if exception[0] is None:
            assert self._process.returncode == 0

    def give(self, *words):
        self._process.stdin.write((" ".join(map(str, words)) + "\n").encode())
        self._process.stdin.flush()

    def has_answer(self, seconds):
        output = self._process.stdout.fileno()
        while b"\n" not in self._received:
            if not select.select([output], [], [], seconds)[0]:
                return False
            piece = os.read(output, 1 << 16)
            assert piece, self.log()
            self._received += piece
        return True

    def take(self):
        """The result of the oldest command without an answer so far; (-1, errno) if it has failed."""
        assert self.has_answer(SECONDS), self.log()
        line, _, self._received = self._received.partition(b"\n")
        answer = json.loads(line)
        return answer["result"] if answer["result"] >= 0 else (-1, answer["errno"])

    def do(self, *words):
        self.give(*words)
        return self.take()

    def write(self, path, offset=0, length=None):
        """Writes a part of a file; by default all of it."""
        return self.do("write", path, offset, os.path.getsize(path) if length is None else length)

    def read(self, length, directory):
        """Reads; returns the data received."""
        path = directory / "received"
        path.unlink(missing_ok=True)
        result = self.do("read", length, path)
        received = path.read_bytes() if path.exists() else b""
        assert result == len(received)
        return received

    def log(self):
        """The log lines so far, as pairs of level and text."""
        content = os.pread(self._errors.fileno(), os.fstat(self._errors.fileno()).st_size, 0).decode()
        return [(int(line[0]), line[2:]) for line in content.splitlines()]

    def logged_warnings(self):
        return [text for level, text in self.log() if level <= WARNING]

    def wait_for_warning(self, text, times=1):
        wait_until(lambda: self.logged_warnings().count(text) >= times, SECONDS, f"{times} times: {text}")
