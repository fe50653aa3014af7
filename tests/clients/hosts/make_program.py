#!/usr/bin/env python3
"""A Windows program without code, for those who are to sign one: headers, and a section of zeros.

    make_program.py FILE
"""
import struct
import sys

HEADER = 0x40
OPTIONAL_SIZE = 240  # Of the 64-bit form, with 16 directories.
ALIGNMENT = 0x200


def program():
    dos = b"MZ" + bytes(58) + struct.pack("<I", HEADER)
    coff = b"PE\0\0" + struct.pack("<HHIIIHH", 0x8664, 1, 0, 0, 0, OPTIONAL_SIZE, 0x22)
    optional = struct.pack("<HBBIIIII", 0x20b, 14, 0, 0, ALIGNMENT, 0, 0, 0x1000)
    optional += struct.pack("<QII", 0x140000000, 0x1000, ALIGNMENT)
    optional += struct.pack("<HHHHHH", 6, 0, 0, 0, 6, 0)
    optional += struct.pack("<IIIIHH", 0, 0x2000, ALIGNMENT, 0, 3, 0)
    optional += struct.pack("<QQQQII", 0x100000, 0x1000, 0x100000, 0x1000, 0, 16)
    optional += bytes(16 * 8)
    section = struct.pack("<8sIIIIIIHHI", b".data", ALIGNMENT, 0x1000, ALIGNMENT, ALIGNMENT, 0, 0, 0, 0, 0xC0000040)
    headers = dos + coff + optional + section
    assert len(optional) == OPTIONAL_SIZE and len(headers) <= ALIGNMENT
    return headers.ljust(ALIGNMENT, b"\0") + bytes(ALIGNMENT)


if __name__ == "__main__":
    with open(sys.argv[1], "wb") as file:
        file.write(program())
