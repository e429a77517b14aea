#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Compares docs/errors.md with the sources, both ways: check_texts.py SOURCE_TREE

Every text of an exception or a log record stands on the page and the other way round, a record with the level at which
it is written; no other page quotes a text that there is not; and every text stands in a test, which compares it.
"""
import pathlib
import re
import sys

sys.dont_write_bytecode = True  # the source tree stays as it is
import source_texts  # noqa: E402

ROW = re.compile(r"^\|(?: (\d+) \|)? `([^`\n]*)` \|", re.M)
QUOTED = re.compile(r"`((?:Vorn[A-Za-z]+|HTTPRequest|vnet)::[^`\n]*)`")


def texts_on(page):
    """{text: level} of the rows; an exception has no level."""
    rows = ROW.findall(page.replace("\\|", "|"))
    return {text: int(level) if level else None for level, text in rows if source_texts.BEGINS.match(text)}


def same(shown, text):
    """Whether the shown text begins as the text does; "..." is what is filled in."""
    shown, text = shown.split("...")[0], text.split("...")[0]
    return shown.startswith(text) or text.startswith(shown)


def differences(known, shown):
    for text in sorted(set(known) | set(shown)):
        if text not in shown:
            yield f"in the sources, not in docs/errors.md: {text!r}"
        elif text not in known:
            yield f"in docs/errors.md, not in the sources: {text!r}"
        elif known[text] != shown[text]:
            yield f"docs/errors.md says level {shown[text]}, the sources {known[text]}: {text!r}"


def is_shown(piece, text):
    """Whether the texts of a test hold the piece, in one or around a word that they fill in."""
    return piece in text or any(all(part in text for part in (piece[:word.start()], word.group(), piece[word.end():]))
                                for word in re.finditer(r"\w+", piece))


def untested(tree, known):
    """The texts of which no test file, together with the helpers of its folder, has all pieces."""
    folders = {}
    for path in sorted([*tree.glob("tests/unit/*/*.*"), *tree.glob("tests/hostile/faults/*.*")]):
        folders.setdefault(path.parent, {})[path.name] = "\n".join(
            source_texts.literal(token) for token in source_texts.tokens_of(path.read_text()) if token[0] == '"')
    files = ["\n".join([text, *(helper for other, helper in folder.items() if not other.endswith("Test.cpp"))])
             for folder in folders.values() for name, text in folder.items()]
    for text in sorted(known):
        pieces = [piece for piece in re.split(r"\.\.\.|::", text) if len(piece) > 2]
        if not any(all(is_shown(piece, file) for piece in pieces) for file in files):
            yield f"no test compares {text!r}"


def main(tree):
    texts = source_texts.texts_in_sources(tree)
    known = {text.shown: text.level for text in texts}
    shown = texts_on((tree / "docs/errors.md").read_text())
    problems = [*source_texts.overlooked(tree, texts), *differences(known, shown), *untested(tree, known)]
    for document in sorted(tree.glob("docs/*.md")) + [tree / "README.md"]:
        for quoted in QUOTED.findall(document.read_text().replace("\\|", "|")):
            if ": " in quoted and not any(same(quoted, text) for text in known):
                problems.append(f"{document.name} quotes what is not in the sources: {quoted!r}")
    levels = sum(level is not None for level in known.values())
    print("\n".join(problems + [f"{len(known)} texts in the sources, {len(shown)} on the page, {levels} levels"]))
    return 1 if problems else 0


sys.exit(main(pathlib.Path(sys.argv[1])))
