"""The protocol of docs/formats/zephane.md, implemented a second time from that page alone, for tests that
change it.

It reveals errors that both ends of the product share: messages of this module are as that page describes
them. All sizes are in bytes.
"""
import dataclasses
import hashlib
import hmac
import os
import struct

MAGIC = b"ZEPHANE\x01"
COMPARE, COMPRESS, WRITABLE = 1, 2, 8
NO_ACCESS, BUSY = -13, -16
NBD, DIGEST_REQUEST, DIGEST_ANSWER = 0, 1, 2
FRAME_LIMIT = 1 << 18
DIGEST_LIMIT = 4 << 20
DIGEST_UNIT = 1 << 16
PROOF = 32
NONCE = 32


def message(body):
    return struct.pack(">H", len(body)) + body


def receive_message(connection):
    """A message, including its length field."""
    head = connection.receive(2)
    return head + connection.receive(struct.unpack(">H", head)[0])


def client_hello(path, volume_id, flags=WRITABLE, client=None, nonce=None):
    path = path if isinstance(path, bytes) else path.encode()
    return message(MAGIC + struct.pack(">QQ", flags, volume_id) + (client or os.urandom(16)) +
                   (nonce or os.urandom(NONCE)) + message(path))


def server_hello(nonce=None):
    return message(MAGIC + (nonce or os.urandom(NONCE)))


def key_of(secret):
    """HKDF-SHA-256, of which one block is enough."""
    inner = hmac.digest(b"zephane 1", secret.encode(), "sha256")
    return hmac.digest(inner, b"proof\x01", "sha256")


def proof_of(secret, role, transcript, exporter):
    """The proof of a role; `role` is "client" or "server", `transcript` has all messages before it."""
    content = role.encode() + b"\0" + hashlib.sha256(transcript).digest() + exporter
    return hmac.digest(key_of(secret), content, "sha256")


def client_proof(secret, transcript, exporter):
    return message(proof_of(secret, "client", transcript, exporter))


def grant(secret, transcript, exporter, flags):
    """The verdict of a server that accepts the client; `transcript` ends with the client's proof."""
    head = struct.pack(">HiQ", 12 + PROOF, 0, flags)
    return head + proof_of(secret, "server", transcript + head, exporter)


def refusal(code, text):
    return message(struct.pack(">i", code) + message(text.encode()))


@dataclasses.dataclass(frozen=True)
class Verdict:
    code: int
    flags: int = 0
    proof: bytes = b""
    text: str = ""


def verdict_of(whole):
    body = whole[2:]
    [code] = struct.unpack(">i", body[:4])
    if code:
        return Verdict(code, text=body[6:].decode())
    return Verdict(code, *struct.unpack(">Q", body[4:12]), body[12:])


def frame(kind, payload, length=None):
    """A frame; `length` is the value for its header, if it is to be wrong."""
    return bytes([kind]) + (len(payload) if length is None else length).to_bytes(3, "big") + payload


def frames(kind, data):
    """Splits data into as few frames as possible."""
    return b"".join(frame(kind, data[begin:begin + FRAME_LIMIT])
                    for begin in range(0, len(data), FRAME_LIMIT))


def digest_request(offset, length):
    return frame(DIGEST_REQUEST, struct.pack(">QI", offset, length))


def digests_of(data):
    return b"".join(hashlib.sha256(data[begin:begin + DIGEST_UNIT]).digest()
                    for begin in range(0, len(data), DIGEST_UNIT))
