#!/usr/bin/env python3
"""Draws resources/modules/browser/icons/wrong.tif, the placeholder shown where no material
preview can be made: a red disc with a white cross on a transparent ground, 64 x 64 pixels,
8-bit RGBA with unassociated alpha, uncompressed (any TIFF reader opens it).

Needs nothing beyond the standard library; the output is the same byte for byte on every run.
    scripts/draw_wrong_icon.py [output path]
"""
import math
import os
import struct
import sys
import tempfile

SIZE = 64
SUPERSAMPLES = 4  # per axis, for smooth edges
DISC = (196, 38, 38)
CROSS = (255, 255, 255)


def coverage(x, y):
    """Disc and cross coverage of the point (x, y) in pixel units."""
    c = SIZE / 2.0
    dx, dy = x - c, y - c
    in_disc = dx * dx + dy * dy <= (SIZE * 0.45) ** 2
    # Two bars along the diagonals, half as long as the disc is wide.
    half_width, half_length = SIZE * 0.07, SIZE * 0.25
    in_cross = False
    for ax, ay in ((1.0, 1.0), (1.0, -1.0)):
        n = math.sqrt(2.0)
        along = (dx * ax + dy * ay) / n
        across = (dx * ay - dy * ax) / n
        if abs(along) <= half_length and abs(across) <= half_width:
            in_cross = True
    return in_disc, in_cross and in_disc


def pixels():
    out = bytearray()
    n = SUPERSAMPLES
    for py in range(SIZE):
        for px in range(SIZE):
            disc = cross = 0
            for sy in range(n):
                for sx in range(n):
                    d, c = coverage(px + (sx + 0.5) / n, py + (sy + 0.5) / n)
                    disc += d
                    cross += c
            alpha = disc / (n * n)
            if disc == 0:
                out += bytes((0, 0, 0, 0))
                continue
            t = cross / disc  # share of the covered part that is cross
            rgb = [round(DISC[i] * (1 - t) + CROSS[i] * t) for i in range(3)]
            out += bytes(rgb + [round(alpha * 255)])
    return bytes(out)


def tiff(data):
    entries = []  # (tag, type, count, value or offset)
    header = 8
    count = 14
    ifd_size = 2 + count * 12 + 4
    extra_at = header + ifd_size
    bits_at = extra_at
    xres_at = bits_at + 8
    yres_at = xres_at + 8
    strip_at = yres_at + 8
    SHORT, LONG, RATIONAL = 3, 4, 5
    entries = [
        (256, LONG, 1, SIZE),
        (257, LONG, 1, SIZE),
        (258, SHORT, 4, bits_at),
        (259, SHORT, 1, 1),  # no compression
        (262, SHORT, 1, 2),  # RGB
        (273, LONG, 1, strip_at),
        (277, SHORT, 1, 4),
        (278, LONG, 1, SIZE),
        (279, LONG, 1, len(data)),
        (282, RATIONAL, 1, xres_at),
        (283, RATIONAL, 1, yres_at),
        (284, SHORT, 1, 1),  # interleaved
        (296, SHORT, 1, 2),  # inch
        (338, SHORT, 1, 2),  # unassociated alpha
    ]
    assert len(entries) == count
    out = bytearray(b"II" + struct.pack("<HI", 42, header))
    out += struct.pack("<H", count)
    for tag, kind, n, value in entries:
        if kind == SHORT and n == 1:
            out += struct.pack("<HHIHH", tag, kind, n, value, 0)
        else:
            out += struct.pack("<HHII", tag, kind, n, value)
    out += struct.pack("<I", 0)
    out += struct.pack("<4H", 8, 8, 8, 8)
    out += struct.pack("<II", 72, 1) * 2
    assert len(out) == strip_at
    return bytes(out + data)


def main():
    root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(
        root, "resources", "modules", "browser", "icons", "wrong.tif")
    folder = os.path.dirname(os.path.abspath(path))
    os.makedirs(folder, exist_ok=True)
    # Written beside the target and renamed into place, so a reader never sees half a file.
    fd, temporary = tempfile.mkstemp(dir=folder, suffix=".tif.tmp")
    with os.fdopen(fd, "wb") as f:
        f.write(tiff(pixels()))
    os.chmod(temporary, 0o644)
    os.replace(temporary, path)


if __name__ == "__main__":
    main()
