"""The appliance's side of the agent's API: one method per call, over one TLS connection that is kept open.

    with Appliance(certificate="device.pem", key="device.key", authority="ca.crt") as appliance:
        appliance.pair(4711)
        identifier = appliance.backup([volume("0f1e-...", target="127.0.0.1:3260", name="iqn...", lun=1)],
                                      full=True).content
        appliance.status(identifier).content["status"]

Every call returns an Answer, whatever its HTTP status. If there is no answer, the call throws an exception:
NoAnswer if the agent closed the connection, as it does when it refuses a certificate, or Unreachable if there
was no connection to begin with.
"""
import http.client
import json
import select
import ssl
import typing
import urllib.parse

PORT = 25567
DEVICE = 4711 # the number of the appliance that the lab and the tests pair
SECONDS = 60
SEVERITIES = ("max", "debug", "info", "warning", "error", "critical", "min")


class NoAnswer(Exception):
    """The agent has closed the connection instead of answering."""


class Unreachable(Exception):
    """There is no connection to the agent, or none that can be trusted."""


class Answer(typing.NamedTuple):
    """An answer of the agent: `content` is a text, or the parsed JSON if the type is "application/json"."""

    status: int
    content_type: str
    content: typing.Any

    @property
    def is_success(self):
        return 200 <= self.status < 300


def volume(guid, *, target, name, lun, offset=0, username="", password="", scripts=()):
    """One volume of a backup request. `scripts` holds names, or pairs of a name and a time-out in seconds."""
    pairs = [(script, None) if isinstance(script, str) else script for script in scripts]
    return {
        "guid": guid, "offset": offset, "qualifiedName": name, "target": target, "lun": lun,
        "username": username, "password": password,
        "scriptsPrePost": [{"scriptname": script} | ({} if timeout is None else {"timeout": timeout})
                           for script, timeout in pairs],
    }


class Appliance:
    """An appliance with its device certificate. Not for several threads at once: requests go out one after
    the other on one connection."""

    def __init__(self, host="127.0.0.1", port=PORT, *, certificate=None, key=None, authority=None,
                 seconds=SECONDS):
        self._place = (host, port)
        self._seconds = seconds
        self._context = ssl.create_default_context(cafile=authority)
        # The agent's certificate carries the name of its machine, which isn't the address that this client
        # connects to. The authority is what proves that this is an agent.
        self._context.check_hostname = False
        if certificate is not None:
            self._context.load_cert_chain(certificate, key)
        self._connection = None
        self.connections = 0

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()

    def close(self):
        connection, self._connection = self._connection, None
        if connection is not None:
            connection.close()

    # The calls.

    def basic_host(self):
        return self.get("/basichost")

    def pair(self, device_id):
        """`device_id` must be the Common Name of the device certificate."""
        return self.post("/pair", {"deviceID": device_id})

    def host(self):
        return self.get("/host")

    def backup(self, volumes, *, full=False, merge=False, interface=None, snapshot_method=None,
               exclusions=None):
        """Starts a backup of volumes that `volume` describes; the content of the answer is the backup's
        ID."""
        request = {"volumes": volumes}
        for key, value in (("forceCopyFull", full), ("forceDiffMerge", merge), ("interface", interface),
                           ("snapshotMethod", snapshot_method), ("VSSExclusions", exclusions)):
            if value:
                request[key] = value
        return self.start(request)

    def start(self, request):
        """Starts a backup from the request as it stands."""
        return self.post("/backup", request)

    def status(self, identifier):
        return self.get("/backup/" + urllib.parse.quote(identifier, safe=""))

    def backups(self):
        return self.get("/backup")

    def cancel(self, identifier):
        return self.request("DELETE", "/backup/" + urllib.parse.quote(identifier, safe=""))

    def logs(self, *, lines=None, first=None, last=None, severity=None):
        """`first` and `last` are dates, YYYY-MM-DD; `severity` is a number from 1 (debug) to 5 (critical)."""
        chosen = {"lines": lines, "from": first, "until": last, "severity": severity}
        arguments = {key: value for key, value in chosen.items() if value is not None}
        return self.get("/event" + ("?" + urllib.parse.urlencode(arguments) if arguments else ""))

    def log_level(self, severity):
        """Sets the threshold of the log: one of SEVERITIES, or its number there."""
        number = SEVERITIES.index(severity) if isinstance(severity, str) else severity
        return self.post("/logLevel", {"severity": number})

    def config(self):
        return self.get("/config")

    def set_config(self, options):
        return self.post("/config", options)

    def features(self):
        return self.get("/v2/feature")

    def install(self):
        return self.get("/v2/install")

    def driver(self):
        return self.get("/v2/driver/status")

    # The connection to the agent.

    def get(self, url):
        return self.request("GET", url)

    def post(self, url, content):
        return self.request("POST", url, json.dumps(content))

    def request(self, method, url, body=None):
        """Sends any request. `body` is sent as it is."""
        connection = self._connected()
        try:
            connection.request(method, url, body=body,
                               headers={"Content-Type": "application/json"} if body is not None else {})
            response = connection.getresponse()
            text = response.read().decode(errors="replace")
        except TimeoutError as error:
            self.close()
            raise NoAnswer(f"{method} {url}: no answer within {self._seconds} s") from error
        except (http.client.HTTPException, OSError) as error:
            self.close()
            raise NoAnswer(f"{method} {url}: the agent closed the connection without an answer "
                           f"({error or type(error).__name__})") from error
        return self._answer(response, text)

    @staticmethod
    def _answer(response, text):
        content_type = response.headers.get_content_type() if "Content-Type" in response.headers else ""
        if content_type == "application/json" and text:
            return Answer(response.status, content_type, json.loads(text))
        return Answer(response.status, content_type, text)

    def _connected(self):
        if self._connection is not None and self._has_ended(self._connection.sock):
            self.close()
        if self._connection is None:
            connection = http.client.HTTPSConnection(*self._place, timeout=self._seconds,
                                                     context=self._context)
            try:
                connection.connect()
            except OSError as error:
                connection.close()
                raise Unreachable(f"{self._place[0]} port {self._place[1]}: {error}") from error
            self._connection = connection
            self.connections += 1
        return self._connection

    @staticmethod
    def _has_ended(connected):
        """Whether the agent has closed the connection. Between two calls the agent sends nothing, so if there
        is something to read, it is the end of the connection. This is checked before each request, because a
        request is never sent twice."""
        if connected is None: # closed with the last answer
            return True
        return bool(select.select([connected], [], [], 0)[0])
