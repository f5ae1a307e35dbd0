"""For the tests of lab/appliance: an agent that gives prepared answers, and statuses of backups."""
import http.server
import json
import ssl
import threading

SECONDS = 60
DISK = "0f1e"
MB = 1_000_000
ACTIVE, FINISHED, FAILED = (
    {"elapsedTime": 1, "connection_error": False, "snapshot_error": state == "failed", "status": state,
     "details": [{"volume": DISK, "status": state, "type": "full",
                  "transfer": {"bytesTransferred": done * MB, "totalSize": 20 * MB}}]}
    for state, done in (("active", 5), ("finished", 20), ("failed", 5)))


class Agent:
    """Answers requests in turn with the entries of `answers`: (status, content type, text), or None to close
    the connection. The last entry answers all further requests."""

    def __init__(self, authority):
        self.answers = [(200, "text/plain", "")]
        self.log = None # the answer to any request for the log
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

    def answer_to(self, path):
        if path.startswith("/event") and self.log is not None:
            return 200, "application/json", json.dumps(self.log)
        return self.answers.pop(0) if len(self.answers) > 1 else self.answers[0]

    def _handler(self):
        """A handler class that refers to this Agent, as http.server passes handlers no other arguments."""
        agent = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def setup(self):
                super().setup()
                agent.connections += 1

            def respond(self):
                body = self.rfile.read(int(self.headers.get("Content-Length", 0))).decode()
                agent.requests.append((self.command, self.path, body))
                answer = agent.answer_to(self.path)
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
                """Logs nothing: `requests` has all requests."""

        return Handler

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_exception):
        self._server.shutdown()
        self._thread.join(SECONDS)
        self._server.server_close()


def status_of(status, **transfer):
    """A backup's status, with these values in its transfer."""
    [entry] = status["details"]
    return status | {"details": [entry | {"transfer": entry["transfer"] | transfer}]}
