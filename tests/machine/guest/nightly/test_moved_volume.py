"""A volume that is moved elsewhere while the driver works: its old place isn't touched."""
import contextlib
import subprocess

from dm_site import COW_MEBIBYTES, SECONDS, Protected, logical_volumes
from lab.commands import run
from lab.daemon import program
from lab.services import wait_until
from tolvubd_site import Volume
from verbs import remove_volumes

MEBIBYTES = 64
STOPPED_MICROSECONDS = 300_000_000
PIECE = 1 << 20


@contextlib.contextmanager
def stopped_at_reserving(volume):
    """Takes the next snapshot, whose call is held when it reserves its CoW file, after all checks have
    passed. At the end it continues, and its result is in the list."""
    result = []
    words = ["strace", "-o", "/dev/null", "-e", "trace=fallocate",
             "-e", f"inject=fallocate:delay_enter={STOPPED_MICROSECONDS}",
             program("TolvubdCall"), "transition_snapshot", "0", volume.other_cow, str(COW_MEBIBYTES)]
    with subprocess.Popen(words, stdout=subprocess.PIPE, text=True) as tracer:
        wait_until(lambda: list(volume.mount_point.glob(".tolvu1*")), SECONDS, "the CoW file")
        try:
            yield result
        finally:
            tracer.kill() # which also releases the call
        result.extend(map(int, tracer.stdout.read().split()))


def test_blocks_of_others_are_not_written(group):
    first, last = group.physical[0], group.physical[-1]
    with contextlib.ExitStack() as stack:
        stack.callback(remove_volumes, group)
        volume = stack.enter_context(Volume("data", "ext4", MEBIBYTES * 2048, logical_volumes(group, first)))
        protected = stack.enter_context(Protected(volume))
        protected.track()
        with stopped_at_reserving(volume) as result:
            run("pvmove", "-i", "1", first, last)
            other = group.create("other", MEBIBYTES, first)
            other.write_bytes(b"x" * PIECE * MEBIBYTES)
            run("sync", other)
        assert result[0] == -1
        run("blockdev", "--flushbufs", other)
        is_left_alone = other.read_bytes() == b"x" * PIECE * MEBIBYTES
        assert is_left_alone
        assert protected.next_record() == "everything told"
        protected.end()
