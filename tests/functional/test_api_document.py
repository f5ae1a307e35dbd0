"""docs/api.md against the real daemon: its examples, the routes that are served, and who may use them."""
import re

import pytest

from lab import api_examples
from lab.https_client import Client
from lab.site import Site

DEVICE, STRANGER = api_examples.DEVICE, api_examples.STRANGER
ROW = re.compile(r"^\| `(\w+)` \| (GET|POST|DELETE) \| `(\S+)` \| (any|paired) device \| (yes|no) \|$",
                 re.MULTILINE)


def document():
    return api_examples.DOCUMENT.read_text(encoding="utf-8")


@pytest.fixture
def clients(foreground, driver, site_authority, site_device):
    """Two clients with certificates of the authority; neither is paired."""
    foreground()
    return [Client(site_authority.certificate, site_device(number)) for number in (DEVICE, STRANGER)]


@pytest.fixture(scope="module")
def example_site(private_machine):
    with Site(api_examples.VOLUMES) as site:
        yield site


def test_examples_are_what_the_daemon_says(clients, example_site):
    shown = api_examples.documented(document())
    assert api_examples.Examples(*clients, example_site.disk).collect() == shown


def test_putting_examples_into_the_document():
    text = document()
    shown = api_examples.documented(text)
    changed = api_examples.with_examples(text, shown | {"pair": "new\n"})
    assert api_examples.documented(changed) == shown | {"pair": "new\n"}
    assert api_examples.with_examples(changed, shown) == text


def test_routes_are_served_as_the_table_says(clients, example_site):
    device, stranger = clients
    assert device.request("POST", "/pair", b'{"deviceID": %d}' % DEVICE).status == 200
    rows = ROW.findall(document())
    assert len(rows) == 21
    for _name, method, url, callers, served in rows:
        body = b"" if method == "POST" else None
        statuses = [client.request(method, url, body).status for client in clients]
        if served == "no":
            assert statuses == [501, 501], url
        elif callers == "paired":
            assert statuses[0] not in (401, 501) and statuses[1] == 401, url
        else:
            assert not {401, 501} & set(statuses), url
    assert stranger.request("GET", "/backup").status == 401 # still refused
