#!/usr/bin/env python3
"""Writes the seed inputs of fuzz_agent (fuzz/corpus/agent/): SNMPv1 and
v2c requests, BER-encoded, for the MIB root's scalars, a table cell, walks,
a GETBULK, a SET and names outside the tree."""
import os
import sys

ROOT = [1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20]


def tlv(tag, body):
    n = len(body)
    if n < 0x80:
        length = bytes([n])
    else:
        raw = n.to_bytes((n.bit_length() + 7) // 8, 'big')
        length = bytes([0x80 | len(raw)]) + raw
    return bytes([tag]) + length + body


def integer(v):
    return tlv(0x02, v.to_bytes(max(1, (v.bit_length() + 8) // 8), 'big', signed=True))


def oid(arcs):
    body = bytes([40 * arcs[0] + arcs[1]])
    for a in arcs[2:]:
        chunk = [a & 0x7F]
        a >>= 7
        while a:
            chunk.insert(0, 0x80 | (a & 0x7F))
            a >>= 7
        body += bytes(chunk)
    return tlv(0x06, body)


def message(version, pdu_tag, names, a=0, b=0, value=b'\x05\x00', community=b'public'):
    binds = b''.join(tlv(0x30, oid(n) + value) for n in names)
    pdu = tlv(pdu_tag, integer(1234) + integer(a) + integer(b) + tlv(0x30, binds))
    return tlv(0x30, integer(version) + tlv(0x04, community) + pdu)


GET, GETNEXT, SET, GETBULK = 0xA0, 0xA1, 0xA3, 0xA5
SEEDS = {
    'v2c-get-scalars': message(1, GET, [ROOT + [1, n, 0] for n in (1, 2, 3)]),
    'v1-get-cell': message(0, GET, [ROOT + [130, 1, 1, 2, 1]]),
    'v2c-getnext-root': message(1, GETNEXT, [ROOT, ROOT + [130]]),
    'v1-getnext-outside': message(0, GETNEXT, [[1, 3, 6, 1, 2, 1], ROOT[:-1] + [21]]),
    'v2c-getbulk': message(1, GETBULK, [ROOT + [1], ROOT + [130, 1, 1]], a=1, b=5),
    'v2c-set': message(1, SET, [ROOT + [130, 1, 1, 2, 1]], value=tlv(0x04, b'renamed')),
    'v2c-get-missing': message(1, GET, [ROOT + [130, 1, 1, 2, 99999], ROOT + [999, 0], ROOT]),
}

directory = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), 'corpus', 'agent')
os.makedirs(directory, exist_ok=True)
for name, data in SEEDS.items():
    with open(os.path.join(directory, name), 'wb') as f:
        f.write(data)
