"""Measures what strangers cost the agent and its appliance: memory, descriptors, answers and time. Run it on
a release build:

    BEKD_BUILD=build/release lab/namespace /usr/bin/python3 -m bench.api.api_strangers

Each figure is printed with the bound that it must keep or, if there is none, with what the machine itself
needs for the same work.
"""
import contextlib
import json
import os
import resource
import time

from lab.agent_state import clean_agent_state
from lab.appliance_client import DEVICE
from lab.arguments import parser_of
from lab.daemon import CONFIG, Daemon, require_private_site
from lab.https_client import Client
from lab.load_clients import MIB, PeakMemory, descriptor_limits, idle_connections, send_body, stalled_request
from lab.usage import descriptors

OTHER = DEVICE + 1
POSTS = 100
FEW_POSTS = 3
KEYS = 4000
IDLE = 4000


def answered(client, count):
    """How many of `count` POSTs the agent has carried out."""
    good = 0
    for number in range(count):
        with contextlib.suppress(OSError): # no connection, or not within a minute
            answer = client.request("POST", "/config", b'{"log.lifetimeHours": %d}' % (number + 1))
            good += answer is not None and answer.status == 200
    return good


def show(what, figure, bound=""):
    print(f"  {what:62} {figure:>16}   {bound}", flush=True)


def show_heads(client, stranger):
    good = 0
    for _ in range(POSTS):
        with stalled_request(stranger):
            good += answered(client, 1)
    show("appliance's POSTs answered while a stranger holds a head open", f"{good} of {POSTS}", f"of {POSTS}")


def show_body(daemon, other):
    peak = PeakMemory(daemon.pid)
    answer = send_body(other, "/backup", 120 * MIB)
    show(f"memory for 120 MiB of an unpaired device (status {getattr(answer, 'status', 'none')})",
         f"{peak.kib / 1024:.1f} MiB", "16 KiB kept")


def show_broken_text(daemon, client):
    before = len(daemon.log)
    answer = client.request("POST", "/config", b'"' + b"x" * (100 * MIB))
    show("answer to a broken text of 100 MiB", f"{len(answer.body)} bytes", "16 KiB")
    show("log for it", f"{len(daemon.log) - before} bytes", "16 KiB a line")


def show_crowd(daemon, client):
    with idle_connections(client.address, IDLE):
        good = answered(client, FEW_POSTS)
        used, (soft, _) = descriptors(daemon.pid), descriptor_limits(daemon.pid)
    show(f"descriptors with {IDLE} idle connections", used, f"{soft} allowed")
    show("appliance's POSTs answered meanwhile", f"{good} of {FEW_POSTS}", f"of {FEW_POSTS}")
    show("failures of the log", daemon.errors.count("~~Logging Error~~"), "0")


def floor_of_config(content):
    """The seconds to write that file once, synced and renamed: the least that it can take."""
    begin = time.monotonic()
    path = CONFIG.with_suffix(".floor")
    with open(path, "wb") as file:
        file.write(content)
        file.flush()
        os.fsync(file.fileno())
    path.rename(path.with_suffix(".floor2"))
    taken = time.monotonic() - begin
    path.with_suffix(".floor2").unlink()
    return taken


def show_config(client):
    body = json.dumps({f"volumes.{number}.cowFileSizeMiB": number for number in range(KEYS)}).encode()
    begin = time.monotonic()
    status = client.request("POST", "/config", body).status
    taken = time.monotonic() - begin
    show(f"POST /config with {KEYS} keys (status {status})", f"{taken:.2f} s",
         f"{floor_of_config(CONFIG.read_bytes()):.3f} s to write the file once")


def main():
    parser_of(__doc__).parse_args()
    require_private_site()
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    with contextlib.ExitStack() as stack:
        authority = stack.enter_context(clean_agent_state(own_key_type="rsa"))
        client, other, stranger = (Client(authority.certificate, identity) for identity in
                                   (authority.device(DEVICE), authority.device(OTHER), None))
        daemon = Daemon(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (1024, hard)))
        stack.callback(daemon.discard)
        daemon.start().wait_until_ready()
        client.request("POST", "/pair", b'{"deviceID": %d}' % DEVICE)
        show_config(client)
        show_heads(client, stranger)
        show_body(daemon, other)
        show_broken_text(daemon, client)
        show_crowd(daemon, client)


if __name__ == "__main__":
    main()
