"""Tiles made by hand: PNG pictures that differ in each place, and vector tiles of known shapes."""
import struct
import zlib

SIZE = 256


def png(zoom, column, row, size=SIZE):
    """A picture of blocks of which no two neighbours are alike, in this tile or at the next one's edge."""
    lines = bytearray()
    for y in range(0, size, 32):
        line = bytearray(b"\0")
        for x in range(0, size, 32):
            line += bytes(((x * 7 // 8 + column * 61) % 256, (y * 7 // 8 + row * 61) % 256,
                           (zoom * 80 + (x ^ y)) % 256)) * 32
        lines += line * 32

    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data +
                struct.pack(">I", zlib.crc32(kind + data)))

    head = struct.pack(">IIBBBBB", size, size, 8, 2, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", head) +
            chunk(b"IDAT", zlib.compress(bytes(lines))) + chunk(b"IEND", b""))


def varint(number):
    out = bytearray()
    while number > 0x7F:
        out.append(number & 0x7F | 0x80)
        number >>= 7
    out.append(number)
    return bytes(out)


def field(number, value):
    if isinstance(value, int):
        return varint(number << 3) + varint(value)
    return varint(number << 3 | 2) + varint(len(value)) + value


POINT, LINE, POLYGON = 1, 2, 3


def geometry(kind, points):
    """The commands of one part; points are in 4096ths of the tile."""
    steps, x, y = [], 0, 0
    for to_x, to_y in points:
        steps.append(b"".join(varint(d << 1 if d >= 0 else ~(d << 1)) for d in (to_x - x, to_y - y)))
        x, y = to_x, to_y
    if kind == POINT:
        return varint(1 | len(steps) << 3) + b"".join(steps)
    out = varint(1 | 1 << 3) + steps[0] + varint(2 | len(steps) - 1 << 3) + b"".join(steps[1:])
    return out + varint(7 | 1 << 3) if kind == POLYGON else out


def mvt(layers):
    """{name: [(kind, points)]} as a vector tile."""
    tile = b""
    for name, features in layers.items():
        layer = field(1, name.encode())
        for kind, points in features:
            layer += field(2, field(3, kind) + field(4, geometry(kind, points)))
        tile += field(3, layer + field(5, 4096) + field(15, 2))
    return tile


def shapes():
    """Land in the west half, a road across the east half, a place in its upper quarter."""
    return mvt({
        "land": [(POLYGON, [(0, 512), (2048, 512), (2048, 3584), (0, 3584)])],
        "roads": [(LINE, [(2048, 2048), (4096, 2048)])],
        "places": [(POINT, [(3072, 1024)])],
    })
