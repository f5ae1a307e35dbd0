"""Measures the description of the host, by the number of volumes. Run it on a release build:

    BEKD_BUILD=build/release lab/namespace /usr/bin/python3 -m bench.api.api_host

The peer, which takes turns with the daemon, is `busctl`, to which udisks2 sends all of its objects once: the
least that shows which volumes there are. It opens no devices and uses no TLS, but is a new process each time.
"""
import contextlib
import statistics
import subprocess
import time

from lab.agent_state import appliance_of, clean_agent_state
from lab.appliance_client import DEVICE
from lab.arguments import parser_of
from lab.daemon import Daemon, require_private_site
from lab.site import Site
from lab.volumes import Volume

COUNTS = (4, 40)
WARM_UP = 5
ROUNDS = 100
PEER = ("busctl", "--system", "call", "org.freedesktop.UDisks2", "/org/freedesktop/UDisks2",
        "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")


def ask_peer():
    subprocess.run(PEER, check=True, stdout=subprocess.DEVNULL)


def seconds_of(action):
    begin = time.perf_counter()
    action()
    return time.perf_counter() - begin


def race(*actions):
    """The median seconds of each action; the actions take turns."""
    rounds = [[seconds_of(action) for action in actions] for _ in range(WARM_UP + ROUNDS)]
    return [statistics.median(taken) for taken in zip(*rounds[WARM_UP:])]


def race_host(appliance, count):
    volumes = [Volume(f"v{number}", "ext4", 8) for number in range(count)]
    with Site(volumes) as site:
        described = {volume["guid"] for volume in appliance.host().content["volumes"]}
        assert {partition.uuid for partition in site.disk} <= described
        host, peer = race(appliance.host, ask_peer)
    print(f"{len(described):8} {host * 1000:12.1f} {peer * 1000:12.1f} {host / peer:12.2f}", flush=True)


def main():
    parser_of(__doc__).parse_args()
    require_private_site()
    with contextlib.ExitStack() as stack:
        authority = stack.enter_context(clean_agent_state(key_type="rsa"))
        stack.enter_context(Daemon(foreground=False)).wait_until_ready()
        appliance = stack.enter_context(appliance_of(authority))
        assert appliance.pair(DEVICE).status == 200
        print(f"{'volumes':>8} {'GET /host ms':>12} {'busctl ms':>12} {'ratio':>12}", flush=True)
        for count in COUNTS:
            race_host(appliance, count)


if __name__ == "__main__":
    main()
