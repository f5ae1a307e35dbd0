"""Backups of the real daemon while the network to the target is cut: briefly, for good, or for one connection
that a router has forgotten."""
import contextlib
import time

from fault_site import LITTLE, RETRYING
from lab.commands import run

PORT = 3260
GIVEN_UP_SECONDS = 60 # the time after which a connection, or a command, without an answer is given up


@contextlib.contextmanager
def cut(port, verdict):
    """Drops or rejects packets to a port."""
    run("nft", f"""add table inet cut
        add chain inet cut out {{ type filter hook output priority 0; }}
        add rule inet cut out tcp dport {port} {verdict}""")
    try:
        yield
    finally:
        run("nft", "delete table inet cut")


def end_connections(direction, port):
    """Resets connections at both ends, as a router can do."""
    run("ss", "--kill", "--tcp", "state", "established", f"( {direction} = :{port} )")


def own_port(daemon):
    """The local port of the daemon's connection to the target."""
    lines = run("ss", "--no-header", "--tcp", "--numeric", "--processes", "state", "established",
                f"( dport = :{PORT} )").splitlines()
    [line] = [line for line in lines if f"pid={daemon.pid}," in line]
    return int(line.split()[2].rpartition(":")[2])


def test_network_away_for_a_moment(one_volume, faults):
    """The backup only takes longer: lost packets are sent again."""
    site = one_volume
    for kind in ({"full": True}, {}, {"merge": True}):
        with site.in_copy(LITTLE, **kind) as (backup, hold):
            with cut(PORT, "drop"):
                hold.release()
                time.sleep(2) # the time without a network
                assert not backup.has_ended
            backup.wait()
        faults.note(f"network away for 2 s, {kind}", site.judge(backup))
        assert backup.state == "finished", backup.log
        assert RETRYING not in backup.log
        site.check_clean()
    site.assert_recovered()


def test_network_refuses(one_volume, faults):
    """The connection is reset, and new ones are rejected: the backup fails when the retries are used up."""
    site = one_volume
    with site.in_copy(LITTLE, full=True) as (backup, hold):
        with cut(PORT, "reject with tcp reset"):
            end_connections("dport", PORT)
            hold.release()
            backup.wait()
        end_connections("sport", PORT)
    faults.note("network refuses", site.judge(backup))
    assert backup.state == "failed", backup.log
    assert backup.status["connection_error"] is True
    assert backup.log.count(RETRYING) == 5
    site.assert_recovered()


def test_network_resets_the_connection(one_volume, faults):
    """A reset connection costs one second."""
    site = one_volume
    for kind in ({"full": True}, {}):
        with site.in_copy(LITTLE, **kind) as (backup, hold):
            end_connections("dport", PORT)
            hold.release()
            backup.wait()
        faults.note(f"connection reset, {kind}", site.judge(backup))
        assert backup.state == "finished", backup.log
        assert backup.log.count(RETRYING) == 1
        site.check_clean()
    site.assert_recovered()


def test_network_forgets_the_connection(one_volume, faults):
    """A connection without an answer is given up after a minute. A new one gets through."""
    site = one_volume
    with site.in_copy(LITTLE, full=True) as (backup, hold):
        forgotten = own_port(site.daemon)
        with cut(forgotten, "drop"):
            begin = time.monotonic()
            hold.release()
            backup.wait_for_log(RETRYING, 2 * GIVEN_UP_SECONDS)
            seconds = time.monotonic() - begin
            backup.wait()
        end_connections("dport", forgotten) # the target's end of the connection, which has nothing to send
    faults.note(f"connection forgotten for {seconds:.0f} s", site.judge(backup))
    assert backup.state == "finished", backup.log
    assert GIVEN_UP_SECONDS - 1 < seconds < GIVEN_UP_SECONDS + 10
    assert backup.log.count(RETRYING) == 1
    site.assert_recovered()
