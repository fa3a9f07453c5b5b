#!/usr/bin/env python3
"""Draws the applet's icons and cursors into resources/ (run again after changing a drawing).

Writes 32-bit icons and cursors with an AND mask, so every Windows since 2000 shows them:
app.ico (the applet: a clock face), status_*.ico (16x16 status discs) and hand.cur (the link and
graph-point cursor)."""
import math, os, struct, sys

HERE = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'resources')


def bitmap(size, pixel):
    """DIB payload of one image: pixel(x, y) -> (r, g, b, a), y downwards."""
    head = struct.pack('<IiiHHIIiiII', 40, size, size * 2, 1, 32, 0, 0, 0, 0, 0, 0)
    rows, mask = [], []
    for y in reversed(range(size)):
        row, bits = b'', 0
        mrow = bytearray((size + 31) // 32 * 4)
        for x in range(size):
            r, g, b, a = pixel(x, y)
            row += bytes((b, g, r, a))
            if a == 0:
                mrow[x // 8] |= 0x80 >> (x % 8)
        rows.append(row)
        mask.append(bytes(mrow))
    return head + b''.join(rows) + b''.join(mask)


def container(kind, images):
    """kind 1: icon, 2: cursor. images: [(size, payload, hotspot or None)]."""
    out = struct.pack('<HHH', 0, kind, len(images))
    offset = 6 + 16 * len(images)
    data = b''
    for size, payload, hot in images:
        planes, bpp = hot if kind == 2 else (1, 32)
        out += struct.pack('<BBBBHHII', size % 256, size % 256, 0, 0, planes, bpp, len(payload), offset + len(data))
        data += payload
    return out + data


def disc(size, colour, ring=(40, 40, 40)):
    c = (size - 1) / 2
    def pixel(x, y):
        d = math.hypot(x - c, y - c)
        if d > c + 0.5:
            return (0, 0, 0, 0)
        if d > c - 1.2:
            return ring + (255,)
        # a little light from the upper left
        k = max(0.0, 1 - math.hypot(x - c * 0.6, y - c * 0.6) / (size * 0.9))
        return tuple(min(255, int(v + (255 - v) * k * 0.6)) for v in colour) + (255,)
    return pixel


def clock(size):
    c = (size - 1) / 2
    face = disc(size, (30, 90, 200))
    def on_hand(x, y, angle, length, width):
        dx, dy = math.sin(angle), -math.cos(angle)
        t = (x - c) * dx + (y - c) * dy
        if t < -0.5 or t > length:
            return False
        return abs((x - c) * dy - (y - c) * dx) <= width
    def pixel(x, y):
        d = math.hypot(x - c, y - c)
        if d > c + 0.5:
            return (0, 0, 0, 0)
        if d > c - 1.5:
            return (20, 50, 130, 255)
        if d > c * 0.78:
            return face(x, y)
        if on_hand(x, y, math.radians(300), c * 0.5, size / 24 + 0.4) or on_hand(x, y, math.radians(60), c * 0.7, size / 32 + 0.3):
            return (20, 20, 20, 255)
        for h in range(12):
            a = math.radians(h * 30)
            if math.hypot(x - (c + math.sin(a) * c * 0.65), y - (c - math.cos(a) * c * 0.65)) < size / 28 + 0.3:
                return (20, 50, 130, 255)
        return (250, 250, 245, 255)
    return pixel


HAND = [
    "......XX........",
    ".....X..X.......",
    ".....X..X.......",
    ".....X..X.......",
    ".....X..XXX.....",
    ".....X..X..XX...",
    ".XX..X..X..X.X..",
    "X..X.X..X..X..X.",
    "X...XX........X.",
    ".X...X........X.",
    "..X...........X.",
    "..X..........X..",
    "...X.........X..",
    "....X.......X...",
    ".....X......X...",
    ".....XXXXXXXX...",
]


def hand(size):
    scale = size // 16
    def inside(gx, gy):
        row = HAND[gy]
        xs = [i for i, ch in enumerate(row) if ch == 'X']
        return xs and xs[0] <= gx <= xs[-1] and gy >= 1
    def pixel(x, y):
        gx, gy = x // scale, y // scale
        if HAND[gy][gx] == 'X':
            return (0, 0, 0, 255)
        if inside(gx, gy) and HAND[gy][:gx].count('X') % 2 == 1 or (inside(gx, gy) and gy >= 8):
            return (255, 255, 255, 255)
        return (0, 0, 0, 0)
    return pixel


def write(name, data):
    with open(os.path.join(HERE, name), 'wb') as f:
        f.write(data)


write('app.ico', container(1, [(32, bitmap(32, clock(32)), None), (16, bitmap(16, clock(16)), None)]))
for name, colour in (('unknown', (150, 150, 150)), ('synced', (40, 190, 60)), ('bad', (215, 40, 40)), ('off', (240, 200, 30))):
    write('status_%s.ico' % name, container(1, [(16, bitmap(16, disc(16, colour)), None), (32, bitmap(32, disc(32, colour)), None)]))
write('hand.cur', container(2, [(32, bitmap(32, hand(32)), (12, 0))]))
