"""The examples of docs/api.md: requests to the real daemon, and its answers.

Run inside lab/namespace, this module writes the answers of the daemon in the folder BEKD_BUILD into the
document:

    lab/namespace /usr/bin/python3 -m lab.api_examples

Values that differ from run to run are replaced by fixed ones, so a document that is up to date doesn't
change. A test compares the two.
"""
import dataclasses
import json
import re

from lab.agent_state import clean_agent_state
from lab.appliance_client import DEVICE
from lab.daemon import ROOT, Daemon, require_private_site
from lab.driver import show_driver, show_status
from lab.https_client import Client
from lab.services import wait_until
from lab.site import DATA, SWAP, Site

DOCUMENT = ROOT / "docs" / "api.md"
STRANGER = 815
SECONDS = 60

VOLUME = "1c9a7f0e-7a41-4a5e-9d0c-2f0b64b1a7de"
UNKNOWN = "e2f7c1d0-3b58-4c69-8a7e-5d4c3b2a1908"
SHOWN_ID = "59c47b46-dbe0-48f5-9d05-50417c6b60db"
VOLATILE = (
    (r'("timestamp": )\d+', r"\g<1>1772618096"),
    (r'("elapsedTime": )\d+', r"\g<1>2"),
    (r'("uptime": )\d+', r"\g<1>86400"),
    (r'("cpus": )\d+', r"\g<1>8"),
    (r'("ram": )\d+', r"\g<1>16777216000"),
    (r'("freeram": )\d+', r"\g<1>8388608000"),
    (r'("spaceFree": )[1-9]\d*', r"\g<1>1020678144"),
    (r'("os": )".*"', r'\g<1>"Debian GNU/Linux 12 (bookworm)"'),
    (r'("host[nN]ame": )".*"', r'\g<1>"db1"'),
    (r'("major": )\d+', r"\g<1>6"),
    (r'("minor": )\d+', r"\g<1>1"),
    (r'("build": )\d+', r"\g<1>0"),
    (r'("smbios\w+": )".*"', r'\g<1>"a text"'),
    (r'("device": "/dev/)loop\d+p(\d)', r"\g<1>sda\g<2>"),
)
# The volumes of the machine in the examples. Other volumes of the machine that runs them are left out.
VOLUMES = (dataclasses.replace(DATA, mebibytes=1024), SWAP)
SHOWN_UUIDS = ("7c1f5b8e-9a52-4d3e-b1c6-0f2a4e6d8b90", "d9e0a3b7-6c14-4f85-92ab-5e7d1c3f8a06")
PLACE = re.compile(r"(<!-- example: ([\w-]+) -->\n```http\n)(.*?)(```\n)", re.DOTALL)

REQUEST = {
    "volumes": [{
        "guid": VOLUME, "offset": 0, "qualifiedName": "iqn.2026-01.example:images", "target": "10.0.0.1:3260",
        "lun": 1, "username": "agent", "password": "a password",
        "scriptsPrePost": [{"scriptname": "stop-database", "timeout": 90}],
    }],
    "forceCopyFull": True,
}

DEVICE_OF_DRIVER = {"minor": 0, "state": 2, "cow_file": "/.tolvu", "block_device": "/dev/sda1", "error": 0}


class Examples:
    """Sends requests to an agent that has never been paired; `collect` returns requests and answers by
    example name."""

    def __init__(self, device, stranger, disk):
        self._disk = disk
        self._device = device
        self._stranger = stranger
        self._id = None
        self._texts = {}

    def collect(self):
        # The order matters: the first requests need an agent that isn't paired yet.
        device, stranger = self._device, self._stranger
        self.add("basichost", stranger, "GET", "/basichost")
        self.add("not-paired", device, "GET", "/backup")
        self.add("pair", device, "POST", "/pair", {"deviceID": DEVICE})
        self.add("pair-mismatch", stranger, "POST", "/pair", {"deviceID": DEVICE})
        self.add("stranger", stranger, "GET", "/backup")
        self.add("invalid", device, "POST", "/host")
        self.add("not-served", device, "POST", "/command", {})
        self.add("host", device, "GET", "/host")
        self.add("feature", device, "GET", "/v2/feature")
        self.add("install", device, "GET", "/v2/install")
        show_status([DEVICE_OF_DRIVER])
        self.add("driver-status", device, "GET", "/v2/driver/status")
        show_driver()
        self.add("config-set", device, "POST", "/config",
                 {"log.lifetimeHours": 72, "holepunch.enabled": True})
        self.add("config-refused", device, "POST", "/config", {"log.lifetimeHours": 0})
        self.add("config-get", device, "GET", "/config")
        self.collect_backup(device)
        self.add("log-level", device, "POST", "/logLevel", {"severity": 2})
        self.add("log-level-refused", device, "POST", "/logLevel", {})
        return {name: self.steady(text) for name, text in self._texts.items()}

    def collect_backup(self, device):
        self._id = self.add("backup", device, "POST", "/backup", REQUEST).decode()
        wait_until(lambda: b'"active"' not in device.request("GET", f"/backup/{self._id}").body, SECONDS,
                   "end of the backup")
        self.add("backup-refused", device, "POST", "/backup", {"volumes": [{"guid": VOLUME}]})
        self.add("backup-status", device, "GET", f"/backup/{self._id}")
        self.add("backup-unknown", device, "GET", f"/backup/{UNKNOWN}")
        self.add("backup-list", device, "GET", "/backup")
        self.add("logs", device, "GET", "/event?lines=2&severity=4")
        self.add("backup-cancel", device, "DELETE", f"/backup/{self._id}")
        self.add("backup-cancel-refused", device, "DELETE", f"/backup/{self._id}")

    def add(self, name, client, method, url, content=None):
        """Sends a request, and stores the request and the answer as `name`; returns the body of the
        answer."""
        body = None if content is None else json.dumps(content, indent=4)
        answer = client.request(method, url, None if body is None else body.encode())
        if answer is None:
            raise RuntimeError(f"{method} {url}: no answer")
        parts = [f"{method} {url}", *([] if body is None else [body])]
        shown = self.of_these_volumes(answer.body.decode()) if name == "host" else answer.body.decode()
        parts += ["", f"{answer.status} {answer.content_type}", *filter(None, [shown])]
        self._texts[name] = "\n".join(parts) + "\n"
        return answer.body

    def of_these_volumes(self, text):
        """The description of the host with only the volumes of the site's disk, in the disk's order."""
        host = json.loads(text)
        volumes = {volume["guid"]: volume for volume in host["volumes"]}
        host["volumes"] = [volumes[partition.uuid] for partition in self._disk]
        return json.dumps(host, indent=4, ensure_ascii=False)

    def steady(self, text):
        for partition, shown in zip(self._disk, SHOWN_UUIDS):
            text = text.replace(partition.uuid, shown)
        for pattern, replacement in VOLATILE:
            text = re.sub(pattern, replacement, text)
        return text.replace(self._id, SHOWN_ID)


def documented(text):
    """The examples in the document, by name."""
    return {name: example for _, name, example, _ in PLACE.findall(text)}


def with_examples(text, examples):
    """The document, with `examples` put in the places that name them."""
    return PLACE.sub(lambda place: place[1] + examples[place[2]] + place[4], text)


def main():
    require_private_site()
    with clean_agent_state() as authority, Site(VOLUMES) as site, Daemon() as daemon:
        device, stranger = (Client(authority.certificate, authority.device(number))
                            for number in (DEVICE, STRANGER))
        daemon.wait_until_ready()
        examples = Examples(device, stranger, site.disk).collect()
    text = DOCUMENT.read_text(encoding="utf-8")
    DOCUMENT.write_text(with_examples(text, examples), encoding="utf-8")


if __name__ == "__main__":
    main()
