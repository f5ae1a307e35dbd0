"""A client of the device API with which tests control every single byte.

    client = Client(authority.certificate, device)
    answer = client.request("GET", "/host")        # None: the connection was closed without an answer

`Connection` is one TLS connection for raw bytes; `Client.connect` opens one.
"""
import contextlib
import dataclasses
import http.client
import socket
import ssl
import urllib.parse

from lab.appliance_client import PORT

BASE_URL = f"https://127.0.0.1:{PORT}"
SECONDS = 60


@dataclasses.dataclass(frozen=True)
class Answer:
    status: int
    content_type: str
    body: bytes


class Connection:
    """A TLS connection. If no answer comes, as the other side has closed or is silent, the answer is None."""

    def __init__(self, wrapped):
        self.socket = wrapped

    def send(self, data):
        self.socket.sendall(data)

    def send_request(self, method, url, body=None, headers=()):
        """Sends a whole request. If there is a body, Content-Length is sent with it."""
        length = () if body is None else (f"Content-Length: {len(body)}",)
        lines = (f"{method} {url} HTTP/1.1", "Host: agent", *length, *headers, "", "")
        self.send("\r\n".join(lines).encode("latin-1") + (body or b""))

    def read_answer(self, method="GET"):
        response = http.client.HTTPResponse(self.socket, method=method)
        try:
            response.begin()
            return Answer(response.status, response.getheader("Content-Type"), response.read())
        except (http.client.HTTPException, ConnectionError, TimeoutError, ssl.SSLError):
            return None

    def request(self, method, url, body=None):
        """Returns the answer, or None if there was none. The connection stays open for another request."""
        with contextlib.suppress(ConnectionError, ssl.SSLError): # an early refusal may still have an answer
            self.send_request(method, url, body)
        return self.read_answer(method)

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()


class Client:
    """A client: the address of the API, and the client's identity of lab.certificates, or None for no
    certificate. `source` is the local address to connect from."""

    def __init__(self, authority, identity=None, base_url=BASE_URL, source=None):
        parts = urllib.parse.urlsplit(base_url)
        self.address = (parts.hostname, parts.port)
        self.source = None if source is None else (source, 0)
        self.context = ssl.create_default_context(cafile=str(authority))
        if identity is not None:
            self.context.load_cert_chain(str(identity.certificate), str(identity.key))

    def connect(self):
        plain = socket.create_connection(self.address, SECONDS, self.source)
        plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return Connection(self.context.wrap_socket(plain, server_hostname=self.address[0]))

    def request(self, method, url, body=None):
        """Sends one request on a connection of its own."""
        with self.connect() as connection:
            return connection.request(method, url, body)
