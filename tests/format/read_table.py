#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# A reader of tables at rest, written from docs/format.md alone: it keeps that page honest. It shares no code with
# the library. Prints the rows of a counter table, one a line, in table order, and refuses what the page calls damage.
#
#    read_table.py DIRECTORY
import ipaddress
import struct
import sys
from pathlib import Path

M32, M64 = (1 << 32) - 1, (1 << 64) - 1
K = [0xA0761D6478BD642F, 0xE7037ED1A0B428DB, 0x8EBC6AF09C88C6E3, 0x589965CC75374CC3, 0x1D8E4E27C47D124F,
     0xEB44ACCAB455D165, 0x9C6E6877736C46E3]
KEY_BYTES = {"FlowTracking::HoIpFlowCounter": 28, "FlowTracking::HoIp6FlowCounter": 52}


class Damaged(Exception):
    pass


def lane(a, b):
    product = a * b
    return a ^ product & M64, b ^ product >> 64


def fold(a, b):
    product = a * b
    return product & M64 ^ product >> 64


def finish(a, b):
    f = (fold(a, b) + a) & M64
    return (f ^ f >> 32) & M32


def flow_hash(key, seed):
    def word(at):
        return struct.unpack_from("<Q", key, at)[0]

    s = seed * 0x9E3779B97F4A7C15 & M64
    wide = len(key) == 52
    vrf, vlan = struct.unpack_from("<IH", key)
    direction = key[48 if wide else 24]
    first = vrf | vlan << 32 | direction << 48
    ports = word(40 if wide else 16)
    if not wide:
        x, y = lane(first ^ K[0] ^ s >> 8, word(6) ^ K[1] ^ s)
        return finish(x ^ K[2], y ^ fold(ports ^ s, K[6]) ^ K[3])
    p, q = lane(first ^ K[0] ^ s >> 8, ports ^ K[1] ^ s)
    t, u = lane(word(6) ^ K[2] ^ s, word(14) ^ K[3] ^ s >> 8)
    v, w = lane(word(22) ^ K[4] ^ s, word(30) ^ K[5] ^ s >> 8)
    return finish(p ^ t ^ w ^ K[6], q ^ u ^ v)


def reverse(word):
    return int(f"{word:032b}"[::-1], 2)


def checksum(data):
    value = 0x811C9DC5
    for byte in data:
        value = (value ^ byte) * 0x01000193 & M32
    return value


class Table:
    def __init__(self, directory):
        slots, buckets = (Path(directory) / "slots").read_bytes(), (Path(directory) / "buckets").read_bytes()
        self.slots, self.buckets = slots, buckets
        magic, version, kestor, platform = struct.unpack_from("<8sIII", slots)
        if (magic, version, platform) != (b"MIRAKSLT", 24, 1):
            raise Damaged("slots: not a slot file of version 24")
        self.type = slots[20:532].split(b"\0")[0].decode()
        self.value_size, self.slot_size, _, _, runtime, stored = struct.unpack_from("<IIIHHI", slots, 532)
        self.occupied, self.free, _, self.seed, _, self.capacity = struct.unpack_from("<IIIIII", slots, 552)
        if checksum(slots[20:546] + slots[564:568]) != stored:
            raise Damaged("slots: checksum")
        if runtime & 1:
            raise Damaged("slots: a writer is, or died, inside an operation")
        self.header_size = 584 + self.slot_size
        if len(slots) < self.header_size + self.capacity * self.slot_size:
            raise Damaged("slots: too short")
        magic, version, other, _, self.count = struct.unpack_from("<8sIIII", buckets)
        if (magic, version) != (b"MIRAKBKT", 1) or self.count & (self.count - 1) or not self.count:
            raise Damaged("buckets: not a bucket file of version 1")
        if other != kestor or len(buckets) < 24 + 8 * self.count:
            raise Damaged("buckets: of another generation, or too short")

    def head(self, bucket):
        if bucket >= self.count:
            raise Damaged(f"bucket {bucket} of {self.count}")
        return struct.unpack_from("<I", self.buckets, 24 + 8 * bucket + 4)[0]

    def slot(self, index):
        """next, rhash and value of an occupied slot."""
        if index >= self.capacity:
            raise Damaged(f"slot {index} of {self.capacity}")
        at = self.header_size + index * self.slot_size
        _, following, word, rhash = struct.unpack_from("<IIII", self.slots, at)
        if not word & 1:
            raise Damaged(f"slot {index}: in a chain and not occupied")
        if word & 2:
            at = 584
            rhash = struct.unpack_from("<I", self.slots, at + 12)[0]
        return following, rhash, self.slots[at + 16:at + 16 + self.value_size]

    def rows(self):
        bucket, last, steps = 0, -1, 0
        link = self.head(bucket)
        while True:
            while link & 0x80000000:
                if link == M32:
                    if bucket != self.count - 1:
                        raise Damaged(f"the table ends in bucket {bucket} of {self.count}")
                    return
                steps += 1
                bucket = link & 0x7FFFFFFF
                if steps >= self.count:
                    raise Damaged("the buckets form a loop")
                link = self.head(bucket)
            link, rhash, value = self.slot(link)
            h = flow_hash(value[:KEY_BYTES[self.type]], self.seed)
            if h % self.count != bucket or reverse(h) != rhash or rhash < last:
                raise Damaged("a row out of place")
            last = rhash
            yield value

    def lookup(self, key):
        h = flow_hash(key, self.seed)
        link = self.head(h % self.count)
        while not link & 0x80000000:
            link, rhash, value = self.slot(link)
            if rhash > reverse(h):
                break
            if rhash == reverse(h) and meaning(value[:len(key)]) == meaning(key):
                return value
        return None


def meaning(key):
    """A key without its meaningless bytes."""
    return (key[:14] + key[16:25]) if len(key) == 28 else (key[:38] + key[40:49])


def text(value, key_bytes):
    wide = key_bytes == 52
    addresses = 16 if wide else 4
    vlan = struct.unpack_from("<H", value, 4)[0]
    src, dst = (ipaddress.ip_address(value[at:at + addresses]) for at in (6, 6 + addresses))
    protocol, sport, dport = struct.unpack_from("<IHH", value, 40 if wide else 16)
    packets, octets = struct.unpack_from("<QQ", value, key_bytes + 8)
    return f"{6 if wide else 4}\t{vlan}\t{protocol & 255}\t{src}\t{dst}\t{sport}\t{dport}\t{packets}\t{octets}"


def read(directory):
    """All rows as text; each of them is also looked up, and the header's count has to agree."""
    table = Table(directory)
    if table.type not in KEY_BYTES:
        raise Damaged(f"rows of type {table.type}")
    key_bytes = KEY_BYTES[table.type]
    rows = list(table.rows())
    if len(rows) != table.occupied:
        raise Damaged(f"{len(rows)} rows, the header says {table.occupied}")
    for row in rows:
        if table.lookup(row[:key_bytes]) != row:
            raise Damaged("a row that a lookup does not find")
    return [text(row, key_bytes) for row in rows]


if __name__ == "__main__":
    try:
        print(*read(sys.argv[1]), sep="\n")
    except (Damaged, OSError) as problem:
        sys.exit(f"read_table: {problem}")
