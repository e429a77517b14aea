#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Makes docs/behaviour.md of docs/behaviour/*.toml, and compares both with headers, sources and tests.

behaviour.py SOURCE_TREE           checks that every operation, every text and every test named is there
behaviour.py --write SOURCE_TREE   writes the page

A file describes the header of its name. Each of its rows is headed by an operation, as in
[["transfer(int)"]], or by several with "; " between them; "*" stands for all. A row has "tests", optionally "when",
and one of
    does = "..."                  what happens
    fails = "..."                 how it fails without an exception
    throws = "text", code = "..." how it fails with one; "does" may say what comes of it besides
    logs = "text", level = N      what it logs
and "kept = true" where that is an oddity which is kept on purpose.
"""

import pathlib
import re
import sys
import tomllib
import typing

sys.dont_write_bytecode = True  # the source tree stays as it is
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "headers"))
import check_tree  # noqa: E402
import source_texts  # noqa: E402

TEST = re.compile(r"^\s*(?:TEST|TEST_F|TEST_P)\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.M)
KINDS = ("does", "fails", "throws", "logs")
KEYS = {*KINDS, "when", "code", "level", "kept", "tests"}
ANY = "*"
FOLDERS = {"support": "The support library", "include": "The networking library"}
# Described without a header of its own: what begins it.
WITHOUT_HEADER = {"Module": ("loading", "unloading")}


class Row(typing.NamedTuple):
    operations: list
    values: dict
    tests: list

    @property
    def text(self):
        return self.values.get("throws", self.values.get("logs"))


class Described(typing.NamedTuple):
    """What one file describes."""
    stem: str
    folder: str
    operations: list
    rows: list


# What the headers declare.

def declarations(body):
    """(head, access) of each declaration of a class body; blocks are left out."""
    access, head, depth, index = "private", "", 0, 0
    while index < len(body):
        letter = body[index]
        depth += {"(": 1, ")": -1}.get(letter, 0)
        if letter == "{":
            index = end_of_block(body, index)
        if letter in "{;" and depth == 0:
            yield head, access
            head = ""
        elif label := re.match(r"(public|protected|private):", body[index:]) if not head.strip() else None:
            access, head = label.group(1), ""
            index += label.end() - 1
        else:
            head += letter
        index += 1


def end_of_block(text, start):
    depth = 0
    for index in range(start, len(text)):
        depth += {"{": 1, "}": -1}.get(text[index], 0)
        if depth == 0:
            return index
    raise ValueError("a block without an end")


def function_of(head):
    """The function that is declared, as "name(types)"; None when it is none or deleted."""
    head = " ".join(head.split())
    match = re.search(r"(?<![\w:~])(~?\w+|operator\s*(?:\(\)|\[\]|[-+<>=!*&]+|[\w ]+\*))\s*\(", head)
    if not match or re.match(r"(using|typedef|friend class|enum|struct)\b", head) or head.endswith("delete"):
        return None
    _, _, types = next(check_tree.functions(head[match.start(1):], r"(?P<name>)" + re.escape(match.group(1))))
    if "manipulator" in types:
        types = "manipulator"
    return match.group(1) + "(" + re.sub(" ([&*])", r"\1", types) + ")"


def operations_of(header):
    """Every public and protected operation and every free function, in the order of the header."""
    text = check_tree.without_comments(header.read_text())
    found = []
    for name, body in check_tree.class_bodies(text):
        prefix = "" if name == header.stem else name + "::"
        found += [prefix + function for head, access in declarations(body)
                  if access != "private" and (function := function_of(head))]
        text = text.replace(body, "")
    found += [function for head in re.findall(r"VORN\w+_API\s+([^;{}]*\))[^;{}()]*;", text)
              if (function := function_of(head))]
    return list(dict.fromkeys(found))


# What the files describe.

def read_rows(path):
    tables = tomllib.loads(path.read_text())
    suite = tables.pop("suite")
    for operation, rows in tables.items():
        for values in rows:
            tests = [test if "." in test else f"{suite}.{test}" for test in values.get("tests", [])]
            yield Row(operation.split("; "), values, tests)


def read_all(tree):
    described = []
    headers = {header.stem: header for header in check_tree.public_headers(tree)}
    for path in sorted((tree / "docs/behaviour").glob("*.toml")):
        header = headers.get(path.stem)
        operations = operations_of(header) if header else list(WITHOUT_HEADER.get(path.stem, ()))
        order = [ANY, *operations]
        rows = sorted(read_rows(path), key=lambda row: min(map(order.index, set(row.operations) & set(order)),
                                                           default=0))
        described.append(Described(path.stem, header.parent.name if header else "include", operations, rows))
    return described


# The page.

def code(text):
    # With a blank, since link checkers take "[](int)" for a link even here.
    return "`" + text.replace("|", "\\|").replace("](", "] (") + "`"


def outcome(values):
    parts = []
    if "throws" in values:
        parts.append(f"throws {code(values['throws'])}, code {values.get('code')}")
    if "logs" in values:
        parts.append(f"logs at level {values.get('level')} {code(values['logs'])}")
    if "fails" in values:
        parts.append("fails: " + values["fails"])
    if "does" in values:
        parts.append(values["does"])
    return ("**kept:** " if values.get("kept") else "") + "; ".join(parts)


def page_row(row):
    operations = " ".join(code(operation) if operation != ANY else "any" for operation in row.operations)
    cells = (operations, row.values.get("when", ""), outcome(row.values), " ".join(map(code, row.tests)))
    return "| " + " | ".join(cells) + " |"


def counts(rows):
    failures = sum("fails" in row.values or "throws" in row.values for row in rows)
    records = sum("logs" in row.values for row in rows)
    kept = sum(row.values.get("kept", False) for row in rows)
    return (f"{len(rows)} rows: {len(rows) - failures - records} of results, {failures} of failures, {records} of log "
            f"records; {kept} of them are kept on purpose")


INTRODUCTION = """<!--
SPDX-FileCopyrightText: 2026 The vornnet authors
SPDX-License-Identifier: Apache-2.0

Made by tests/contract/docs/behaviour.py of the files in docs/behaviour: change those.
-->
# Every behaviour and its test

What each operation does, how it fails, what it logs, and the test that fails when that changes. Operations that
derived classes override or call are among them. A row that begins with **kept** is an oddity: other programs may
depend on it, and its test fails when it is "repaired". `...` stands for what is filled in; texts end where they end,
with a blank or without. [Every exception and log record](errors.md) says what to do about each.

The tests compare this page with the headers (every operation is here), with the sources (every text and level is the
same here and there) and with themselves (every test named is there, and shows the text of its row).
"""


def page(described):
    lines = [INTRODUCTION, "In all " + counts([row for one in described for row in one.rows]) + ".", ""]
    for folder, title in reversed(FOLDERS.items()):
        lines += [f"## {title}", ""]
        for one in described:
            if one.folder == folder:
                lines += [f"### {one.stem}", "", "| operation | when | what happens | test |", "|---|---|---|---|",
                          *map(page_row, one.rows), ""]
    return "\n".join(lines)


# The checks.

def check_shape(one):
    for row in one.rows:
        place = f"{one.stem}: {row.operations[0]}: {outcome(row.values) or 'a row'}"
        if unknown := set(row.values) - KEYS:
            yield f"{place}: unknown {sorted(unknown)}"
        if not any(kind in row.values for kind in KINDS) or ("throws" in row.values and "logs" in row.values):
            yield f"{place}: says nothing or too much"
        if ("throws" in row.values) != ("code" in row.values) or ("logs" in row.values) != ("level" in row.values):
            yield f"{place}: a text needs its code or level"
        if not row.tests:
            yield f"{place}: no test"


def check_operations(one):
    known = set(one.operations) | {ANY}
    described = {operation for row in one.rows for operation in row.operations}
    for operation in sorted(described - known):
        yield f"{one.stem}: is not declared: {operation}"
    for operation in one.operations:
        if operation not in described:
            yield f"{one.stem}: is not described: {operation}"


def check_headers(tree, described):
    stems = {one.stem for one in described}
    for header in check_tree.public_headers(tree):
        if operations_of(header) and header.stem not in stems:
            yield f"{header}: is not described"
    for one in described:
        if not one.operations:
            yield f"docs/behaviour/{one.stem}.toml: has no header, or one without operations"


def tests_of(tree):
    """{name: file}. One that GoogleTest leaves out by its name shows nothing, so a row that names it fails."""
    return {f"{suite}.{name}": path for path in sorted((tree / "tests").rglob("*.cpp"))
            for suite, name in TEST.findall(path.read_text())
            if not (suite.startswith("DISABLED_") or name.startswith("DISABLED_"))}


def check_tests(one, tests):
    for row in one.rows:
        for test in row.tests:
            if test not in tests:
                yield f"{one.stem}: {row.operations[0]}: there is no test {test}"


def literals_of(path, cache):
    """All texts in a test's file and in the helpers beside it."""
    if path not in cache:
        tools = [path, *sorted(path.parent.glob("*TestTools.cpp")), *sorted(path.parent.glob("*TestTools.h"))]
        cache[path] = "\n".join(source_texts.literal(token) for tool in tools
                                for token in source_texts.tokens_of(tool.read_text()) if token[0] == '"')
    return cache[path]


def is_shown(piece, text):
    """Whether the texts of a test hold the piece, in one or around a word that they fill in."""
    return piece in text or any(all(part in text for part in (piece[:word.start()], word.group(), piece[word.end():]))
                                for word in re.finditer(r"\w+", piece))


def check_pinned(one, tests, cache):
    """A text must stand in the file of one of the row's tests: what is not compared there is not pinned."""
    for row in one.rows:
        pieces = [piece for piece in re.split(r"\.\.\.|::", row.text or "") if len(piece) > 2]
        files = [literals_of(tests[test], cache) for test in row.tests if test in tests]
        if row.text and not any(all(is_shown(piece, text) for piece in pieces) for text in files):
            yield f"{one.stem}: {row.operations[0]}: no test of the row shows {row.text!r}"


def check_texts(tree, described):
    texts = source_texts.texts_in_sources(tree)
    yield from source_texts.overlooked(tree, texts)
    shown = {(row.text, row.values.get("level")) for one in described for row in one.rows if row.text}
    known = {(text.shown, text.level) for text in texts}
    for text, level in sorted(known - shown, key=str):
        yield f"in the sources, not in the table: {text!r}" + (f" at level {level}" if level is not None else "")
    for text, level in sorted(shown - known, key=str):
        yield f"in the table, not in the sources: {text!r}" + (f" at level {level}" if level is not None else "")


def problems_of(tree):
    described = read_all(tree)
    tests = tests_of(tree)
    cache = {}
    for one in described:
        yield from check_shape(one)
        yield from check_operations(one)
        yield from check_tests(one, tests)
        yield from check_pinned(one, tests, cache)
    yield from check_headers(tree, described)
    yield from check_texts(tree, described)
    if (tree / "docs/behaviour.md").read_text() != page(described):
        yield "docs/behaviour.md is not what behaviour.py --write makes"


def summary(tree):
    described = read_all(tree)
    rows = [row for one in described for row in one.rows]
    named = {test for row in rows for test in row.tests}
    texts = {row.text for row in rows if row.text}
    operations = sum(len(one.operations) for one in described)
    others = [test for test, path in tests_of(tree).items()
              if path.parent.parent == tree / "tests/unit" and test not in named]
    return "\n".join([f"{len(rows)} rows, {operations} operations, {len(texts)} texts, {len(named)} tests",
                      *(f"named by no row: {test}" for test in others)])


def main(arguments):
    if arguments[:1] == ["--write"] and len(arguments) == 2:
        tree = pathlib.Path(arguments[1])
        (tree / "docs/behaviour.md").write_text(page(read_all(tree)))
        return 0
    if len(arguments) != 1:
        sys.exit(__doc__)
    tree = pathlib.Path(arguments[0])
    problems = list(problems_of(tree))
    for problem in problems:
        print(problem)
    print(summary(tree))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
