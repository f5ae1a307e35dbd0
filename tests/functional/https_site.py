"""For the tests of the HTTPS server: the program that runs it, and its certificates."""
import collections
import json
import os
import subprocess
import tempfile

from https_peers import wait_until_idle
from lab import certificates
from lab.appliance_client import DEVICE
from lab.daemon import CERTIFICATES, program
from lab.services import wait_until
from lab.usage import usage

PROGRAM = program("HttpsEcho")
SECONDS = 60
MIB = 1 << 20


class EchoServer:
    """The program; its output is kept."""

    def __enter__(self):
        self._log = tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            [PROGRAM, *(CERTIFICATES / name for name in ("server.key", "server.pem", "ca.crt"))],
            stdin=subprocess.PIPE, stdout=self._log, stderr=subprocess.STDOUT, text=True)
        self.wait_for("3 HTTP server started")
        return self

    @property
    def lines(self):
        return os.pread(self._log.fileno(), 64 * MIB, 0).decode(errors="replace").splitlines()

    def wait_for(self, line, times=1):
        wait_until(lambda: self.lines.count(line) >= times, SECONDS, f"{line!r} in {self.lines[-20:]}")

    def release(self):
        """Lets one request to /wait go."""
        self.process.stdin.write("\n")
        self.process.stdin.flush()

    def usage(self):
        return usage(self.process.pid)

    def wait_until_idle(self, idle):
        return wait_until_idle(self.process.pid, idle)

    def __exit__(self, *exception):
        self.process.stdin.close()
        try:
            status = self.process.wait(SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise
        if exception[0] is None:
            assert status == 0, self.lines[-50:]
            assert self.lines[-1] == "4 HTTP server destroyed"
        self._log.close()


Site = collections.namedtuple("Site", "authority device directory")


def make_site(directory):
    """The agent's certificates in their usual place, and an appliance."""
    authority = certificates.Authority(directory, own_key_type="rsa")
    certificates.install(authority.agent(), authority, CERTIFICATES)
    return Site(authority, authority.device(DEVICE), directory)


def check_echo(answer, **expected):
    """Checks that the answer echoes a request with these properties; returns the echo."""
    assert answer is not None
    assert (answer.status, answer.content_type) == (200, "application/json")
    echo = json.loads(answer.body)
    assert {name: echo[name] for name in expected} == expected
    return echo


def check_serves(client):
    """Checks that the server still works."""
    check_echo(client.request("GET", "/host?a=1"), deviceId=DEVICE, ip="127.0.0.1", method="GET", url="/host",
               args={"a": "1"}, body="")
    check_echo(client.request("POST", "/pair", b"whole"), body="whole")
