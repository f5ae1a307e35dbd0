"""A clean site for each test.

The tests run inside lab/namespace and share its private /etc, /run and /dev, so whatever a test leaves there
must be removed before the next one.
"""
import contextlib
import functools
import os
import pathlib
import shutil
import sqlite3
import subprocess
import sys
import tempfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT), str(ROOT / "tests")]
pytest.register_assert_rewrite("backup_site", "fault_site", "https_site", "iscsi_call", "snapshot_site",
                                 "tolvubd_checks", "tolvubd_site", "used_maps", "zephane_scene")

from backup_site import EXT4, XFS, empty, root_of  # noqa: E402
from fault_site import DATA, FaultList, fault_site  # noqa: E402
from lab import certificates, certservice  # noqa: E402
from lab.agent_state import appliance_of  # noqa: E402
from lab.appliance_client import DEVICE  # noqa: E402
from lab.backups import Protection  # noqa: E402
from lab.daemon import CERTIFICATES, DATABASE, PID_FILE, Daemon, program, require_private_site  # noqa: E402
from lab.driver import forget_devices, hide_driver, show_driver  # noqa: E402
from lab.https_client import Client  # noqa: E402
from lab.lvm import VolumeGroup  # noqa: E402
from lab.site import Site  # noqa: E402
from lab.system_log import SystemLog  # noqa: E402
from lab.targets import Target  # noqa: E402
from tolvubd_checks import small  # noqa: E402
from tolvubd_site import (PLACES, LogicalVolumes, Partitions, Volume, started_driver,  # noqa: E402
                          tolvuctl)
from zephane_scene import Scene  # noqa: E402


def pytest_generate_tests(metafunc):
    """Runs each test of a volume on each kind of place that this machine has, or only on the one the test
    needs."""
    if "place" in metafunc.fixturenames:
        only = metafunc.definition.get_closest_marker("captures")
        metafunc.parametrize("place", PLACES[:1] if only else PLACES, indirect=True)


@pytest.fixture(scope="session", autouse=True)
def private_machine():
    require_private_site()
    assert os.access(program(), os.X_OK), f"there is no {program()}; build it first"


@pytest.fixture(scope="session")
def site_authority(private_machine, tmp_path_factory):
    """The authority of the agent and of its appliances."""
    return certificates.Authority(tmp_path_factory.mktemp("authority"), own_key_type="rsa")


@pytest.fixture(scope="session")
def site_agent(site_authority):
    return site_authority.agent()


@pytest.fixture(scope="session")
def site_device(site_authority):
    """site_device(NUMBER) is the identity of an appliance, always the same for a number."""
    return functools.cache(site_authority.device)


@pytest.fixture(scope="module")
def service_authority(tmp_path_factory):
    """An authority that this machine trusts for servers."""
    made = certificates.Authority(tmp_path_factory.mktemp("service-authority"))
    certservice.trust(made)
    return made


@pytest.fixture(scope="module")
def service_identity(service_authority):
    """The certificate of the certificate service."""
    host = certservice.HOST
    return service_authority.issue(host, more=("tls_www_server", "signing_key", f'dns_name = "{host}"'))


def pytest_configure(config):
    config.addinivalue_line("markers", "bare_site: the agent has no certificates at first")
    config.addinivalue_line("markers", "captures: of volumes that the driver captures")


@pytest.fixture(autouse=True)
def site(request, private_machine):
    """An agent's machine without any trace of the agent, except its certificates."""
    shutil.rmtree("/etc/tolvu", ignore_errors=True)
    PID_FILE.unlink(missing_ok=True)
    assert not pathlib.Path("/etc/tolvu").exists()
    if request.node.get_closest_marker("bare_site") is None:
        certificates.install(request.getfixturevalue("site_agent"),
                             request.getfixturevalue("site_authority"), CERTIFICATES)


@pytest.fixture
def directory():
    """A directory for images, which are in memory: pytest would keep its own directories until the last
    test."""
    with tempfile.TemporaryDirectory() as path:
        yield pathlib.Path(path)


@pytest.fixture
def connect_appliance(site_authority, site_device):
    """connect_appliance(NUMBER) is a client with that device's certificate."""
    with contextlib.ExitStack() as clients:
        def connect(number=DEVICE):
            return clients.enter_context(appliance_of(site_authority, site_device(number)))
        yield connect


@pytest.fixture
def agent(foreground):
    """A daemon whose standard output shows what it does, including each request."""
    return foreground()


@pytest.fixture
def client(agent, site_authority, site_device):
    """A client with the paired device's certificate, which makes a connection for each request."""
    paired = Client(site_authority.certificate, site_device(DEVICE))
    assert paired.request("POST", "/pair", b'{"deviceID": %d}' % DEVICE).status == 200
    return paired


@pytest.fixture
def appliance(agent, connect_appliance):
    """The appliance that `agent` is paired with."""
    client = connect_appliance()
    assert client.pair(DEVICE).status == 200
    return client


@pytest.fixture
def punching(appliance):
    """Makes the agent punch holes where a volume is free."""
    assert appliance.set_config({"holepunch.enabled": True}).is_success


@pytest.fixture
def driver():
    """A machine on which the snapshot driver is visible."""
    show_driver()


@pytest.fixture(scope="module")
def group():
    """The machine's volume group."""
    with VolumeGroup() as made:
        yield made


@pytest.fixture
def place(request):
    """The place where Volume of tolvubd_site makes its device."""
    return Partitions() if request.param == "partition" else LogicalVolumes(request.getfixturevalue("group"))


@pytest.fixture
def fresh_driver(site):
    """A driver without devices; after the test nothing of it may be left outside the volume."""
    with started_driver():
        yield
        forget_devices()
        assert tolvuctl("cleanup").returncode == 0


@pytest.fixture
def make_volume(fresh_driver, place):
    """make_volume(FILE SYSTEM, SECTORS, NAME) makes and mounts a small volume for the driver."""
    with contextlib.ExitStack() as stack:
        def make(filesystem="ext4", sectors=None, name="volume"):
            sectors = max(sectors or small(filesystem), place.smallest_sectors)
            volume = stack.enter_context(Volume(name, filesystem, sectors, place))
            stack.callback(forget_devices)
            return volume
        yield make


@pytest.fixture(scope="module")
def lab_site(private_machine):
    """The services that the agent uses for volumes, and the volumes of a lab site."""
    with Site() as running:
        yield running


@pytest.fixture(scope="module")
def volume_site(request, private_machine):
    """A lab site with the module's `VOLUMES`, or with an ext4 and an XFS volume."""
    with Site(getattr(request.module, "VOLUMES", (EXT4, XFS))) as running:
        yield running


@pytest.fixture
def volumes(volume_site, agent):
    """The volumes by name. After the test they are emptied, and the driver forgets all of them."""
    yield {partition.name: partition for partition in volume_site.disk}
    forget_devices()
    for partition in volume_site.disk:
        if partition.volume.mount_point:
            empty(root_of(partition))


def server_of(request):
    """The class of the module's image server."""
    return getattr(request.module, "SERVER", Target)


@pytest.fixture
def target(request):
    """The image server: the one that the test names, the module's `SERVER`, or an iSCSI target."""
    with getattr(request, "param", server_of(request))() as running:
        yield running


@pytest.fixture
def protect(volumes, target, agent, appliance):
    """protect(NAME..., OPTIONS) makes images on the target for these volumes, or for all mounted ones."""
    def make(*names, **options):
        chosen = names or [name for name, partition in volumes.items() if partition.volume.mount_point]
        return Protection(appliance, agent, target, [volumes[name] for name in chosen], **options)
    return make


@pytest.fixture
def no_driver(agent):
    """Hides the driver while the agent runs."""
    hide_driver()
    yield
    show_driver()


@pytest.fixture
def tmpfs(site):
    """tmpfs(PATH, OPTIONS) mounts a tmpfs, which is unmounted after the test."""
    with contextlib.ExitStack() as mounts:
        def mount(path, options):
            pathlib.Path(path).mkdir(parents=True, exist_ok=True)
            subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", path], check=True)
            mounts.callback(subprocess.run, ["umount", path], check=True)
        yield mount


@pytest.fixture
def system_log():
    with SystemLog() as log:
        yield log


@pytest.fixture
def make_daemon(tmpfs):
    """Makes daemons. After the test they are stopped, newest first. Those that still run must stop with
    status 0.

    A daemon must not have written to standard error, except what the test expects."""
    with contextlib.ExitStack() as daemons:
        def make(*arguments, start=True, **options):
            daemon = Daemon(*arguments, **options)
            daemons.push(daemon)
            return daemon.start() if start else daemon
        yield make


@pytest.fixture
def foreground(make_daemon):
    """Starts a daemon in the foreground and waits until it is ready."""
    return lambda **options: make_daemon(**options).wait_until_ready()


@pytest.fixture
def background(make_daemon):
    """Starts a daemon as an administrator does, and waits until it is ready."""
    return lambda **options: make_daemon(foreground=False, **options).wait_until_ready()


@pytest.fixture
def run_to_end(make_daemon):
    """Runs a daemon that ends without being stopped; returns it when it has ended."""
    def run(*arguments, **options):
        daemon = make_daemon(*arguments, **options)
        daemon.wait()
        return daemon
    return run


@pytest.fixture
def fail_to_start(run_to_end):
    """Runs a daemon that ends with an exception: status 2, and one line on standard error. Returns it."""
    def run(**options):
        daemon = run_to_end(**options)
        daemon.expect_errors("Unhandled Exception reached the top of main: .+, application will now exit")
        assert daemon.status == 2
        assert len(daemon.errors.splitlines()) == 1
        return daemon
    return run


@pytest.fixture
def database():
    """database(SQL, PARAMETERS...) runs one statement on the agent's database; returns the rows."""
    def run(statement, *parameters):
        with contextlib.closing(sqlite3.connect(DATABASE)) as connection, connection:
            return connection.execute(statement, parameters).fetchall()
    return run


@pytest.fixture(scope="module")
def faults(request):
    """The list where the tests of a module note the faults that they inject."""
    made = FaultList(f"faults-{request.module.__name__.removeprefix('test_').removeprefix('backup_')}")
    yield made
    made.write()


@pytest.fixture(scope="module")
def attacks(request):
    """The list where the tests of a module note the attacks that they make."""
    name = request.module.__name__.removeprefix("test_").replace("_attacks_", "-")
    made = FaultList(f"attacks-{name}", "attacks made")
    yield made
    made.write()


@pytest.fixture(scope="module")
def scene(private_machine):
    """A server of the second transport, for the tests to attack."""
    with Scene() as made:
        yield made


@pytest.fixture
def one_volume(request, agent, appliance):
    """A site for faults, with one volume that has been backed up."""
    with fault_site(appliance, agent, (DATA,), server_of(request)) as site:
        yield site
