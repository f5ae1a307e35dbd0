"""lab/appliance and the class behind it: the request of each call, and how each kind of answer is shown.

A server that records requests and gives prepared answers plays the agent.
"""
import json
import pathlib
import subprocess
import time

import pytest

from appliance_site import ACTIVE, DISK, FAILED, FINISHED, SECONDS, Agent, status_of
from lab.appliance_client import Answer, Appliance, NoAnswer, Unreachable, volume
from lab.certificates import Authority
from lab.watch import LIMIT_SECONDS, RUN_BEGINS, UnchangedTimer, ending_of, reason_lines

ROOT = pathlib.Path(__file__).resolve().parents[2]


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
    """Runs lab/appliance; returns its exit status, standard output and standard error."""
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
    assert (status, error) == (
        2, "lab/appliance: 127.0.0.1 port 1: [Errno 111] Connection refused\n"
           "lab/appliance: no agent listens there. See whether bekd runs, and what its last log in "
           "/etc/tolvu/bek/logs says; one in a site is reached from within: lab/site shell lab/appliance "
           "...\n")


def test_certificate_that_is_not_there(agent, authority, tmp_path):
    done = subprocess.run([ROOT / "lab" / "appliance", "--port", str(agent.port), "--cert",
                           tmp_path / "none.pem", "--ca", authority.certificate, "list"],
                          capture_output=True, text=True, check=False, timeout=SECONDS)
    assert (done.returncode, agent.requests) == (64, [])
    assert done.stderr == (f"lab/appliance: --cert: {tmp_path}/none.pem can't be read (No such file or "
                           "directory); lab/site up --paired makes the files that are used by default\n")


def test_agent_of_another_authority(agent, device, tmp_path):
    stranger = Authority(tmp_path)
    with Appliance(port=agent.port, certificate=device.certificate, key=device.key,
                   authority=stranger.certificate) as appliance:
        with pytest.raises(Unreachable, match="CERTIFICATE_VERIFY_FAILED"):
            appliance.host()


@pytest.mark.parametrize("arguments", [
    (), ("nonsense",), ("pair", "x"), ("loglevel", "loud"), ("config", "x"), ("backup", "--volume", "lun=1"),
    ("backup", "--volume", "guid=1,a=2"),
    ("backup", "--volume", "guid=1,mount=/mnt,target=t,name=n"),
    ("backup", "--volume", "guid=1"), ("backup", "--request", "/none"),
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


def test_volume_by_its_mount_point(agent, command):
    host = {"volumes": [{"guid": "0f1e", "mountpoints": ["/mnt/data", "/srv"]},
                        {"guid": "2a2b", "mountpoints": ["<swap>"]}]}
    agent.says(host, (201, "text/plain", "b-1"))
    words = ("backup", "--target", "t", "--name", "n", "--volume")
    assert command(*words, "mount=/srv,lun=3") == (0, "b-1\n", "")
    assert [path for _, path, _ in agent.requests] == ["/host", "/backup"]
    [sent] = json.loads(agent.requests[1][2])["volumes"]
    assert (sent["guid"], sent["lun"], "mount" in sent) == ("0f1e", 3, False)
    agent.says(host)
    assert command(*words, "mount=/none") == (
        64, "", "lab/appliance: the agent knows no volume mounted at /none; there is /mnt/data, /srv\n")


def test_backup_over_the_second_transport(agent, command, tmp_path):
    """Each image has its own secret and a 64-bit volume ID. No part of a secret is shown."""
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
    assert output.splitlines() == ["b-1", f"{DISK} full active, 5.0 MB of 20.0 MB",
                                   f"{DISK} full finished, 20.0 MB of 20.0 MB"]
    assert [path for _, path, _ in agent.requests] == ["/backup"] + 3 * ["/backup/b-1"]
    assert agent.connections == 1


def test_watch_of_a_failed_backup(agent, command):
    """The first error of the backup's own run is the reason: not an error of an earlier backup, nor of the
    cleanup."""
    agent.says(FAILED, log_of((4, "earlier"), (2, f"{RUN_BEGINS}b-0"), (4, "of another"),
                              (2, f"{RUN_BEGINS}b-1"), (2, "harmless"), (4, "the reason [failure:why]"),
                              (4, "Failed to run post backup!"), (2, f"{RUN_BEGINS}b-2"), (4, "later")))
    status, output, error = command("watch", "b-1")
    assert (status, error) == (1, "lab/appliance: snapshot_error\nlab/appliance: the reason [failure:why]\n")
    assert output == f"{DISK} full failed, 5.0 MB of 20.0 MB\n"
    assert agent.requests[-1] == ("GET", "/event?lines=10000&severity=2", "")


def log_of(*lines):
    """An answer to a log request, made of pairs of severity and text."""
    return {"log": [{"message": text, "severity": severity, "timestamp": number}
                    for number, (severity, text) in enumerate(lines)], "error": []}


def test_lines_of_several_files_are_put_in_order():
    """The lines are of two days; the agent returns the files in any order."""
    class Agent:
        @staticmethod
        def logs(**_options):
            log = log_of((2, f"{RUN_BEGINS}b-1"), (4, "first"), (4, "second"))
            return Answer(200, "application/json", {"log": log["log"][2:] + log["log"][:2], "error": []})

    assert reason_lines(Agent, "b-1") == ["first"]


def test_watch_of_a_failed_backup_whose_log_says_nothing(agent, command):
    """The log's threshold may be too high for the reason."""
    agent.says(FAILED, log_of((4, "of nobody knows whom")))
    assert command("watch", "b-1")[2] == (
        "lab/appliance: snapshot_error\nlab/appliance: the agent's log doesn't say why: lab/appliance logs\n")


@pytest.mark.parametrize("line", [
    "Iscsi target connect or Login failed: Try: 1 Target name: iqn.2026-01.example:images Target portal: "
    "10.0.0.1:3260 LUN: 1. Error: iscsi_service failed with : iscsi_service_reconnect_if_loggedin. Can not "
    "reconnect right now.",
    "Try: 1 Couldn't connect to zephane://10.0.0.1:3260/x/1 code: -111 message: cannot connect: Connection "
    "refused"])
def test_refused_port_of_a_target(agent, command, line):
    agent.says(ACTIVE | {"connection_error": True}, log_of((2, f"{RUN_BEGINS}b-1"), (4, line)))
    assert command("watch", "b-1")[2].splitlines() == [
        "lab/appliance: connection_error", f"lab/appliance: {line}",
        "lab/appliance: nobody listens at 10.0.0.1:3260, most likely: see whether the target is up there, "
        "and compare address and port"]


def test_watch_gives_up_on_an_active_backup_with_an_error(agent, command):
    agent.says(ACTIVE, ACTIVE | {"connection_error": True}, log_of((2, f"{RUN_BEGINS}b-1"), (4, "gone")))
    status, _, error = command("watch", "b-1")
    assert (status, error) == (1, "lab/appliance: connection_error\nlab/appliance: gone\n")
    assert len(agent.requests) == 3


def test_watch_ends_with_a_run_whose_status_stays_active(agent, command):
    agent.says(ACTIVE)
    agent.log = log_of((2, f"{RUN_BEGINS}b-1"), (4, "Volume 0f1e is NOT mounted"),
                       (4, "Exception occurred during backup run: No device available."))
    status, _, error = command("watch", "b-1")
    assert (status, error.splitlines()) == (1, [
        'lab/appliance: the run has ended, whatever its status says: it stays "active" until the agent is '
        'restarted', "lab/appliance: Volume 0f1e is NOT mounted"])


def test_watch_goes_on_while_the_run_does(agent, command):
    """The status doesn't change for a while, as when the target is silent."""
    agent.says(*5 * [ACTIVE], FINISHED)
    agent.log = log_of((2, f"{RUN_BEGINS}b-1"), (4, "Try: 1"))
    assert command("watch", "b-1")[0] == 0
    assert "/event" in " ".join(path for _, path, _ in agent.requests)


def test_watch_has_a_limit():
    """The watch gives up if the log doesn't show either that the backup has ended. The backup may go on."""
    class Agent:
        @staticmethod
        def logs(**_options):
            return Answer(200, "application/json", log_of())

    assert ending_of(Agent, "b-1", ACTIVE, LIMIT_SECONDS - 1) is None
    assert ending_of(Agent, "b-1", ACTIVE, LIMIT_SECONDS) == [
        "nothing has changed for 15 minutes, and the log tells of no end; watched no longer: "
        "lab/appliance cancel b-1 ends the backup"]
    unchanged = UnchangedTimer()
    unchanged.seconds(ACTIVE)
    time.sleep(0.5)
    quiet = unchanged.seconds(ACTIVE | {"elapsedTime": 9})
    assert quiet >= 0.5
    assert unchanged.seconds(status_of(ACTIVE, bytesTransferred=6)) < quiet


def test_watch_of_no_volumes(agent, command):
    agent.says(FINISHED | {"details": None})
    assert command("watch", "b-1") == (0, "", "")


def test_watch_of_a_volume_whose_size_is_not_known(agent, command):
    agent.says(status_of(FAILED, totalSize=(1 << 64) - 1))
    assert command("watch", "b-1")[1] == f"{DISK} full failed, 5.0 MB\n"


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
    """Texts of the agent are escaped wherever they are shown, as its log contains texts of strangers."""
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
