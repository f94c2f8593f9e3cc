#!/usr/bin/env python3
"""Makes one file of a folder of fuzz inputs, and a folder of one file.

usage: pack.py pack FOLDER PACK
       pack.py unpack PACK FOLDER

A pack is a row of inputs: four bytes of length, least significant first, and so many bytes.
"""

import hashlib
import pathlib
import struct
import sys

LENGTH = struct.Struct("<I")


def pack(folder, packed):
    inputs = sorted((path.read_bytes() for path in folder.iterdir()), key=lambda one: (len(one), one))
    packed.write_bytes(b"".join(LENGTH.pack(len(one)) + one for one in inputs))


def unpack(packed, folder):
    folder.mkdir(parents=True, exist_ok=True)
    content = packed.read_bytes()
    position = 0
    while position < len(content):
        (length,) = LENGTH.unpack_from(content, position)
        position += LENGTH.size
        one = content[position : position + length]
        if len(one) != length:
            sys.exit(f"pack.py: {packed} is damaged")
        position += length
        (folder / hashlib.sha1(one).hexdigest()).write_bytes(one)


def main():
    actions = {"pack": pack, "unpack": unpack}
    if len(sys.argv) != 4 or sys.argv[1] not in actions:
        sys.exit(__doc__)
    actions[sys.argv[1]](pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3]))


if __name__ == "__main__":
    main()
