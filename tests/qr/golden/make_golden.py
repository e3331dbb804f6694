#!/usr/bin/python3
# Writes the grids and the version table the QR tests compare against, with Debian's
# python3-qrcode as the independent encoder: the same segments at the same version, level L.
# A grid file holds the text, then one row (y) per line, 1 dark and 0 light, no quiet zone.
# Run: /usr/bin/python3 tests/qr/golden/make_golden.py
import os

import qrcode
from qrcode import base, util

N, A, B = util.MODE_NUMBER, util.MODE_ALPHA_NUM, util.MODE_8BIT_BYTE
HERE = os.path.dirname(os.path.abspath(__file__))
ADDRESSES = "".join("c0a801%02x" % i for i in range(1, 8))
PAIRING = [(N, "5641524"), (B, "e4f4b"), (N, "5152303103")]  # marker and port 03f2, then the addresses
PAIRING32 = PAIRING + [(B, "f2c0a"), (N, "80102")]

# name, version, segments (mode, text), mask
CASES = [
    ("numeric", 1, [(N, "0123456789")], 0), ("hello", 1, [(A, "HELLO1234")], 0), ("abc", 1, [(B, "abc")], 0),
    ("mixed", 1, [(A, "HELLO"), (N, "123456789"), (A, "AB")], 0),
    ("pairing32", 2, PAIRING32, 0),
    ("pairing40", 3, PAIRING + [(B, "f2c0a80101c0a"), (N, "80102")], 0),
    ("pairing80", 4, PAIRING + [(B, "f2" + ADDRESSES[:-5]), (N, ADDRESSES[-5:])], 0),
] + [("pairing32_mask%d" % mask, 2, PAIRING32, mask) for mask in range(1, 8)]

for name, version, segments, mask in CASES:
    code = qrcode.QRCode(version=version, error_correction=qrcode.constants.ERROR_CORRECT_L, mask_pattern=mask)
    for mode, text in segments:
        code.add_data(util.QRData(text, mode=mode))
    code.make(fit=False)
    rows = ["".join(text for _, text in segments)] + ["".join("01"[dark] for dark in row) for row in code.modules]
    with open(os.path.join(HERE, name + ".txt"), "w") as out:
        out.write("\n".join(rows) + "\n")

# One line per version and level (L, M, Q, H): version, level, total and data codewords, the two
# kinds of block (count, codewords, data codewords); then the alignment coordinates of each version.
with open(os.path.join(HERE, "version_table.txt"), "w") as out:
    for version in range(1, 41):
        for level in range(4):
            blocks = base.RS_BLOCK_TABLE[(version - 1) * 4 + level]
            total, data = (sum(blocks[i] * blocks[i + k] for i in range(0, len(blocks), 3)) for k in (1, 2))
            out.write(" ".join(map(str, [version, level, total, data, *blocks] + [0] * (6 - len(blocks)))) + "\n")
    for version in range(1, 41):
        out.write(" ".join(map(str, ["align", version] + util.pattern_position(version))) + "\n")
