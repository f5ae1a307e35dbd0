"""lab/appliance and the class behind it: what goes out for each call, and how each kind of answer is shown.

The agent's part is played by a server that notes requests and gives the answers it is told to.
"""
import http.server
import io
import json
import pathlib
import ssl
import subprocess
import threading

import pytest

from lab.appliance_client import Appliance, NoAnswer, Unreachable, volume
from lab.certificates import Authority
from lab.progress import shown_progress

ROOT = pathlib.Path(__file__).resolve().parents[2]
SECONDS = 60
DISK = "0f1e"
ACTIVE, FINISHED, FAILED = (
    {"elapsedTime": 1, "connection_error": False, "snapshot_error": state == "failed", "status": state,
     "details": [{"volume": DISK, "status": state, "type": "full",
                  "transfer": {"bytesTransferred": done, "totalSize": 20}}]}
    for state, done in (("active", 5), ("finished", 20), ("failed", 5)))


class Agent:
    """Answers the requests in turn with what `answers` holds: (status, content type, text), or None to close
    the connection. The last one serves for all that follow."""

    def __init__(self, authority):
        self.answers = [(200, "text/plain", "")]
        self.requests = []
        self.connections = 0
        self.closes_after_answer = False
        identity = authority.agent()
        context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH, cafile=authority.certificate)
        context.load_cert_chain(identity.certificate, identity.key)
        context.verify_mode = ssl.CERT_REQUIRED
        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), self._handler())
        self._server.socket = context.wrap_socket(self._server.socket, server_side=True)
        self._thread = threading.Thread(target=self._server.serve_forever, kwargs={"poll_interval": 0.02})

    @property
    def port(self):
        return self._server.server_address[1]

    def says(self, *answers):
        self.answers = [answer if answer is None or isinstance(answer, tuple)
                        else (200, "application/json", json.dumps(answer, indent=4)) for answer in answers]

    def _handler(self):
        agent = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def setup(self):
                super().setup()
                agent.connections += 1

            def respond(self):
                body = self.rfile.read(int(self.headers.get("Content-Length", 0))).decode()
                agent.requests.append((self.command, self.path, body))
                answer = agent.answers.pop(0) if len(agent.answers) > 1 else agent.answers[0]
                self.close_connection = answer is None or agent.closes_after_answer
                if answer is None:
                    return
                status, content_type, text = answer
                self.send_response(status)
                self.send_header("Content-Type", content_type)
                self.send_header("Content-Length", str(len(text.encode())))
                self.end_headers()
                self.wfile.write(text.encode())

            do_GET = do_POST = do_DELETE = respond

            def log_message(self, *_arguments):
                """Quiet: `requests` tells what was asked."""

        return Handler

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_exception):
        self._server.shutdown()
        self._thread.join(SECONDS)
        self._server.server_close()


@pytest.fixture(scope="module")
def authority(tmp_path_factory):
    return Authority(tmp_path_factory.mktemp("authority"))


@pytest.fixture(scope="module")
def device(authority):
    return authority.device(4711)


@pytest.fixture
def agent(authority):
    with Agent(authority) as running:
        yield running


@pytest.fixture
def appliance(agent, authority, device):
    with Appliance(port=agent.port, certificate=device.certificate, key=device.key,
                   authority=authority.certificate, seconds=SECONDS) as made:
        yield made


@pytest.fixture
def command(agent, authority, device):
    """Runs lab/appliance; gives exit status, standard output and standard error."""
    def run(*arguments, port=None, identity=device):
        done = subprocess.run(
            [ROOT / "lab" / "appliance", "--port", str(port or agent.port), "--cert", identity.certificate,
             "--key", identity.key, "--ca", authority.certificate, *arguments],
            capture_output=True, text=True, check=False, timeout=SECONDS)
        return done.returncode, done.stdout, done.stderr
    return run


SIMPLE = [
    (("pair", "4711"), ("POST", "/pair", {"deviceID": 4711})),
    (("basichost",), ("GET", "/basichost", None)),
    (("host",), ("GET", "/host", None)),
    (("list",), ("GET", "/backup", None)),
    (("status", "b 1"), ("GET", "/backup/b%201", None)),
    (("features",), ("GET", "/v2/feature", None)),
    (("install",), ("GET", "/v2/install", None)),
    (("driver",), ("GET", "/v2/driver/status", None)),
    (("config",), ("GET", "/config", None)),
    (("config", "log.lifetimeHours=72", "holepunch.enabled=true", "autoupdate.channel=beta"),
     ("POST", "/config", {"log.lifetimeHours": 72, "holepunch.enabled": True, "autoupdate.channel": "beta"})),
    (("loglevel", "max"), ("POST", "/logLevel", {"severity": 0})),
    (("loglevel", "info"), ("POST", "/logLevel", {"severity": 2})),
    (("loglevel", "9"), ("POST", "/logLevel", {"severity": 9})),
]


@pytest.mark.parametrize("arguments, request_sent", SIMPLE)
def test_request_of_a_command(agent, command, arguments, request_sent):
    assert command(*arguments) == (0, "", "")
    [(method, path, body)] = agent.requests
    assert (method, path, json.loads(body) if body else None) == request_sent


def test_json_is_shown(agent, command):
    agent.says({"os": "Debian", "hostName": "bücher"})
    assert command("basichost") == (0, '{\n    "os": "Debian",\n    "hostName": "bücher"\n}\n', "")


@pytest.mark.parametrize("status, text, shown", [
    (401, "Unauthorized", "HTTP status 401: Unauthorized"),
    (400, "", "HTTP status 400, without a text"),
    (500, "A backup with ID x does not exist.", "HTTP status 500: A backup with ID x does not exist."),
])
def test_error_is_shown_as_the_agent_sent_it(agent, command, status, text, shown):
    agent.says((status, "text/plain", text))
    assert command("host") == (1, "", f"lab/appliance: {shown}\n")


def test_closed_connection(agent, command):
    agent.says(None)
    status, output, error = command("host")
    assert (status, output) == (2, "")
    assert error.startswith("lab/appliance: GET /host: the agent closed the connection without an answer (")


def test_certificate_that_is_refused(agent, authority, command):
    stranger = authority.bad_devices()["self-signed"]
    status, _, error = command("host", identity=stranger)
    assert status == 2
    assert "GET /host: the agent closed the connection without an answer" in error
    assert agent.requests == []


def test_nobody_listens(command):
    status, _, error = command("host", port=1)
    assert (status, error) == (2, "lab/appliance: 127.0.0.1 port 1: [Errno 111] Connection refused\n")


def test_agent_of_another_authority(agent, device, tmp_path):
    stranger = Authority(tmp_path)
    with Appliance(port=agent.port, certificate=device.certificate, key=device.key,
                   authority=stranger.certificate) as appliance:
        with pytest.raises(Unreachable, match="CERTIFICATE_VERIFY_FAILED"):
            appliance.host()


@pytest.mark.parametrize("arguments", [
    (), ("nonsense",), ("pair", "x"), ("loglevel", "loud"), ("config", "x"), ("backup", "--volume", "lun=1"),
    ("backup", "--volume", "guid=1,a=2"), ("backup", "--volume", "guid=1"), ("backup", "--request", "/none"),
    ("backup", "--zephane", "--interface", "iscsi", "--volume", "guid=1,target=t,name=n"),
    ("backup", "--password", "p", "--password-file", "/dev/null", "--volume", "guid=1,target=t,name=n"),
    ("backup", "--volume", "guid=1,target=t,name=n,password-file=/none")])
def test_command_line_that_makes_no_sense(agent, command, arguments):
    status, output, error = command(*arguments)
    assert (status, output) == (64, "")
    assert "lab/appliance" in error
    assert agent.requests == []


def test_backup_of_two_volumes(agent, command):
    agent.says((201, "text/plain", "b-1"))
    assert command("backup", "--full", "--target", "127.0.0.1:3260", "--name", "iqn.2026-01.example:backups",
                   "--volume", "guid=0f1e,script=stop,script=flush/30",
                   "--volume", "guid=2a2b,lun=7,offset=4096,username=u,password=p") == (0, "b-1\n", "")
    [(method, path, body)] = agent.requests
    shared = {"qualifiedName": "iqn.2026-01.example:backups", "target": "127.0.0.1:3260"}
    assert (method, path) == ("POST", "/backup")
    assert json.loads(body) == {"forceCopyFull": True, "volumes": [
        {"guid": "0f1e", "offset": 0, "lun": 1, "username": "", "password": "", **shared,
         "scriptsPrePost": [{"scriptname": "stop"}, {"scriptname": "flush", "timeout": 30}]},
        {"guid": "2a2b", "offset": 4096, "lun": 7, "username": "u", "password": "p", **shared,
         "scriptsPrePost": []}]}


def test_backup_over_the_second_transport(agent, command, tmp_path):
    """Each image has a secret of its own, and a volume ID of 64 bits. Nothing of a secret is shown."""
    secrets = {"one": "s3cret, with a comma", "two": "an0ther"}
    for name, secret in secrets.items():
        (tmp_path / name).write_text(f"{secret}\n")
    agent.says((201, "text/plain", "b-1"))
    assert command("backup", "--zephane", "--target", "10.0.0.1:25568", "--password-file", tmp_path / "one",
                   "--volume", f"guid=0f1e,name=host1/data,lun={2**64 - 1}",
                   "--volume", f"guid=2a2b,name=host1/files,password-file={tmp_path / 'two'}") \
        == (0, "b-1\n", "")
    sent = json.loads(agent.requests[0][2])
    assert sent["interface"] == "zephaneftp"
    assert [(volume["qualifiedName"], volume["lun"], volume["password"]) for volume in sent["volumes"]] == \
        [("host1/data", 2**64 - 1, secrets["one"]), ("host1/files", 2, secrets["two"])]


def test_backup_from_a_file(agent, command, tmp_path):
    agent.says((201, "text/plain", "b-1"))
    request = {"volumes": [], "forceDiffMerge": True, "VSSExclusions": ["x"]}
    (tmp_path / "request.json").write_text(json.dumps(request))
    assert command("backup", "--request", tmp_path / "request.json") == (0, "b-1\n", "")
    assert json.loads(agent.requests[0][2]) == request


def test_watch_until_the_end(agent, command):
    agent.says((201, "text/plain", "b-1"), ACTIVE, ACTIVE, FINISHED)
    status, output, error = command("backup", "--volume", "guid=0f1e", "--target", "t", "--name", "n",
                                    "--watch")
    assert (status, error) == (0, "")
    assert output.splitlines() == ["b-1", f"{DISK} full active, 5 bytes of 20 bytes",
                                   f"{DISK} full finished, 20 bytes of 20 bytes"]
    assert [path for _, path, _ in agent.requests] == ["/backup"] + 3 * ["/backup/b-1"]
    assert agent.connections == 1


def test_watch_of_a_failed_backup(agent, command):
    agent.says(FAILED)
    status, output, error = command("watch", "b-1")
    assert (status, error) == (1, "lab/appliance: snapshot_error\n")
    assert output == f"{DISK} full failed, 5 bytes of 20 bytes\n"


def test_watch_gives_up_on_an_active_backup_with_an_error(agent, command):
    agent.says(ACTIVE, ACTIVE | {"connection_error": True})
    status, _, error = command("watch", "b-1")
    assert (status, error) == (1, "lab/appliance: connection_error\n")
    assert len(agent.requests) == 2


def test_watch_of_no_volumes(agent, command):
    agent.says(FINISHED | {"details": None})
    assert command("watch", "b-1") == (0, "", "")


def status_of(status, **transfer):
    """That status of a backup, with these values in what it tells of the transfer."""
    [entry] = status["details"]
    return status | {"details": [entry | {"transfer": entry["transfer"] | transfer}]}


def lines_of(*statuses, **options):
    """What is shown of statuses that follow one another at once, where nobody looks on."""
    stream = io.StringIO()
    with shown_progress(stream, **options) as progress:
        for status in statuses:
            progress(status)
    return stream.getvalue().splitlines()


def test_watch_of_a_volume_whose_size_is_not_known(agent, command):
    agent.says(status_of(FAILED, totalSize=(1 << 64) - 1))
    assert command("watch", "b-1")[1] == f"{DISK} full failed, 5 bytes\n"


def test_type_is_not_shown_before_it_is_settled():
    assert lines_of(status_of(ACTIVE, totalSize=(1 << 64) - 1)) == [f"{DISK} preparing"]


def test_estimate_below_zero_is_not_shown():
    assert lines_of(status_of(ACTIVE, totalSize=(1 << 64) - 4096)) == [f"{DISK} full active, 5 bytes"]


def test_end_is_shown_as_all_that_there_was():
    assert lines_of(status_of(FINISHED, totalSize=25)) == [f"{DISK} full finished, 20 bytes of 20 bytes"]


def test_lines_are_few_while_only_bytes_go_by():
    changes = [status_of(ACTIVE, bytesTransferred=count) for count in range(3)]
    assert lines_of(*changes, FINISHED) == [f"{DISK} full active, 0 bytes of 20 bytes",
                                            f"{DISK} full finished, 20 bytes of 20 bytes"]


def test_volumes_by_name():
    [line] = lines_of(FAILED, names={DISK: "data"}, prefix="  | ")
    assert line == "  | data full failed, 5 bytes of 20 bytes"


def test_bars_on_a_terminal():
    class Terminal(io.StringIO):
        def isatty(self):
            return True

    terminal = Terminal()
    with shown_progress(terminal) as progress:
        progress(ACTIVE)
        progress(FINISHED)
    assert DISK in terminal.getvalue()
    assert "20/20 bytes" in terminal.getvalue()
    assert "full finished" in terminal.getvalue()


def test_cancel(agent, command):
    agent.says({"success": True, "errorString": ""})
    assert command("cancel", "b-1") == (0, "", "")
    assert agent.requests == [("DELETE", "/backup/b-1", "")]
    agent.says({"success": False, "errorString": "not running"})
    assert command("cancel", "b-1") == (1, "", "lab/appliance: not running\n")


def test_logs(agent, command):
    agent.says({"log": [{"message": "Agent daemon started", "severity": 2, "timestamp": 86400 * 365}],
                "error": ["failed reading log file for 2026-01-01"]})
    status, output, error = command("logs", "--lines", "5", "--from", "2026-01-01", "--until", "2026-01-02",
                                    "--severity", "4")
    assert (status, error) == (0, "lab/appliance: failed reading log file for 2026-01-01\n")
    assert output.startswith("1971-01-01 ") or output.startswith("1970-12-31 ")
    assert output.endswith(" 2 Agent daemon started\n")
    assert agent.requests == [("GET", "/event?lines=5&from=2026-01-01&until=2026-01-02&severity=4", "")]


HOSTILE = "\x1b[2J\x07\r\x7f\x9b2J\x00"
HARMLESS = r"\x1b[2J\x07\r\x7f\x9b2J\x00"


def test_terminal_gets_no_control_characters(agent, command):
    """Wherever the agent's words are shown. Its log has those of strangers."""
    agent.says((500, "text/plain", HOSTILE))
    assert command("host") == (1, "", f"lab/appliance: HTTP status 500: {HARMLESS}\n")
    agent.says((201, "text/plain", HOSTILE))
    assert command("backup", "--volume", "guid=1", "--target", "t", "--name", "n") == (0, HARMLESS + "\n", "")
    agent.says({"hostName": "\x7f\x9b2J\x85bücher"})
    assert command("host") == (0, '{\n    "hostName": "\\x7f\\x9b2J\\x85bücher"\n}\n', "")
    agent.says({"success": False, "errorString": HOSTILE})
    assert command("cancel", "b-1") == (1, "", f"lab/appliance: {HARMLESS}\n")
    message = f"one{HOSTILE}\n1999-01-01 00:00:00 5 two"
    agent.says({"log": [{"message": message, "severity": 2, "timestamp": 0}], "error": [HOSTILE]})
    status, output, error = command("logs")
    assert (status, error) == (0, f"lab/appliance: {HARMLESS}\n")
    assert output.endswith(f" 2 one{HARMLESS}\n    1999-01-01 00:00:00 5 two\n")
    agent.says(FINISHED | {"details": [FINISHED["details"][0] | {"volume": HOSTILE}]})
    status, output, error = command("watch", "b-1")
    assert (status, error) == (0, "")
    assert HARMLESS in output and "\x1b" not in output


def test_connection_stays_open(agent, appliance):
    agent.says({"status": "active"})
    for _ in range(5):
        assert appliance.status("b-1") == (200, "application/json", {"status": "active"})
    assert (agent.connections, appliance.connections) == (1, 1)


def test_connection_closed_meanwhile_is_opened_again(agent, appliance):
    agent.says((200, "text/plain", "fine"))
    agent.closes_after_answer = True
    for _ in range(3):
        assert appliance.host() == (200, "text/plain", "fine")
    assert len(agent.requests) == 3


def test_no_request_is_sent_twice(agent, appliance):
    agent.says((200, "text/plain", "fine"), None, (201, "text/plain", "b-2"))
    appliance.host()
    with pytest.raises(NoAnswer):
        appliance.backup([volume("0f1e", target="t", name="n", lun=1)])
    assert [method for method, _, _ in agent.requests] == ["GET", "POST"]
    assert appliance.backup([]).content == "b-2"


def test_identifier_cannot_break_out_of_its_place(agent, appliance):
    agent.says((200, "text/plain", ""))
    appliance.cancel("../config?x")
    assert agent.requests == [("DELETE", "/backup/..%2Fconfig%3Fx", "")]
