#!/usr/bin/env python3
"""usage: tests/fuzz/make_zephane_seeds.py DIRECTORY

Makes the seeds of the corpora zephane_server and zephane_client, in a folder each: what one end of a
connection sends from its hello on, after the mode byte that ZephanePeer.h describes. Needs the program
zstd."""
import hashlib
import pathlib
import struct
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

from lab.arguments import parser_of, text_of  # noqa: E402

HOLDS_SECRET, COMPRESSES = 1, 2
BYTE_BY_BYTE, BY_HUNDREDS = 0x40, 0xC0
NBD, REQUEST, ANSWER = 0, 1, 2
MARK = b"ZEPHANE\1"
UNIT = 65536
ZEROS = bytes(2 * UNIT)


def message(body):
    return struct.pack(">H", len(body)) + body


def frame(kind, payload):
    return struct.pack(">I", kind << 24 | len(payload)) + payload


def client_hello(path, flags=9):
    return message(MARK + struct.pack(">QQ16s32sH", flags, 7, b"client", b"nonce", len(path)) + path)


def digests(data):
    parts = (data[start:start + UNIT] for start in range(0, len(data), UNIT))
    return struct.pack(">i", 0) + b"".join(hashlib.sha256(part).digest() for part in parts)


def compressed(data):
    return subprocess.run(["zstd", "-1", "-c"], input=data, stdout=subprocess.PIPE, check=True).stdout


def old_format(version):
    """A stream in one of zstd's legacy formats, whose header asks for a window of 64 or 128 MiB."""
    windows = {5: b"\x0f\0", 6: b"\x0f\0", 7: b"\0\x88"}
    return bytes([0x20 + version, 0xB5, 0x2F, 0xFD]) + windows[version] + bytes(58)


def server_seeds():
    hello = client_hello(b"host1/data")
    shaken = hello + message(bytes(32))
    stream = (frame(NBD, b"\0\0\0\3IHAVEOPT") + frame(REQUEST, struct.pack(">QI", UNIT, 3 * UNIT)) +
              frame(NBD, b"x" * 300) + frame(REQUEST, struct.pack(">QI", 0, 1)))
    yield "plain", HOLDS_SECRET, shaken + stream
    yield "byte_by_byte", HOLDS_SECRET | BYTE_BY_BYTE, shaken + stream
    yield "compressed", HOLDS_SECRET | COMPRESSES, shaken + compressed(stream)
    yield "bomb", HOLDS_SECRET | COMPRESSES | BY_HUNDREDS, shaken + compressed(frame(NBD, ZEROS) * 50)
    for version in (5, 6, 7):
        yield f"format_{version}", HOLDS_SECRET | COMPRESSES, shaken + old_format(version)
    yield "no_secret", 0, shaken
    yield "other_image", HOLDS_SECRET, client_hello("häst2/data".encode()) + message(bytes(32))
    yield "all_flags", HOLDS_SECRET, client_hello(b"host1/data", 11) + message(bytes(32))
    yield "cut", HOLDS_SECRET, hello[:50]


def client_seeds():
    hello = message(MARK + b"nonce".ljust(32, b"\0"))
    granted = message(struct.pack(">iQ32s", 0, 9, b""))
    stream = (frame(NBD, b"NBDMAGIC") + frame(ANSWER, digests(ZEROS)) + frame(NBD, b"x" * 300) +
              frame(ANSWER, struct.pack(">i", -5)) + frame(ANSWER, digests(ZEROS[:UNIT + 1])))
    yield "plain", HOLDS_SECRET, hello + granted + stream
    yield "by_hundreds", HOLDS_SECRET | BY_HUNDREDS, hello + granted + stream
    yield "compressed", HOLDS_SECRET | COMPRESSES, hello + granted + compressed(stream)
    yield "bomb", HOLDS_SECRET | COMPRESSES, hello + granted + compressed(frame(NBD, ZEROS) * 50)
    for version in (5, 6, 7):
        yield f"format_{version}", HOLDS_SECRET | COMPRESSES, hello + granted + old_format(version)
    yield "too_much", HOLDS_SECRET, hello + message(struct.pack(">iQ32s", 0, 11, b""))
    yield "no_secret", 0, hello + granted
    yield "refused", 0, hello + message(struct.pack(">iH", -13, 2) + b"no")


def main(target):
    for name, seeds in (("zephane_server", server_seeds()), ("zephane_client", client_seeds())):
        (target / name).mkdir(parents=True, exist_ok=True)
        for seed, mode, sent in seeds:
            (target / name / seed).write_bytes(bytes([mode]) + sent)


if __name__ == "__main__":
    parser = parser_of(__doc__)
    parser.add_argument("directory", type=pathlib.Path, metavar="DIRECTORY")
    try:
        main(parser.parse_args().directory)
    except (OSError, subprocess.CalledProcessError) as error:
        sys.exit(f"make_zephane_seeds.py: {text_of(error)}")
