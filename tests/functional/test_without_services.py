"""The daemon on a machine without a message bus, and so without udisks2."""

from lab.appliance_client import volume

NO_BUS = "Cannot initialize udisks client: Could not connect: No such file or directory"
DISK = "0f1e2d3c-0000-4000-8000-000000000001"


def test_host_fails_and_the_basics_do_not(agent, appliance):
    assert appliance.host() == (500, "text/plain", NO_BUS)
    assert f"[ERROR:]    Internal server error on request host: {NO_BUS}\n" in agent.log
    assert appliance.basic_host().status == 200


def test_backup_fails_and_says_why(driver, agent, appliance):
    disk = volume(DISK, target="127.0.0.1:3260", name="iqn.2026-01.example:one", lun=1)
    identifier = appliance.backup([disk], full=True).content
    agent.wait_for_log(f"[INFO:]     Backup {identifier} FAILED!\n")
    assert (f"[ERROR:]    Exception caught during backup run: {NO_BUS} [failure:volumes-unknown]\n"
            in agent.log)
