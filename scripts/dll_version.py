#!/usr/bin/env python3
"""Prints the product version of a Windows DLL, a.b.c.d, from its version resource."""
import struct
import sys

data = open(sys.argv[1], "rb").read()
at = data.find(struct.pack("<I", 0xFEEF04BD))  # VS_FIXEDFILEINFO's signature
if at < 0:
    sys.exit("%s: no version resource" % sys.argv[1])
most, least = struct.unpack_from("<II", data, at + 16)  # dwProductVersionMS, dwProductVersionLS
print("%d.%d.%d.%d" % (most >> 16, most & 0xFFFF, least >> 16, least & 0xFFFF))
