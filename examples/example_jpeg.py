"""A photograph for the tests of the contact sheets."""

import struct


def jpeg(columns, grays, orientation=1):
    """A JPEG of gray blocks, 8 x 8 pixels each, so many in a row."""
    bits, before = "", 128
    for gray in grays:
        step, before = gray - before, gray
        size = abs(step).bit_length()
        bits += f"{size:04b}" + (f"{step if step > 0 else step + 2**size - 1:0{size}b}" if size else "")
        bits += "0"  # no detail
    bits += "1" * (-len(bits) % 8)
    scan = bytes(int(bits[at : at + 8], 2) for at in range(0, len(bits), 8))
    exif = b"Exif\0\0MM\0*\0\0\0\x08\0\x01\x01\x12\0\x03\0\0\0\x01" + struct.pack(">HHI", orientation, 0, 0)
    parts = {
        b"\xe1": exif,
        b"\xdb": b"\0\x08" + 63 * b"\x01",
        b"\xc0": struct.pack(">BHHB3s", 8, len(grays) // columns * 8, columns * 8, 1, b"\x01\x11\0"),
        b"\xc4": b"\0\0\0\0\x09" + bytes(12) + bytes(range(9)) + b"\x10\x01" + bytes(16),
        b"\xda": b"\x01\x01\0\0\x3f\0",
    }
    text = b"\xff\xd8"
    for mark, part in parts.items():
        text += b"\xff" + mark + struct.pack(">H", len(part) + 2) + part
    return text + scan.replace(b"\xff", b"\xff\0") + b"\xff\xd9"
