#!/usr/bin/env python3
"""Writes the bundle icon (128x128 RGBA PNG): a disc with a motion streak."""
import math, struct, sys, zlib

N = 128
SS = 4  # supersampling per axis


def coverage(x, y):
    """Colour and alpha of one sample point, in 0..1."""
    # Rounded square background.
    r = 18.0
    dx = max(abs(x - 64) - (64 - r), 0.0)
    dy = max(abs(y - 64) - (64 - r), 0.0)
    if math.hypot(dx, dy) > r:
        return (0, 0, 0, 0)
    col = (0.10, 0.12, 0.16)
    # Streak: fading horizontal trail behind the disc.
    cx, cy, rad = 82.0, 64.0, 22.0
    if abs(y - cy) < rad and 18 <= x <= cx:
        t = (x - 18) / (cx - 18)
        w = math.sqrt(max(0.0, 1 - ((y - cy) / rad) ** 2))
        a = 0.55 * t * t * w
        col = tuple(c * (1 - a) + o * a for c, o in zip(col, (0.95, 0.55, 0.15)))
    if math.hypot(x - cx, y - cy) <= rad:
        col = (0.98, 0.62, 0.18)
    return col + (1.0,)


def main(path):
    rows = []
    for j in range(N):
        row = bytearray([0])
        for i in range(N):
            acc = [0.0] * 4
            for sj in range(SS):
                for si in range(SS):
                    r, g, b, a = coverage(i + (si + 0.5) / SS, j + (sj + 0.5) / SS)
                    acc[0] += r * a; acc[1] += g * a; acc[2] += b * a; acc[3] += a
            a = acc[3] / (SS * SS)
            px = [acc[k] / acc[3] if acc[3] else 0.0 for k in range(3)] + [a]
            row += bytes(min(255, int(v * 255 + 0.5)) for v in px)
        rows.append(bytes(row))
    raw = b"".join(rows)

    def chunk(kind, data):
        c = kind + data
        return struct.pack(">I", len(data)) + c + struct.pack(">I", zlib.crc32(c) & 0xFFFFFFFF)

    png = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", N, N, 8, 6, 0, 0, 0))
    png += chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b"")
    with open(path, "wb") as f:
        f.write(png)


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "com.corvane.Trelvo3_Vectors.png")
