#!/usr/bin/env python3
"""Draws the error page's picture, "mm404Image": a Wi-Fi signal struck through
on a pale disc, at 1x, 2x and 3x (105, 210 and 315 pixels square).

Standard library only. Shapes are described in unit coordinates and sampled
4 x 4 times per pixel for smooth edges; the PNG files are written beside this
script. Run it again after changing the drawing and commit the PNGs with it.
"""

import math
import os
import struct
import zlib

POINTS = 105
SAMPLES = 4

DISC = (0xED, 0xF1, 0xF5)
SIGNAL = (0xA3, 0xAD, 0xB8)
SLASH = (0xF2, 0x6D, 0x6D)
GAP = DISC

CENTRE = (0.5, 0.68)  # the signal's origin


def in_disc(x, y):
    return (x - 0.5) ** 2 + (y - 0.5) ** 2 <= 0.48 ** 2


def in_signal(x, y):
    dx, dy = x - CENTRE[0], y - CENTRE[1]
    r = math.hypot(dx, dy)
    if r <= 0.05:
        return True
    if dy >= 0 or abs(math.atan2(dx, -dy)) > math.radians(45):
        return False
    return any(inner <= r <= inner + 0.055 for inner in (0.12, 0.22, 0.32))


def distance_to_segment(x, y, a, b):
    (ax, ay), (bx, by) = a, b
    vx, vy = bx - ax, by - ay
    t = max(0.0, min(1.0, ((x - ax) * vx + (y - ay) * vy) / (vx * vx + vy * vy)))
    return math.hypot(x - (ax + t * vx), y - (ay + t * vy))


SLASH_FROM, SLASH_TO = (0.27, 0.25), (0.73, 0.75)


def colour_at(x, y):
    """The straight RGBA colour at a unit-space point, topmost shape first."""
    if not in_disc(x, y):
        return None
    d = distance_to_segment(x, y, SLASH_FROM, SLASH_TO)
    if d <= 0.032:
        return SLASH
    if d <= 0.065:
        return GAP
    if in_signal(x, y):
        return SIGNAL
    return DISC


def render(size):
    rows = []
    for py in range(size):
        row = bytearray([0])  # PNG filter type: none
        for px in range(size):
            r = g = b = a = 0
            for sy in range(SAMPLES):
                for sx in range(SAMPLES):
                    c = colour_at((px + (sx + 0.5) / SAMPLES) / size, (py + (sy + 0.5) / SAMPLES) / size)
                    if c:
                        r, g, b, a = r + c[0], g + c[1], b + c[2], a + 1
            if a:
                row += bytes((round(r / a), round(g / a), round(b / a), round(255 * a / SAMPLES ** 2)))
            else:
                row += bytes(4)
        rows.append(bytes(row))
    return rows


def write_png(path, size, rows):
    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    header = struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)  # 8-bit RGBA
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(chunk(b"IHDR", header))
        f.write(chunk(b"IDAT", zlib.compress(b"".join(rows), 9)))
        f.write(chunk(b"IEND", b""))


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    for scale in (1, 2, 3):
        size = POINTS * scale
        name = "mm404Image.png" if scale == 1 else "mm404Image@%dx.png" % scale
        write_png(os.path.join(here, name), size, render(size))


if __name__ == "__main__":
    main()
