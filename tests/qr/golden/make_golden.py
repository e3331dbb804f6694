#!/usr/bin/python3
"""Writes the reference grids and the version table the QR tests compare against.

Uses Debian's python3-qrcode as an independent encoder: each symbol is built from the
same segments, in the same order, at the same version and level L, with mask 0
(and masks 1 to 7 for one code). Grids are
written one row per line (row = y), each module 0 (light) or 1 (dark), without quiet zone.
Run it from anywhere: /usr/bin/python3 tests/qr/golden/make_golden.py
"""
import os

import qrcode
from qrcode import base, util

N, A, B = util.MODE_NUMBER, util.MODE_ALPHA_NUM, util.MODE_8BIT_BYTE
MARKER = "5641524e4f4b5152303103f2"
ADDRESSES = "".join("c0a801%02x" % i for i in range(1, 8))

# name, version, segments (mode, text); the texts joined are the encoded text.
CASES = [
    ("numeric", 1, [(N, "0123456789")]),
    ("hello", 1, [(A, "HELLO1234")]),
    ("abc", 1, [(B, "abc")]),
    ("mixed", 1, [(A, "HELLO"), (N, "123456789"), (A, "AB")]),
    ("pairing32", 2, [(N, "5641524"), (B, "e4f4b"), (N, "5152303103"), (B, "f2c0a"), (N, "80102")]),
    ("pairing40", 3, [(N, "5641524"), (B, "e4f4b"), (N, "5152303103"), (B, "f2c0a80101c0a"), (N, "80102")]),
    ("pairing80", 4, [(N, "5641524"), (B, "e4f4b"), (N, "5152303103"), (B, "f2" + ADDRESSES[:-5]), (N, ADDRESSES[-5:])]),
]


def write_grid(folder, name, version, segments, mask=0):
    code = qrcode.QRCode(version=version, error_correction=qrcode.constants.ERROR_CORRECT_L,
                         mask_pattern=mask)
    for mode, text in segments:
        code.add_data(util.QRData(text, mode=mode))
    code.make(fit=False)
    with open(os.path.join(folder, name + ".txt"), "w") as out:
        out.write("".join(text for _, text in segments) + "\n")
        for row in code.modules:
            out.write("".join("1" if dark else "0" for dark in row) + "\n")


def write_version_table(folder):
    """One line per version and level (L, M, Q, H): version level total data blocks..., then alignment lines."""
    with open(os.path.join(folder, "version_table.txt"), "w") as out:
        for version in range(1, 41):
            for level in range(4):
                blocks = base.RS_BLOCK_TABLE[(version - 1) * 4 + level]
                triples = [blocks[i:i + 3] for i in range(0, len(blocks), 3)]
                total = sum(count * size for count, size, _ in triples)
                data = sum(count * words for count, _, words in triples)
                fields = [version, level, total, data] + list(blocks) + [0] * (6 - len(blocks))
                out.write(" ".join(map(str, fields)) + "\n")
        for version in range(1, 41):
            out.write(" ".join(map(str, ["align", version] + util.pattern_position(version))) + "\n")


if __name__ == "__main__":
    here = os.path.dirname(os.path.abspath(__file__))
    for case in CASES:
        write_grid(here, *case)
    # The other seven masks, on the 32-character pairing code.
    for mask in range(1, 8):
        write_grid(here, "pairing32_mask%d" % mask, *CASES[4][1:], mask=mask)
    write_version_table(here)
