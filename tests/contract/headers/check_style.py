#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""What clang-format leaves open: check_style.py SOURCE_DIRECTORY [--fix]

A file goes on right after its licence. A block of one statement on one line has no braces. Comments of declarations
are /** ... */; only those after a member are ///<.
"""

import pathlib
import re
import sys

FOLDERS = ("bench", "examples", "include", "notify", "src", "support", "tests", "tools")
COLUMNS = 110
# gtest's macros in an if keep theirs: compilers warn of the else in them.
HEAD = r"(?:for|while) \(.*\)|if \(.*\)(?! \{\n +(?:EXPECT|ASSERT)_)"
STATEMENT = r"(?! |if|for|while|do |switch|try|case|//|/\*|#).*;"
BLOCK = re.compile(rf"^( *)({HEAD}) \{{\n +({STATEMENT})\n\1\}}\n(?!\s*else)", re.M)
SLASHES = re.compile(r"^( *)///(?!<).*\n(?:\1///(?!<).*\n)*", re.M)


def without_braces(match):
    indent, head, statement = match.groups()
    return f"{indent}{head}\n{indent}    {statement}\n"


def with_stars(match):
    indent = match.group(1)
    lines = [line.strip()[3:].strip() for line in match.group(0).splitlines()]
    short = f"{indent}/** {lines[0]} */\n"
    if len(lines) == 1 and len(short) <= COLUMNS + 1:
        return short
    return f"{indent}/**\n" + "".join(f"{indent} * {line}".rstrip() + "\n" for line in lines) + f"{indent} */\n"


def styled(text):
    text = re.sub(r"\A((?://[^\n]*\n){2})\n", r"\1", text)
    return SLASHES.sub(with_stars, BLOCK.sub(without_braces, text))


def main(root, fixes):
    found = False
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*.*")):
            if path.suffix not in (".cpp", ".h"):
                continue
            text = path.read_text()
            better = styled(text)
            if better == text:
                continue
            if fixes:
                path.write_text(better)
                continue
            found = True
            was, is_ = text.splitlines(), better.splitlines()
            line = next((i for i, (a, b) in enumerate(zip(was, is_), 1) if a != b), len(is_))
            print(f"{path}:{line}: braces, comment or first lines of another style; {sys.argv[0]} --fix mends it")
    return found


sys.exit(main(pathlib.Path(sys.argv[1]), "--fix" in sys.argv[2:]))
