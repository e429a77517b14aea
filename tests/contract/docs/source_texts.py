# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""The texts that the libraries show, of exceptions and of log records, as the sources put them together."""

import re
import typing

BEGINS = re.compile(r"(Vorn[A-Za-z]+::|HTTPRequest::|vnet::|VornUnable\w+ - )")
TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|^[ \t]*#[^\n]*|"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)*\'|\s+|\w+|.',
                   re.S | re.M)
LATE_PIECE = re.compile(r"\[&\] \{ return ([^;{}]*); \}")  # of a record; computed when it is written
RECORDED = re.compile(r"(?:logRecord|callHandler)\(\s*VornLogging::(c\w+),\s*(c[A-Z]\w*)\b")  # a constant as the text
JOINTS = set("<>,+?:()")


class Text(typing.NamedTuple):
    shown: str  # with "..." for what is filled in
    level: typing.Optional[int]  # of a log record, none of an exception
    source: str


def tokens_of(source):
    """The source without comments and spaces; texts that the compiler joins are one."""
    tokens = []
    for token in TOKEN.findall(source):
        if token.isspace() or token.startswith(("//", "/*")) or token.lstrip().startswith("#"):
            continue
        if token[0] == '"' and tokens and tokens[-1][0] == '"':
            tokens[-1] = tokens[-1][:-1] + token[1:]
        else:
            tokens.append(token)
    return tokens


def literal(token):
    return re.sub(r"\\(.)", r"\1", token[1:-1])


def begins_text(token):
    return token[0] == '"' and BEGINS.match(literal(token)) is not None


def statements(tokens):
    statement = []
    for token in tokens:
        if token in (";", "{", "}"):
            yield statement
            statement = []
        else:
            statement.append(token)


def shown(tokens):
    """What the tokens print: texts as they are, everything else as "..."."""
    result = []
    for token in tokens:
        piece = literal(token) if token[0] == '"' else "" if token in JOINTS else "..."
        if piece and not (piece == "..." and result and result[-1] == "..." and token[0] != '"'):
            result.append(piece)
    return "".join(result)


def alternatives(tokens):
    """The texts that begin in the tokens: of a conditional, each with what is common to all."""
    beginnings = [place for place, token in enumerate(tokens) if begins_text(token)]
    for beginning in beginnings:
        others = set(beginnings) - {beginning}
        yield shown(token for place, token in enumerate(tokens) if place >= beginning and place not in others)


def enclosing_call(tokens, place):
    """(name, index of the first argument) of the call of which the token is an argument, if it is one."""
    depth = 0
    for index in range(place - 1, 0, -1):
        depth += {")": 1, "(": -1}.get(tokens[index], 0)
        if depth < 0 and re.fullmatch(r"\w+", tokens[index - 1]):
            return tokens[index - 1], index + 1
        depth = max(depth, 0)
    return None, 0


def arguments(tokens, start):
    depth, found = 1, [[]]
    for token in tokens[start:]:
        depth += {"(": 1, ")": -1}.get(token, 0)
        if depth == 0:
            return found
        if token == "," and depth == 1:
            found.append([])
        else:
            found[-1].append(token)
    return found


def levels_of(tree):
    header = (tree / "support/VornLogging.h").read_text()
    return {name: int(value) for name, value in re.findall(r"\b(c\w+) = (-?\d+)", header)}


def texts_of_statement(statement, levels, recorded):
    """(text, level) of each text that begins in the statement; @p recorded are the levels of constants."""
    place = next((place for place, token in enumerate(statement) if begins_text(token)), None)
    if place is None:
        return
    name, start = enclosing_call(statement, place)
    if name == "logRecord":
        level, *pieces = arguments(statement, start)
        record = [token for piece in pieces for token in piece + [","]]
        yield from ((text, levels[level[-1]]) for text in alternatives(record))
    elif name == "announce": # of a pipe server
        yield from ((text, levels["cDebug"]) for text in alternatives(arguments(statement, start)[0]))
    else:
        argument = arguments(statement, start)[0] if name == "VornException" else statement
        constant = next((token for token in statement if token in recorded), None)
        yield from ((text, recorded.get(constant)) for text in alternatives(argument))


def sources(tree):
    return sorted(path for folder in ("src", "support", "notify") for path in tree.glob(f"{folder}/*.cpp"))


def texts_in_sources(tree):
    """Every text of the libraries; each once for each file and level."""
    levels = levels_of(tree)
    found = set()
    for path in sources(tree):
        source = LATE_PIECE.sub(r"\1", path.read_text())
        recorded = {constant: levels[level] for level, constant in RECORDED.findall(source)}
        for statement in statements(tokens_of(source)):
            found |= {Text(text, level, path.name) for text, level in texts_of_statement(statement, levels, recorded)}
    return sorted(found, key=lambda text: (text.source, text.shown))


def overlooked(tree, texts):
    """The literals that begin a text and are the beginning of none of the texts found."""
    for path in sources(tree):
        for token in tokens_of(path.read_text()):
            if begins_text(token) and not any(text.shown.startswith(literal(token)) for text in texts
                                              if text.source == path.name):
                yield f"{path}: a text that cannot be followed: {token}"
