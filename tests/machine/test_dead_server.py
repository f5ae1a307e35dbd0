"""docs/restore.md: a server that has lost its disk is restored, on a machine of user-mode Linux. That has
neither firmware nor boot loader; everything else is as on the page."""
import pytest

from lab.virtual.server import UmlServer
from server_site import DISK, PERSISTENT_DISK, Scenario, Server

pytestmark = pytest.mark.nightly # it takes four minutes


class TestDeadServer(Scenario):
    def make(self, new_machine):
        server = Server(new_machine(UmlServer, disks=(DISK, PERSISTENT_DISK)))
        server.make()
        return server
