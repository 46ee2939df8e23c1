#!/usr/bin/env python3
"""Writes the small seed corpora of the fuzz targets into corpus/<target>/ (run again
after changing a target's input format)."""

import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def attrib(read_only=False):
    return struct.pack("<QQ", 0x10000, 1 if read_only else 0)


def value(index, word=0, payload=b""):
    return struct.pack("<QQ", index, word) + payload


def string(text):
    return value(10, len(text) + 1, text + b"\0")


def frame(path, val, att=None):
    att = attrib() if att is None else att
    return bytes([len(path)]) + path + bytes([len(att)]) + att + struct.pack("<H", len(val)) + val


def tree():
    """A small device tree in row order: maps, a list of 12 (10 and 11 before 2), scalars."""
    rows = [
        (b"", value(2)),
        (b"dev/", value(2)),
        (b"dev/fw/", string(b"1.4.2"), attrib(True)),
        (b"dev/net/", value(2)),
        (b"dev/net/dns/", value(1, 12)),
    ]
    rows += [(b"dev/net/dns/%d/" % i, string(b"192.0.2.%d" % i)) for i in sorted(range(12), key=str)]
    rows += [
        (b"dev/net/mtu/", value(13, 1500)),
        (b"dev/net/on/", value(3, 1)),
        (b"dev/t/", value(9, 1714564800000000)),
        (b"dev/x/", value(8, 0x3FF8000000000000)),
        (b"dev/y/", value(11, 3, b"\x00\xff\x01")),
        (b"dev/z/", value(0)),
    ]
    return rows


def frames(rows):
    return b"".join(frame(r[0], r[1], r[2] if len(r) > 2 else None) for r in rows)


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as out:
        out.write(data)


for i, text in enumerate([b"network/port", b"net/3/name/", b"", b"a//b", b"0/x", b"a/65535/",
                          b"a/65536", b"\xc3\xa9t\xc3\xa9/k\xff/", b"a%b", b"a/18446744073709551616"]):
    write("path_text", "seed%02d" % i, text)

for i, (att, val, path) in enumerate([
        (attrib(), value(13, 8080), b"network/port/"),
        (attrib(True), string(b"hello"), b"a/0/"),
        (attrib(), value(11, 0), b""),
        (attrib(), value(10, 0), b"s/"),
        (attrib(), value(1, 3), b"list/"),
        (struct.pack("<QQ", 0x20000, 0), value(16), b"x/"),
        (attrib()[:15], value(5, 0xFFFE)[:15], b"short/"),
        (attrib(), value(10, 2**64 - 1, b"abc"), b"big/")]):
    write("record", "seed%02d" % i, bytes([len(att)]) + att + struct.pack("<H", len(val)) + val + path)

rows = tree()
write("deserialize", "tree", frames(rows))
write("deserialize", "subtree", frames(r for r in rows if r[0].startswith(b"dev/net/")))
write("deserialize", "jump", frames([rows[0], rows[4]]))
write("deserialize", "unrooted", frames([rows[3], rows[1]]))
write("deserialize", "scalar", frames([(b"a/b/", value(7, 2**63))]))

version = b"1"
write("startup", "tree", bytes([0, len(version)]) + version + frames(rows))
write("startup", "wal", bytes([16, 0]) + frames(rows[:6]))
write("startup", "empty", bytes([0, 0]))
write("startup", "version2", bytes([4, 1]) + b"2" + frames(rows[:3]))
write("startup", "textcolumns", bytes([8, 0]) + frames(rows[:3]))
write("startup", "nometa", bytes([1, 0]) + frames(rows[:3]))
write("startup", "noroot", bytes([0, 0]) + frames(rows[1:7]))
