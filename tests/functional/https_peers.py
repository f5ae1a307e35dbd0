"""For the tests of the server and of the API: other clients than the lab's, and the state of the serving
process."""
import contextlib
import socket
import subprocess

from lab.appliance_client import PORT
from lab.services import wait_until
from lab.usage import usage

SECONDS = 60
NOISE = (b"GET / HTTP/1.1\r\n\r\n", bytes(range(256)) * 64, b"\x16\x03\x01\xff\xff", b"")


def wait_until_idle(pid, idle):
    """Waits until the process uses no more than when idle; returns its usage then."""
    wait_until(lambda: usage(pid).descriptors <= idle.descriptors and usage(pid).threads <= idle.threads,
               SECONDS, f"down to {idle}, still {usage(pid)}")
    return usage(pid)


def handshake(identity, priority):
    """Whether GnuTLS's own client completes a handshake with these priorities."""
    done = subprocess.run(
        ["gnutls-cli", "--no-ca-verification", f"--priority={priority}", f"--port={PORT}",
         f"--x509certfile={identity.certificate}", f"--x509keyfile={identity.key}", "127.0.0.1"],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, timeout=SECONDS)
    assert f"Connecting to '127.0.0.1:{PORT}'" in done.stdout
    return "Handshake was completed" in done.stdout


def send_plain(address, noise):
    """Sends data that isn't TLS, and waits for the end of the connection."""
    with socket.create_connection(address, SECONDS) as plain:
        with contextlib.suppress(OSError): # the server may have closed before it has read everything
            plain.sendall(noise)
            plain.shutdown(socket.SHUT_WR)
        with contextlib.suppress(ConnectionError):
            while plain.recv(4096):
                pass
