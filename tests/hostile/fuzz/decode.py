#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Decodes an input of the typed_decoding fuzz target, independently of the library, and prints what it finds."""
import struct
import sys


def decode(data: bytes):
    count = (data[0] if data else 0) % 16
    types = [value % 4 for value in data[1:1 + count].ljust(count, b"\0")]
    rest = data[1 + count:]
    for kind in types:
        size = {0: 2, 1: 4, 2: 8, 3: 4}[kind]
        if len(rest) < size:
            yield "failed"
            return
        head, rest = rest[:size], rest[size:]
        if kind == 0:
            yield f"short {struct.unpack('>h', head)[0]}"
        elif kind == 1:
            yield f"int {struct.unpack('>i', head)[0]}"
        elif kind == 2:
            yield f"long {struct.unpack('>I', head[:4])[0]}"
        else:
            length = struct.unpack(">i", head)[0]
            if length < 0 or length > len(rest):
                yield "failed"
                return
            text, rest = rest[:length], rest[length:]
            yield "text " + text.split(b"\0")[0].hex()


for path in sys.argv[1:]:
    with open(path, "rb") as file:
        for line in decode(file.read()):
            print(line)
