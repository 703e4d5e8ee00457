#!/usr/bin/env python3
"""How much of a PNG screenshot is drawn: prints the number of pixels that
are not white, and of those the reddish, greenish and bluish ones, as
"ink red green blue". Decodes 8-bit RGB or RGBA PNGs with zlib alone."""

import struct
import sys
import zlib


def pixels(path):
    with open(path, "rb") as png:
        data = png.read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        sys.exit(f"{path}: not a PNG")
    chunks, at = {}, 8
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        chunks.setdefault(kind, []).append(data[at + 8:at + 8 + length])
        at += 12 + length
    width, height, depth, colour = struct.unpack(">IIBB", chunks[b"IHDR"][0][:10])
    if depth != 8 or colour not in (2, 6):
        sys.exit(f"{path}: only 8-bit RGB or RGBA, not depth {depth} colour type {colour}")
    size = 3 if colour == 2 else 4
    raw = zlib.decompress(b"".join(chunks[b"IDAT"]))
    stride = width * size
    previous = bytearray(stride)
    for row in range(height):
        line = raw[row * (stride + 1):(row + 1) * (stride + 1)]
        kind, current = line[0], bytearray(line[1:])
        for i in range(stride):
            left = current[i - size] if i >= size else 0
            up = previous[i]
            corner = previous[i - size] if i >= size else 0
            if kind == 1:
                current[i] = (current[i] + left) & 0xFF
            elif kind == 2:
                current[i] = (current[i] + up) & 0xFF
            elif kind == 3:
                current[i] = (current[i] + (left + up) // 2) & 0xFF
            elif kind == 4:
                guess = left + up - corner
                nearest = min((abs(guess - left), 0, left), (abs(guess - up), 1, up),
                              (abs(guess - corner), 2, corner))[2]
                current[i] = (current[i] + nearest) & 0xFF
        for i in range(0, stride, size):
            yield current[i], current[i + 1], current[i + 2]
        previous = current


def main():
    ink = red = green = blue = 0
    for r, g, b in pixels(sys.argv[1]):
        if min(r, g, b) < 245:
            ink += 1
        red += r > 150 and g < 100 and b < 100
        green += g > 100 and r < 120 and b < 120
        blue += b > 120 and r < 100
    print(ink, red, green, blue)


if __name__ == "__main__":
    main()
