"""Greylisting database files (docs/greylisting-database.md), written and read without the program."""

import struct
import time
import zlib

_MAGIC = b"\x3f\xc7\x6a\xa2"
_UNIX_EPOCH = 25569.0  # in days since that of the file


class Corrupted(Exception):
    pass


def _property(name, kind, value):
    return bytes([len(name)]) + name.encode() + kind + value


def write_database(path, keys, days=30):
    """Accepted records with these keys, which expire in so many days."""
    expires = time.time() / 86400 + _UNIX_EPOCH + days
    payload = bytearray(_property("C", b"i", struct.pack("<i", len(keys))))
    for number, key in enumerate(keys, 1):
        for name, kind, value in (("R", b"i", struct.pack("<i", 1)), ("D", b"d", struct.pack("<d", expires - days)),
                                  ("X", b"d", struct.pack("<d", expires)),
                                  ("K", b"b", struct.pack("<H", len(key)) + key.encode())):
            payload += _property(f"{number}{name}", kind, value)
    payload += struct.pack("<I", zlib.crc32(payload))
    path.write_bytes(_MAGIC + struct.pack("<I", len(payload)) + payload)


def read_keys(path):
    """The keys in their order; Corrupted unless the file is whole."""
    content = path.read_bytes()
    payload = content[8:]
    if content[:4] != _MAGIC or len(content) < 12 or struct.unpack("<I", content[4:8])[0] != len(payload):
        raise Corrupted(f"{path}: {len(content)} bytes")
    if struct.pack("<I", zlib.crc32(payload[:-4])) != payload[-4:]:
        raise Corrupted(f"{path}: wrong checksum")
    at = 0

    def take(name, kind):
        nonlocal at
        wanted = _property(name, kind, b"")
        if payload[at:at + len(wanted)] != wanted:
            raise Corrupted(f"{path}: no {name} at {at}")
        at += len(wanted)
        size = {b"i": 4, b"d": 8}.get(kind)
        if size is None:
            size = struct.unpack_from("<H", payload, at)[0]
            at += 2
        at += size
        return payload[at - size:at]

    count, = struct.unpack("<i", take("C", b"i"))
    keys = []
    for number in range(1, count + 1):
        for name, kind in (("R", b"i"), ("D", b"d"), ("X", b"d")):
            take(f"{number}{name}", kind)
        keys.append(take(f"{number}K", b"b").decode())
    if at != len(payload) - 4:
        raise Corrupted(f"{path}: more behind the records")
    return keys
