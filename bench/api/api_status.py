"""Measures what polling the status of a backup costs, and what the idle daemon uses. Run it on a release
build:

    BEKD_BUILD=build/release lab/namespace /usr/bin/python3 -m bench.api.api_status

Two peers take part in the same run, with the same client and certificates, in turns with the daemon: Python's
own HTTPS server over one kept connection, and openssl's `s_server -www`, which closes each connection after
its answer, over fresh ones. Both check the client's certificate once per connection, while the daemon checks
it at each request. Handshakes are full ones, with RSA keys of 2048 bits, like those that the daemon makes.
"""
import contextlib
import http.server
import multiprocessing
import shutil
import signal
import socket
import ssl
import statistics
import subprocess
import tempfile
import threading
import time

from lab.appliance_client import DEVICE, PORT, Appliance, volume
from lab.arguments import parser_of
from lab.certificates import Authority, install
from lab.daemon import BASE, CERTIFICATES, Daemon, program, require_private_site
from lab.driver import hide_driver, show_driver
from lab.services import Service, wait_until
from lab.usage import usage

KEPT_PEER_PORT, FRESH_PEER_PORT = 25601, 25602
ROUNDS = 10
KEPT_REQUESTS = 10000
FRESH_REQUESTS = 1000
WARM_UP = 200
STARTS = 10
SECONDS = 60
ADDRESS = "127.0.0.1"


class Client:
    """A minimal client, so that the time measured is the server's."""

    def __init__(self, context, port, request):
        self._context = context
        self._port = port
        self._request = request
        self._socket = None

    def connect(self):
        plain = socket.create_connection((ADDRESS, self._port), SECONDS)
        plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._socket = self._context.wrap_socket(plain, server_hostname=ADDRESS)
        return self

    def close(self):
        self._socket.close()

    def ask(self):
        """Sends one request; returns the answer's body, which ends by its length or with the connection."""
        self._socket.sendall(self._request)
        data = b""
        while b"\r\n\r\n" not in data:
            data += self._received()
        head, _, body = data.partition(b"\r\n\r\n")
        status_line, *headers = head.lower().split(b"\r\n")
        if b" 200 " not in status_line + b" ":
            raise RuntimeError(f"not 200: {data!r}")
        lengths = [int(line.split(b":")[1]) for line in headers if line.startswith(b"content-length:")]
        while not lengths or len(body) < lengths[0]:
            piece = self._socket.recv(65536)
            if not piece:
                break
            body += piece
        return body

    def ask_freshly(self):
        self.connect()
        try:
            return self.ask()
        finally:
            self.close()

    def _received(self):
        piece = self._socket.recv(65536)
        if not piece:
            raise RuntimeError("no answer")
        return piece


class KeptPeer:
    """Python's HTTPS server in a process of its own, with the same answer to everything."""

    def __init__(self, context, body):
        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"
            disable_nagle_algorithm = True
            wbufsize = -1 # sends head and body together, as the daemon does

            def do_GET(self):
                self.send_response(200)
                self.send_header("Content-Type", "application/json")
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *_arguments):
                """Logs nothing."""

        self._server = http.server.ThreadingHTTPServer((ADDRESS, KEPT_PEER_PORT), Handler)
        self._server.socket = context.wrap_socket(self._server.socket, server_side=True)
        self._process = multiprocessing.Process(target=self._server.serve_forever)

    def __enter__(self):
        self._process.start()
        self._server.server_close()
        return self

    def __exit__(self, *_exception):
        self._process.terminate()
        self._process.join(SECONDS)


class FreshPeer(Service):
    """openssl's test server, which answers with its own page."""

    def __init__(self, agent, authority):
        super().__init__()
        self.command = ("openssl", "s_server", "-quiet", "-www", "-4", "-accept", str(FRESH_PEER_PORT),
                        "-cert", str(agent.certificate), "-key", str(agent.key),
                        "-CAfile", str(authority.certificate), "-Verify", "1")

    def is_ready(self):
        with contextlib.suppress(ConnectionRefusedError):
            socket.create_connection((ADDRESS, FRESH_PEER_PORT), SECONDS).close()
            return True
        return False


def time_each(action, times):
    """The seconds of each of `times` runs of the action."""
    taken = []
    for _ in range(times):
        begin = time.perf_counter()
        action()
        taken.append(time.perf_counter() - begin)
    return taken


def race(requests, *actions):
    """Times the actions in turns; returns a list of seconds for each."""
    taken = [[] for _ in actions]
    for action in actions:
        time_each(action, WARM_UP)
    for _ in range(ROUNDS):
        for action, seconds in zip(actions, taken):
            seconds += time_each(action, requests // ROUNDS)
    return taken


def print_race(name, agent, peer_name, peer):
    rows = [(who, len(taken) / sum(taken), *(statistics.quantiles(taken, n=100)[part] * 1000
                                             for part in (49, 98)))
            for who, taken in (("bekd", agent), (peer_name, peer))]
    print(f"\n{name:50} per second   p50 ms   p99 ms")
    for who, rate, median, worst in rows:
        print(f"  {who:48} {rate:10.0f} {median:8.2f} {worst:8.2f}")
    ratios = [rows[0][1] / rows[1][1], rows[0][2] / rows[1][2], rows[0][3] / rows[1][3]]
    print(f"  {'ratio, bekd to peer':48} {ratios[0]:10.2f} {ratios[1]:8.2f} {ratios[2]:8.2f}")


def start_once(install_client):
    """The seconds from the start of the process to its first answer, and its resident memory then."""
    pause = threading.Event()
    begin = time.perf_counter()
    process = subprocess.Popen([program(), "-d"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    try:
        while True:
            try:
                install_client.ask_freshly()
                break
            except ConnectionRefusedError:
                if process.poll() is not None or time.perf_counter() - begin > SECONDS:
                    raise
                pause.wait(0.001)
        return time.perf_counter() - begin, usage(process.pid).rss_kib
    finally:
        process.send_signal(signal.SIGTERM)
        process.wait(SECONDS)


def print_starts(context):
    client = Client(context, PORT, request_for("/v2/install"))
    seconds, kib = zip(*(start_once(client) for _ in range(STARTS)))
    print(f"\n{STARTS} starts, the median: first answer after {statistics.median(seconds) * 1000:.0f} ms, "
          f"{statistics.median(kib) / 1024:.1f} MiB resident")


def request_for(url):
    return f"GET {url} HTTP/1.1\r\nHost: agent\r\n\r\n".encode("ascii")


def ended_backup(device, authority):
    """Pairs, and runs a backup that fails because its volume is missing; returns the URL of its status."""
    with Appliance(certificate=device.certificate, key=device.key,
                   authority=authority.certificate) as appliance:
        appliance.pair(DEVICE)
        wanted = volume("no-such-volume", target="127.0.0.1:3260", name="iqn.2026-01.example:images", lun=1)
        url = "/backup/" + appliance.backup([wanted]).content
        wait_until(lambda: appliance.get(url).content["status"] != "active", SECONDS, "end of the backup")
    return url


def race_status(daemon, context, server_context, agent, device, authority):
    request = request_for(ended_backup(device, authority))
    polled = Client(context, PORT, request)
    body = polled.ask_freshly()
    with contextlib.ExitStack() as stack:
        stack.enter_context(KeptPeer(server_context, body))
        stack.enter_context(FreshPeer(agent, authority))
        kept = [stack.enter_context(contextlib.closing(Client(context, port, request).connect()))
                for port in (PORT, KEPT_PEER_PORT)]
        time_each(kept[0].ask, WARM_UP)
        before = usage(daemon.pid)
        taken = race(KEPT_REQUESTS, *(client.ask for client in kept))
        after_kept = usage(daemon.pid)
        print_race("status over one kept connection", taken[0], "Python's https server", taken[1])
        fresh = [polled, Client(context, FRESH_PEER_PORT, request)]
        taken = race(FRESH_REQUESTS, *(client.ask_freshly for client in fresh))
        print_race("status over fresh connections", taken[0], "openssl s_server -www", taken[1])
    idle = before.descriptors - 1 # without the kept connection
    wait_until(lambda: usage(daemon.pid).descriptors <= idle, SECONDS, f"down to {idle} descriptors")
    print_usage(before, after_kept, usage(daemon.pid))


def print_usage(before, after_kept, after_all):
    print(f"\n{'the daemon':50} resident KiB   descriptors")
    for name, used in (("before the races, one connection", before),
                       (f"after {KEPT_REQUESTS + WARM_UP} polls on that connection", after_kept),
                       (f"after {FRESH_REQUESTS + WARM_UP} more, each on a fresh one; none left", after_all)):
        print(f"  {name:48} {used.rss_kib:12} {used.descriptors:13}")


def main():
    parser_of(__doc__).parse_args()
    require_private_site()
    shutil.rmtree(BASE, ignore_errors=True)
    with contextlib.ExitStack() as stack:
        stack.callback(hide_driver)
        show_driver()
        authority = Authority(stack.enter_context(tempfile.TemporaryDirectory()), key_type="rsa")
        agent, device = authority.agent(), authority.device(DEVICE)
        install(agent, authority, CERTIFICATES)
        context = ssl.create_default_context(cafile=authority.certificate)
        context.load_cert_chain(device.certificate, device.key)
        server_context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH, cafile=authority.certificate)
        server_context.load_cert_chain(agent.certificate, agent.key)
        server_context.verify_mode = ssl.CERT_REQUIRED
        print_starts(context)
        daemon = stack.enter_context(Daemon(foreground=False))
        daemon.wait_until_ready()
        race_status(daemon, context, server_context, agent, device, authority)


if __name__ == "__main__":
    main()
