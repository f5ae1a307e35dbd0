"""An installed bekd on a machine of user-mode Linux."""
from installed_site import Scenario
from lab.virtual.uml import UmlMachine


class TestInstalled(Scenario):
    MACHINE = UmlMachine
