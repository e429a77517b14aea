#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Compares docs/errors.md with the texts in the sources, both ways: check_texts.py SOURCE_TREE"""
import pathlib
import re
import sys

tree = pathlib.Path(sys.argv[1])
literal = re.compile(r'"((?:[^"\\]|\\.)*)"')
begins = re.compile(r"(Vorn[A-Za-z]+::|HTTPRequest::|vnet::|VornUnable\w+ - )")


def texts_in_sources():
    """The literals that begin a text; neighbours that the compiler joins are joined."""
    for path in sorted(tree.glob("src/*.cpp")) + sorted(tree.glob("support/*.cpp")):
        source = re.sub(r'^#include.*$', "", path.read_text(), flags=re.M)
        source = re.sub(r'"\s*\n\s*"', "", source)
        for match in literal.finditer(source):
            if begins.match(match.group(1)):
                yield match.group(1)


page = (tree / "docs/errors.md").read_text().replace("\\|", "|").replace("&lt;", "<").replace("&gt;", ">")
documented = [text for text in re.findall(r"`([^`\n]*)`", page) if begins.match(text)]
pieces = [re.split(r"\.\.\.", text) for text in documented]
known = sorted(set(texts_in_sources()))

undocumented = [text for text in known
                if not any(whole.startswith(text.rstrip("(")) or text in whole for whole in documented)]
unknown = [whole for whole, parts in zip(documented, pieces)
           if not any(text.startswith(parts[0][:40]) or parts[0].startswith(text) for text in known)]
for text in undocumented:
    print(f"in the sources, not in docs/errors.md: {text!r}")
for text in unknown:
    print(f"in docs/errors.md, not in the sources: {text!r}")
print(f"{len(known)} texts in the sources, {len(documented)} in docs/errors.md")
sys.exit(1 if undocumented or unknown else 0)
