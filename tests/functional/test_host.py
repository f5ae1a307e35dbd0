"""GET /basichost and GET /host of the real daemon, compared with the output of the machine's own tools."""
import os
import pathlib
import platform
import re
import signal
import socket
import subprocess

from lab.appliance_client import DEVICE
from lab.backups import size_of
from lab.daemon import SCRIPTS
from lab.driver import STATUS, hide_driver, show_driver
from lab.services import wait_until

SECONDS = 30
OTHER = DEVICE + 1
TEXT, JSON = "text/plain", "application/json"


def os_version():
    """The OS version, as a shell reads it from os-release."""
    return subprocess.run(["sh", "-c", '. /etc/os-release; echo "$NAME $VERSION"'], capture_output=True,
                          text=True, check=True).stdout.strip()


def kernel_version(release):
    """The numbers of a kernel release; a custom kernel may have only two."""
    numbers = re.match(r"(\d+)\.(\d+)(?:\.(\d+))?", release).groups("0")
    return dict(zip(("major", "minor", "build"), map(int, numbers)))


def describe(appliance):
    answer = appliance.host()
    assert (answer.status, answer.content_type) == (200, JSON)
    return answer.content


def volume_of(appliance, partition):
    [volume] = [volume for volume in describe(appliance)["volumes"] if volume["guid"] == partition.uuid]
    return volume


def test_basics_are_for_any_device(agent, connect_appliance):
    expected = {"os": os_version(), "os_arch": platform.machine(), "hostName": socket.gethostname()}
    assert connect_appliance(OTHER).basic_host() == (200, JSON, expected)
    assert connect_appliance().pair(DEVICE).status == 200
    assert connect_appliance(OTHER).basic_host() == (200, JSON, expected)


def test_host_is_for_the_paired_device(appliance, connect_appliance, lab_site):
    assert connect_appliance(OTHER).host() == (401, TEXT, "Unauthorized")
    assert describe(appliance)["kernel"] == "linux"


def test_machine(appliance, lab_site, driver):
    host = describe(appliance)
    assert host["os"] == os_version() and host["os_arch"] == platform.machine()
    assert host["os_version"] == kernel_version(platform.release())
    assert host["hostname"] == socket.gethostname()
    assert host["archBits"] == 64
    assert host["cpus"] == int(subprocess.run(["nproc"], capture_output=True, check=True).stdout)
    memory = dict(re.findall(r"(\w+):\s+(\d+) kB", pathlib.Path("/proc/meminfo").read_text()))
    assert host["ram"] == int(memory["MemTotal"]) * 1024
    assert 0 < host["freeram"] < host["ram"]
    assert abs(host["uptime"] - float(pathlib.Path("/proc/uptime").read_text().split()[0])) < SECONDS
    assert host["agentVersion"] == "2.1.23.0"
    assert host["driverVersion"] == (STATUS / "version").read_text().strip() != ""
    assert host["scriptsPrePost"] == host["VSSWriters"] == []


def test_scripts(appliance, lab_site):
    SCRIPTS.mkdir()
    for name in ("mail", "database"):
        (SCRIPTS / name).touch(mode=0o755)
    assert describe(appliance)["scriptsPrePost"] == [
        {"scriptname": name, "displayname": name} for name in ("database", "mail")]


def test_volumes(appliance, lab_site):
    shown = {volume["guid"]: volume for volume in describe(appliance)["volumes"]}
    for name in ("data", "files", "windows"):
        partition = lab_site.disk[name]
        status = os.statvfs(partition.volume.mount_point)
        assert shown[partition.uuid] == {
            "guid": partition.uuid, "device": partition.device, "spaceTotal": size_of(partition),
            "spaceFree": status.f_bfree * status.f_bsize, "filesystem": partition.volume.file_system,
            "serialNumber": 0, "label": name, "OSVolume": False, "sysVolume": False, "removable": False,
            "mounted": True, "readonly": False, "partScheme": "GPT", "volumeType": "", "sectorSize": 512,
            "sectorsTotal": size_of(partition) // 512, "hiddenSectors": 0, "clusterSizeInBytes": 4096,
            "mountpoints": [partition.volume.mount_point]}
    assert shown[lab_site.disk["archive"].uuid]["readonly"]
    assert not shown[lab_site.disk["spare"].uuid]["mounted"]
    assert shown[lab_site.disk["spare"].uuid]["spaceFree"] == 0


def test_swap_space(appliance, lab_site):
    swap = volume_of(appliance, lab_site.disk["swap"])
    assert swap["mountpoints"] == ["<swap>"]
    assert (swap["mounted"], swap["spaceFree"], swap["filesystem"]) == (False, 0, "swap")


def test_full_volume(appliance, lab_site):
    """Free space is that of the superuser; the rest of the answer is as usual."""
    before = volume_of(appliance, lab_site.disk["data"])
    filler = pathlib.Path("/mnt/data/filler")
    try:
        subprocess.run(["fallocate", "--length", "4G", filler], check=False, capture_output=True)
        status = os.statvfs("/mnt/data")
        assert status.f_bavail == 0
        full = volume_of(appliance, lab_site.disk["data"])
        assert full == before | {"spaceFree": status.f_bfree * status.f_bsize}
        assert full["spaceFree"] < before["spaceFree"] // 10
    finally:
        filler.unlink()


def test_mount_point_that_is_no_text(appliance, lab_site):
    """A byte that is invalid in UTF-8 is replaced; the rest of the answer stays."""
    path = os.fsdecode(b"/mnt/B\xfcro")
    with lab_site.disk["spare"].mounted(path):
        wait_until(lambda: volume_of(appliance, lab_site.disk["spare"])["mountpoints"] == ["/mnt/B\ufffdro"],
                   SECONDS, "the mount point")


def test_host_name_that_cannot_be_had(foreground, connect_appliance, lab_site):
    """uname() fails, which would return the host name, the kernel's version and the architecture."""
    daemon = foreground(wrapper=["strace", "-D", "-f", "-qq", "-o", "/dev/null", "-e", "trace=uname",
                                 "-e", "inject=uname:error=EPERM"])
    appliance = connect_appliance()
    assert appliance.pair(DEVICE).status == 200
    host = describe(appliance)
    assert host["hostname"] == host["os_arch"] == host["archBits"] == "[ERROR]"
    assert host["os_version"] == {"major": 0, "minor": 0, "build": 0}
    assert host["os"] == os_version()
    assert {partition.uuid for partition in lab_site.disk} <= {volume["guid"] for volume in host["volumes"]}
    for text in ("could not get hostname. gethostname failed", "Could not get kernel version, uname failed",
                 "could not get OS architecture. uname failed"):
        assert f"[ERROR:]    {text}\n" in daemon.log
    basic = appliance.basic_host().content
    assert basic == {"os": os_version(), "os_arch": "[ERROR]", "hostName": "[ERROR]"}


def test_kernel_release_of_two_numbers(foreground, connect_appliance, lab_site):
    """uname() returns a release of two numbers; the two names before it in the structure have 65 bytes
    each."""
    release = "6.18-rc1"
    answer = (b"Linux".ljust(65, b"\0") + b"elsewhere".ljust(65, b"\0") + release.encode() + b"\0").hex()
    foreground(wrapper=["strace", "-D", "-f", "-qq", "-o", "/dev/null", "-e", "trace=uname",
                        "-e", f"inject=uname:poke_exit=@arg1={answer}"])
    appliance = connect_appliance()
    assert appliance.pair(DEVICE).status == 200
    assert describe(appliance)["os_version"] == {"major": 6, "minor": 18, "build": 0}


def test_machine_that_tells_nothing_of_itself(appliance, agent, lab_site, tmpfs):
    """There is no release file, there are no firmware tables, and there is no driver."""
    hide_driver()
    tmpfs("/sys/class/", "mode=755")
    tmpfs("/sys/module", "mode=755")
    for path in pathlib.Path("/etc").glob("*-release"):
        path.rename(path.with_suffix(".hidden"))
    try:
        host = describe(appliance)
    finally:
        show_driver()
        for path in pathlib.Path("/etc").glob("*.hidden"):
            path.rename(path.with_suffix(""))
    for key in ("os", "driverVersion", "smbiosID", "smbiosName", "smbiosUUID", "smbiosVendor"):
        assert host[key] == "[ERROR]"
    for text in ("failed to get OS version", "Could not get system product_serial",
                 "Could not open driver version file. tolvubd is not present on your system!"):
        assert f"[ERROR:]    {text}\n" in agent.log
    assert host["hostname"] == socket.gethostname()


def test_firmware(appliance, lab_site, tmpfs):
    tmpfs("/sys/class/", "mode=755")
    directory = pathlib.Path("/sys/class/dmi/id")
    directory.mkdir(parents=True)
    for name in ("product_serial", "product_name", "product_uuid", "sys_vendor"):
        (directory / name).write_text(f"the {name}\n", encoding="ascii")
    host = describe(appliance)
    assert [host[key] for key in ("smbiosID", "smbiosName", "smbiosUUID", "smbiosVendor")] == [
        "the product_serial", "the product_name", "the product_uuid", "the sys_vendor"]


def test_nothing_grows(agent, appliance, lab_site):
    """Many requests leak no descriptor and no thread."""
    def usage():
        process = pathlib.Path("/proc", str(agent.pid))
        return len(os.listdir(process / "fd")), len(os.listdir(process / "task"))

    for _ in range(5):
        describe(appliance)
    before = usage()
    for _ in range(60):
        describe(appliance)
    wait_until(lambda: usage() <= before, SECONDS, f"no more than {before}")


def test_threads_of_the_search_take_no_termination_signal(agent, appliance, lab_site):
    """Only the initial thread takes the signal; it waits for the other threads."""
    describe(appliance)
    tasks = pathlib.Path("/proc", str(agent.pid), "task")
    others = {task.name: int(re.search(r"SigBlk:\s+(\w+)", (task / "status").read_text())[1], 16)
              for task in tasks.iterdir() if task.name != str(agent.pid)}
    assert "gdbus" in {(tasks / name / "comm").read_text().strip() for name in others}
    for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGHUP):
        assert all(blocked >> (number - 1) & 1 for blocked in others.values())


def test_service_that_is_killed_and_comes_back(agent, appliance, lab_site):
    """The bus starts the service again when the agent asks; the agent continues."""
    describe(appliance)
    os.kill(lab_site.udisks.pid, signal.SIGKILL)
    wait_until(lambda: appliance.host().status == 200, SECONDS, "an answer")
    wait_until(lambda: lab_site.disk["data"].uuid in {volume["guid"] for volume in
                                                      describe(appliance)["volumes"]}, SECONDS, "the volume")
    assert agent.is_running

