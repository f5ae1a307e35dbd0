"""The first start of the real daemon, which gets its certificates from the certificate service."""
import json
import stat

import pytest

from lab.appliance_client import Appliance
from lab.certservice import HOST, CertificateService
from lab.daemon import CERTIFICATES, PID_FILE, READY_LINE

FILES = {"server.key": 0o600, "server.pem": 0o644, "ca.crt": 0o644}
FAILURE = ("Could not find certificate files: server.key server.pem ca.crt; subsequently failed to create "
           "them with error message: ")

pytestmark = pytest.mark.bare_site


def stored():
    """The agent's certificates."""
    return {path.name: path.read_bytes() for path in CERTIFICATES.iterdir()}


def pair(authority, number):
    device = authority.device(number)
    with Appliance(certificate=device.certificate, key=device.key,
                   authority=CERTIFICATES / "ca.crt") as appliance:
        assert appliance.pair(number).status == 200
        assert appliance.backups().content == {"active": [], "failed": [], "finished": []}


@pytest.mark.parametrize("is_foreground", [True, False])
def test_first_and_second_start(make_daemon, service_authority, service_identity, is_foreground):
    """The service gets one request for each of the two certificates. An appliance trusts the agent's
    certificate, and can pair; the second start needs no service."""
    with CertificateService(service_authority, identity=service_identity) as service:
        daemon = make_daemon(foreground=is_foreground).wait_until_ready()
        assert [json.loads(body)["action"] for _, body in service.requests] == ["issueCert", "retrieveCaCert"]
    first = stored()
    assert {name: stat.S_IMODE((CERTIFICATES / name).stat().st_mode) for name in first} == FILES
    pair(service_authority, 1)
    assert daemon.stop() == 0
    again = make_daemon(foreground=is_foreground).wait_until_ready()
    assert stored() == first
    pair(service_authority, 2)
    assert again.stop() == 0


@pytest.mark.parametrize("is_foreground", [True, False])
def test_service_down(run_to_end, service_authority, is_foreground):
    """Without certificates the agent doesn't start: it ends before it goes into the background, and leaves no
    certificate files."""
    daemon = run_to_end(foreground=is_foreground)
    daemon.expect_errors("Unhandled Exception reached the top of main: .*")
    assert daemon.status == 2
    reason = f"curl request issueCert to https://{HOST}/certApi.php failed ("
    [line] = daemon.errors.splitlines()
    assert line.startswith("Unhandled Exception reached the top of main: " + FAILURE + reason)
    assert line.endswith(" | ERROR(CURL) : 7 (0x7), application will now exit")
    assert f"[ERROR:]    {FAILURE}{reason}" in daemon.log
    assert READY_LINE not in daemon.log
    assert not CERTIFICATES.exists() or stored() == {}
    assert not PID_FILE.exists()


def test_service_that_refuses(run_to_end, make_daemon, service_authority, service_identity):
    """The first start fails; the next one succeeds."""
    with CertificateService(service_authority, identity=service_identity, fault="no-authority"):
        daemon = run_to_end()
    daemon.expect_errors("Unhandled Exception reached the top of main: .*")
    assert daemon.status == 2
    assert daemon.errors == (f"Unhandled Exception reached the top of main: {FAILURE}curl request "
                             "retrieveCaCert status: failed, application will now exit\n")
    assert not CERTIFICATES.exists() or stored() == {}
    with CertificateService(service_authority, identity=service_identity):
        make_daemon().wait_until_ready()
    pair(service_authority, 1)
