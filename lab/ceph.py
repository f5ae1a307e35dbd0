"""A Ceph cluster for the lab: a monitor and a few OSDs, which stand for the machines that share the images.

    with CephCluster() as cluster:
        cluster.create_image("data", 1 << 30)
        with RbdExport(cluster, "data") as export:
            export.uri               # an NBD server on the image
        cluster.kill_osd(0)
        cluster.start_osd(0)

Every object is stored on all of the OSDs. An image can be read and written while more than half of the OSDs
are up: of three, one may be missing. With fewer, reads and writes wait until enough OSDs are back. Data
that an OSD has confirmed survives when the OSD is killed, in files that are removed with the cluster.

Inside lab/namespace only: there is no authentication, as nobody else can reach the namespace's loopback.
"""
import concurrent.futures
import contextlib
import json
import pathlib
import tempfile
import uuid

from lab.commands import run
from lab.resources import Resource
from lab.services import Service, ServiceError, wait_until

SECONDS = 60
ADDRESS = "127.0.0.1"
MONITOR = f"v2:{ADDRESS}:3300/0"
POOL = "images"
GROUPS = "8" # placement groups of objects
OSD_BYTES = 16 << 30 # sparse: takes no room until something is written

# An OSD that is killed is noticed after a few seconds, and the monitor's decisions take effect at once.
CONFIGURATION = """[global]
fsid = {fsid}
mon_host = {monitor}
public_addr = {address}
cluster_addr = {address}
auth_cluster_required = none
auth_service_required = none
auth_client_required = none
run_dir = {directory}
crash_dir = {directory}
admin_socket = {directory}/$name.$pid.asok
log_to_file = false
log_to_stderr = true
mon_cluster_log_to_file = false
mon_data = {directory}/mon.$id
paxos_propose_interval = 0.1
osd_data = {directory}/osd.$id
osd_objectstore = bluestore
bluestore_block_size = {osd_bytes}
osd_pool_default_size = {size}
osd_pool_default_min_size = {min_size}
osd_pool_default_pg_autoscale_mode = off
osd_crush_chooseleaf_type = 0
osd_heartbeat_interval = 1
osd_heartbeat_grace = 4
mon_osd_min_down_reporters = 1
"""


class KillableService(Service):
    """A process that can be killed in the middle of its work."""

    def kill(self):
        """Ends it at once, as if its machine had lost its power."""
        if self._process is None:
            return
        self._process.kill()
        self._process.wait(SECONDS)
        self._process = None
        self._log.close()

    def check_running(self):
        if self._process.poll() is not None:
            raise ServiceError(f"{self.command[0]} has ended with {self._process.returncode}; "
                               f"it printed:\n{self.output}")


class Member(KillableService):
    """A daemon of the cluster. It is ready when its admin socket answers; the other daemons may not know it
    by then. `stop` kills it, because its files are removed with the cluster anyway."""

    kind = None
    stop = KillableService.kill

    def __init__(self, cluster, number):
        super().__init__()
        self.cluster = cluster
        self.number = number
        self.data = cluster.directory / f"{self.kind}.{number}"

    @property
    def command(self):
        return (f"ceph-{self.kind}", "--conf", str(self.cluster.configuration), "--id", str(self.number),
                "--foreground")

    def make(self):
        """Makes the daemon's data, before its first start."""
        raise NotImplementedError

    def fill_data(self, *options):
        self.data.mkdir()
        run(*self.command[:-1], "--mkfs", *options)

    def is_ready(self):
        return self.socket.is_socket()

    @property
    def socket(self):
        """The admin socket of the daemon."""
        return self.cluster.directory / f"{self.kind}.{self.number}.{self.pid}.asok"


class Monitor(Member):
    kind = "mon"

    def make(self):
        members = self.cluster.directory / "monitors"
        run("monmaptool", "--create", "--fsid", self.cluster.fsid, "--addv", self.number, MONITOR, members)
        self.fill_data("--monmap", str(members))


class Osd(Member):
    kind = "osd"

    def make(self):
        name = str(uuid.uuid4())
        self.cluster.ceph("osd", "new", name, self.number)
        self.fill_data("--osd-uuid", name)

    def allocated(self):
        """Bytes of the OSD's disk that objects take up."""
        counters = json.loads(run("ceph", "--admin-daemon", self.socket, "perf", "dump", "bluestore"))
        return counters["bluestore"]["bluestore_allocated"]


class CephCluster(Resource):
    """One monitor, and OSDs that each store all objects."""

    def __init__(self, osds=3):
        super().__init__()
        self._count = osds
        self.fsid = str(uuid.uuid4())
        self.directory = None
        self.osds = []

    @property
    def configuration(self):
        return self.directory / "ceph.conf"

    def open(self, stack):
        self.directory = pathlib.Path(stack.enter_context(
            tempfile.TemporaryDirectory(prefix="ceph-", dir="/run")))
        self.configuration.write_text(CONFIGURATION.format(
            fsid=self.fsid, monitor=MONITOR, address=ADDRESS, directory=self.directory, osd_bytes=OSD_BYTES,
            size=self._count, min_size=self._count // 2 + 1), encoding="ascii")
        monitor = Monitor(self, "a")
        monitor.make()
        stack.enter_context(monitor)
        self.osds = [Osd(self, number) for number in range(self._count)]
        with concurrent.futures.ThreadPoolExecutor(self._count) as pool:
            list(pool.map(Osd.make, self.osds))
        for osd in self.osds:
            stack.enter_context(osd)
        self._await_up(*self.osds)
        self.ceph("osd", "pool", "create", POOL, GROUPS)

    def ceph(self, *words):
        """Runs a command of the monitor; returns its output."""
        return run("ceph", "--conf", self.configuration, "--connect-timeout", SECONDS, *words)

    def rbd(self, *words):
        return run("rbd", "--conf", self.configuration, "--pool", POOL, *words)

    def _await_up(self, *osds):
        def are_up():
            for osd in osds:
                osd.check_running()
            return self.up() >= {osd.number for osd in osds}
        wait_until(are_up, SECONDS, "the OSDs up")

    def up(self):
        """The numbers of the OSDs that the monitor considers up."""
        listed = json.loads(self.ceph("--format", "json", "osd", "dump"))["osds"]
        return {osd["osd"] for osd in listed if osd["up"]}

    def create_image(self, name, size):
        self.rbd("create", "--size", f"{size}B", name)

    def kill_osd(self, number):
        """Kills an OSD; returns when the monitor has noticed."""
        self.osds[number].kill()
        wait_until(lambda: number not in self.up(), SECONDS, "the OSD missed")

    def start_osd(self, number):
        """Starts an OSD that was killed, with the data that it had."""
        self.osds[number].start()
        self._await_up(self.osds[number])

    @contextlib.contextmanager
    def without(self, *numbers):
        """Kills these OSDs, and starts them again at the end of the context."""
        with contextlib.ExitStack() as back:
            for number in numbers:
                self.kill_osd(number)
                back.callback(self.start_osd, number)
            yield


class RbdExport(KillableService):
    """An NBD server for an image of a cluster, for any number of connections. Discarded blocks free their
    room, and a confirmed write is stored in the cluster. If the server is killed, the image stays locked for
    half a minute."""

    def __init__(self, cluster, name):
        super().__init__()
        self._socket = cluster.directory / f"{name}.nbd"
        self.command = ("qemu-nbd", "--persistent", "--shared=0", "--format=raw", "--cache=none",
                        "--discard=unmap", f"--socket={self._socket}",
                        f"rbd:{POOL}/{name}:conf={cluster.configuration}")

    @property
    def uri(self):
        return f"nbd+unix:///?socket={self._socket}"

    def is_ready(self):
        return self._socket.is_socket()
