"""An agent's machine that is new except for its certificates, and appliances that its agent trusts.

    with clean_agent_state() as authority, Daemon() as daemon, appliance_of(authority) as appliance:
        appliance.pair(DEVICE)

Inside lab/namespace only.
"""
import contextlib
import shutil
import tempfile

from lab.appliance_client import DEVICE, Appliance
from lab.certificates import Authority, install
from lab.daemon import BASE, CERTIFICATES


@contextlib.contextmanager
def clean_agent_state(**keys):
    """Removes every trace of the agent, and installs certificates for it; yields their authority. `keys` are
    the key types, as Authority takes them."""
    shutil.rmtree(BASE, ignore_errors=True)
    with tempfile.TemporaryDirectory() as directory:
        authority = Authority(directory, **keys)
        install(authority.agent(), authority, CERTIFICATES)
        yield authority


def appliance_of(authority, identity=None, **options):
    """A client of an appliance; without an identity, of the one with the usual device ID."""
    identity = identity or authority.device(DEVICE)
    return Appliance(certificate=identity.certificate, key=identity.key, authority=authority.certificate,
                     **options)
