#!/usr/bin/env python3
"""Draws the two 32x32 images of the ribbon's on/off button: a document with a
toggle switch below it, green with the knob on the right for "real files on",
grey with the knob on the left for "off". Standard library only; run it from
anywhere to rewrite button_on.png and button_off.png beside this script."""
import os
import struct
import zlib

SIZE = 32
SAMPLES = 4  # supersampling per axis, for smooth edges

OUTLINE = (60, 60, 60)
PAGE = (255, 255, 255)
FOLD = (215, 215, 215)
KNOB = (255, 255, 255)
THEMES = {
    "on": {"track": (46, 160, 67), "lines": (46, 160, 67), "knob_x": 24.0},
    "off": {"track": (150, 150, 150), "lines": (170, 170, 170), "knob_x": 10.0},
}


def inside_rounded_rect(x, y, left, top, right, bottom, radius):
    if not (left <= x <= right and top <= y <= bottom):
        return False
    cx = min(max(x, left + radius), right - radius)
    cy = min(max(y, top + radius), bottom - radius)
    return (x - cx) ** 2 + (y - cy) ** 2 <= radius ** 2


def distance_to_segment(x, y, a, b):
    (ax, ay), (bx, by) = a, b
    dx, dy = bx - ax, by - ay
    t = max(0.0, min(1.0, ((x - ax) * dx + (y - ay) * dy) / (dx * dx + dy * dy)))
    return ((x - ax - t * dx) ** 2 + (y - ay - t * dy) ** 2) ** 0.5


def page_colour(x, y, theme):
    """The document: a page with a folded top-right corner and three text lines."""
    left, top, right, bottom, fold = 7.0, 1.0, 25.0, 20.0, 6.0
    if not (left <= x <= right and top <= y <= bottom) or x - (right - fold) > y - top:
        return None
    corner = (right - fold, top)
    outline = [(left, top), corner, (right, top + fold), (right, bottom), (left, bottom), (left, top)]
    fold_edges = [(corner, (right - fold, top + fold)), ((right - fold, top + fold), (right, top + fold))]
    edges = list(zip(outline, outline[1:])) + fold_edges
    if min(distance_to_segment(x, y, a, b) for a, b in edges) < 0.7:
        return OUTLINE
    if x >= right - fold and y <= top + fold:
        return FOLD
    for line_y in (7.0, 11.0, 15.0):
        if line_y <= y <= line_y + 2.0 and left + 3.0 <= x <= right - 3.0:
            return theme["lines"]
    return PAGE


def toggle_colour(x, y, theme):
    """The switch: a rounded track with a round knob at one end."""
    left, top, right, bottom = 2.0, 20.0, 30.0, 31.0
    radius = (bottom - top) / 2
    knob_x, knob_y, knob_r = theme["knob_x"], (top + bottom) / 2, radius - 1.6
    if (x - knob_x) ** 2 + (y - knob_y) ** 2 <= knob_r ** 2:
        return KNOB
    if (x - knob_x) ** 2 + (y - knob_y) ** 2 <= (knob_r + 0.9) ** 2:
        return OUTLINE
    if inside_rounded_rect(x, y, left, top, right, bottom, radius):
        if not inside_rounded_rect(x, y, left + 0.9, top + 0.9, right - 0.9, bottom - 0.9, radius - 0.9):
            return OUTLINE
        return theme["track"]
    return None


def draw(theme):
    rows = []
    for py in range(SIZE):
        row = bytearray()
        for px in range(SIZE):
            total = [0, 0, 0, 0]
            for sy in range(SAMPLES):
                for sx in range(SAMPLES):
                    x = px + (sx + 0.5) / SAMPLES
                    y = py + (sy + 0.5) / SAMPLES
                    colour = toggle_colour(x, y, theme) or page_colour(x, y, theme)
                    if colour:
                        for i in range(3):
                            total[i] += colour[i]
                        total[3] += 1
            covered = total[3]
            if covered:
                row += bytes(round(total[i] / covered) for i in range(3))
                row.append(round(255 * covered / SAMPLES ** 2))
            else:
                row += b"\0\0\0\0"
        rows.append(bytes(row))
    return rows


def png(rows):
    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    header = struct.pack(">IIBBBBB", SIZE, SIZE, 8, 6, 0, 0, 0)  # 8-bit RGBA
    raw = b"".join(b"\0" + row for row in rows)  # filter type 0 per row
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b"")


def main():
    folder = os.path.dirname(os.path.abspath(__file__))
    for name, theme in THEMES.items():
        with open(os.path.join(folder, "button_%s.png" % name), "wb") as out:
            out.write(png(draw(theme)))


if __name__ == "__main__":
    main()
