"""The certificate service of the lab: an HTTPS server that signs the agents' requests with the lab's
authority.

    authority = Authority(directory)
    trust(authority)                                 # only in lab/namespace
    with CertificateService(authority) as service:
        ...
        service.requests                             # the requests, as the agent sent them

By hand, in a shell that lab/namespace runs; SIGTERM or SIGINT ends it:

    python3 -m lab.certservice /run/lab --device 4711

`fault` makes the service misbehave; it is one of FAULTS.
"""
import argparse
import http.server
import json
import os
import pathlib
import shutil
import signal
import ssl
import threading

from lab.certificates import Authority, CertificateError
from lab.resources import Resource

HOST = "certificates.tolvu.example"
PATH = "/certApi.php"
MOVED_PATH = PATH + "?moved"
PORT = 443
SERVICE_KEY = "lab-service-key"
LONGEST_REQUEST = 1 << 20
HUGE = 8 << 20
STOP_SECONDS = 10

FAULTS = {
    "slow": "takes the request and never answers",
    "trickle": "answers one byte after the other, without end",
    "500": "HTTP status 500 and a page of HTML",
    "500-json": "HTTP status 500 with a well-formed answer that tells of failure",
    "500-success": "HTTP status 500 with an answer that is good otherwise",
    "not-json": "a page of HTML",
    "wrong-keys": "JSON with other keys",
    "failed": "an answer that tells of failure",
    "no-authority": "the certificate is issued, but that of the authority can't be had",
    "another-key": "a certificate for a key that nobody asked for",
    "garbage": "a certificate that is none",
    "huge": "an answer of many megabytes",
    "redirect": "HTTP status 307 to a place where the service works",
}


class Refusal(Exception):
    """A request that is answered with "failed"."""


def require_private_etc():
    if not os.path.ismount("/etc"):
        raise RuntimeError("/etc isn't private: run this in lab/namespace")


def resolve(host=HOST, address="127.0.0.1"):
    """Makes the service's host name resolve on this machine."""
    require_private_etc()
    with open("/etc/hosts", "a", encoding="ascii") as hosts:
        hosts.write(f"{address} {host}\n")


def trust(authority, host=HOST):
    """Makes this machine resolve the service's name, and trust the authority that signed its certificate."""
    resolve(host)
    with open("/etc/ssl/certs/ca-certificates.crt", "a", encoding="ascii") as bundle:
        bundle.write(authority.certificate.read_text(encoding="ascii"))


class Handler(http.server.BaseHTTPRequestHandler):
    """One connection; `server.service` is the CertificateService."""

    protocol_version = "HTTP/1.1"
    timeout = 60

    def do_PUT(self):
        service = self.server.service
        length = int(self.headers.get("Content-Length", 0))
        if self.path not in (PATH, MOVED_PATH) or not 0 < length <= LONGEST_REQUEST:
            self.answer(404, "text/plain", b"Not found")
            return
        body = self.rfile.read(length)
        service.requests.append((dict(self.headers), body))
        if service.fault in ("slow", "trickle"):
            self.stall(service)
            return
        if service.fault == "redirect" and self.path == PATH:
            self.answer(307, "text/html", b"", ("Location", f"https://{service.host}{MOVED_PATH}"))
            return
        if service.fault in ("500", "not-json"):
            self.answer(500 if service.fault == "500" else 200, "text/html", b"<html>Out of order</html>")
            return
        status = 500 if service.fault in ("500-json", "500-success") else 200
        self.answer(status, "application/json", json.dumps(service.reply(body)).encode())

    def stall(self, service):
        """Keeps the client waiting until it disconnects or the service is stopped."""
        if service.fault == "trickle":
            self.send_response(200)
            self.send_header("Content-Length", str(HUGE))
            self.end_headers()
        while not service.stopping.wait(0.05):
            if service.fault == "trickle":
                self.wfile.write(b"{")
        self.close_connection = True

    def answer(self, status, content_type, body, *headers):
        self.send_response(status)
        for name, value in (("Content-Type", content_type), ("Content-Length", str(len(body))), *headers):
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_arguments):
        """Logs nothing: `requests` has all requests."""


class Server(http.server.ThreadingHTTPServer):
    """Prints no errors: it is normal that a client breaks off, or rejects the server's certificate."""

    daemon_threads = False

    def __init__(self, address, service):
        super().__init__(address, Handler)
        self.service = service

    def finish_request(self, request, client_address):
        # The TLS handshake runs in the connection's own thread, so a silent client doesn't block the others.
        request.settimeout(Handler.timeout)
        with self.service.context.wrap_socket(request, server_side=True) as secured:
            super().finish_request(secured, client_address)

    def handle_error(self, request, client_address):
        """Prints nothing: the client sees the error itself."""


class CertificateService(Resource):
    """The service, in a thread of this process."""

    def __init__(self, authority, *, identity=None, fault=None, host=HOST, address="127.0.0.1", port=PORT,
                 service_key=SERVICE_KEY):
        if fault is not None and fault not in FAULTS:
            raise ValueError(f"no such fault: {fault}")
        super().__init__()
        self.authority = authority
        self.host = host
        self.fault = fault
        self.requests = []
        self.stopping = threading.Event()
        self._service_key = service_key
        self._place = (address, port)
        identity = identity or authority.issue(
            host, more=("tls_www_server", "signing_key", "encryption_key", f'dns_name = "{host}"'))
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(identity.certificate, identity.key)
        self._server = None
        self._thread = None

    def reply(self, body):
        """The answer to a request body, which may be malformed."""
        try:
            request = json.loads(body)
            certificate = self.certificate_for(request)
        except (ValueError, KeyError, TypeError, Refusal, CertificateError):
            return {"status": "failed", "certificate": ""}
        if self.fault == "wrong-keys":
            return {"Status": "success", "Certificate": certificate}
        return {"status": "success", "certificate": certificate}

    def certificate_for(self, request):
        if (request["caId"], request["caVersion"]) != ("bek", 1):
            raise Refusal("an unknown authority")
        if self.fault in ("failed", "500-json"):
            raise Refusal("told to")
        if self.fault == "garbage":
            return "-----BEGIN CERTIFICATE-----\nbm90IGEgY2VydGlmaWNhdGU=\n-----END CERTIFICATE-----\n"
        if self.fault == "huge":
            return "x" * HUGE
        if request["action"] == "retrieveCaCert":
            if self.fault == "no-authority":
                raise Refusal("told to")
            return self.authority.certificate.read_text(encoding="ascii")
        if request["action"] != "issueCert" or request["key"] != self._service_key:
            raise Refusal("an unknown action or a stranger")
        if self.fault == "another-key":
            return self.authority.agent().certificate_pem
        return self.authority.sign_request(request["certificateRequest"])

    def start(self):
        self._server = Server(self._place, self)
        self._thread = threading.Thread(target=self._server.serve_forever, kwargs={"poll_interval": 0.05})
        self._thread.start()
        return self

    def stop(self):
        self.stopping.set()
        self._server.shutdown()
        self._thread.join(STOP_SECONDS)
        self._server.server_close()

    def open(self, stack):
        self.start()
        stack.callback(self.stop)


def store_device(authority, number, directory, name="device"):
    """Makes an appliance's key and certificate, and stores them as `name`.key and `name`.pem."""
    device = authority.device(number)
    shutil.copy(device.key, directory / f"{name}.key")
    shutil.copy(device.certificate, directory / f"{name}.pem")


def parse_arguments():
    parser = argparse.ArgumentParser(prog="python3 -m lab.certservice", description=__doc__.split("\n")[0])
    parser.add_argument("directory", type=pathlib.Path, help="where the authority and its certificates go")
    parser.add_argument("--device", metavar="ID", help="also make device.key and device.pem of an appliance")
    parser.add_argument("--port", type=int, default=PORT)
    parser.add_argument("--fault", choices=FAULTS, help="; ".join(f"{name}: {what}"
                                                                  for name, what in FAULTS.items()))
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    authority = Authority(arguments.directory)
    shutil.copy(authority.certificate, arguments.directory / "ca.crt")
    if arguments.device:
        store_device(authority, arguments.device, arguments.directory)
    trust(authority)
    stop = {signal.SIGTERM, signal.SIGINT}
    signal.pthread_sigmask(signal.SIG_BLOCK, stop)
    with CertificateService(authority, fault=arguments.fault, port=arguments.port):
        print(f"{HOST}:{arguments.port} is ready", flush=True)
        signal.sigwait(stop)


if __name__ == "__main__":
    main()
