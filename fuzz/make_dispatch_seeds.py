#!/usr/bin/env python3
"""Writes the seed inputs of fuzz_dispatch (fuzz/corpus/dispatch/): call
sequences in the target's layout (docs/FUZZING.md) that walk the MIB, read
scalars and cells, set a name, and call with sizes one byte short."""
import os
import struct
import sys

ROOT_FIRST, WIDE, IN_SIZE, OUT_SIZE, NULL_IN, NULL_OUT, STRING, LONG = 1, 2, 4, 8, 16, 32, 64, 128


def call(command, arcs=(), root=True, in_size=None, out_size=None, value=None, type_=2, flags=0):
    """One call: command, flags, sizes, the arcs after the root, Set's value."""
    wide = any(a > 255 for a in arcs)
    flags |= (ROOT_FIRST if root else 0) | (WIDE if wide else 0)
    flags |= (IN_SIZE if in_size is not None else 0) | (OUT_SIZE if out_size is not None else 0)
    flags |= STRING if isinstance(value, bytes) else 0
    flags |= LONG if len(arcs) > 255 else 0
    out = bytes([command, flags])
    if in_size is not None:
        out += bytes([in_size])
    if out_size is not None:
        out += bytes([out_size])
    out += struct.pack('<H', len(arcs)) if len(arcs) > 255 else bytes([len(arcs)])
    out += b''.join(struct.pack('<I' if wide else 'B', a) for a in arcs)
    if isinstance(value, bytes):
        out += struct.pack('<H', len(value)) + value
    else:
        out += bytes([type_]) + struct.pack('<I', value or 0)
    return out


SEEDS = {
    'walk': b''.join(call(10, arcs) for arcs in [(), (1,), (1, 0), (130,), (130, 1, 1, 2), (200,)]),
    'get-scalars': b''.join(call(9, (1, n, 0)) for n in range(1, 8)),
    'get-cells': b''.join(call(9, (130, 1, 1, c, 1)) for c in range(1, 12)),
    'sizes': b''.join(call(c, (1, 0), in_size=31, out_size=32) + call(c, (1, 0), out_size=31)
                      for c in (9, 10, 11, 12)),
    'info': b''.join(call(c, root=False, in_size=0, out_size=4, flags=NULL_IN) for c in (0, 1, 2, 3, 6, 13)),
    'set-name': call(11, (130, 1, 1, 2, 1), value=b'renamed') + call(12, (130, 1, 1, 2, 1), value=b'renamed')
                + call(9, (130, 1, 1, 2, 1)),
    'set-number': call(11, (130, 1, 1, 5, 1), value=3) + call(12, (130, 1, 1, 5, 1), value=3),
    'long-name': call(10, tuple(range(300)), root=False) + call(9, (0xFFFFFFFF,) * 20),
    'outside': call(10, (1, 3, 6, 1, 4, 1, 61234, 20571, 1, 21), root=False) + call(9, (1, 3), root=False),
}

directory = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), 'corpus', 'dispatch')
os.makedirs(directory, exist_ok=True)
for name, data in SEEDS.items():
    with open(os.path.join(directory, name), 'wb') as f:
        f.write(data)
