#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Turns a chapter or a header into what Doxygen makes a site of: filter.py FILE

Chapters are written for readers of plain Markdown: links name files and headings, comments say how a block is tested.
Headers say in one paragraph what each class promises about threads, blocking, ownership, signals and errors.
"""
import pathlib
import re
import sys

PROMISES = r"(Thread-safety|Blocking|Ownership|Signals|Errors):(?: |\n\s*\*\s+)"
# What Doxygen can colour; anything else is shown as it is.
COLOURED = {"cpp": "{.cpp}"}


def slug(heading):
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def name_of(path):
    """The page's name: of bench/README.md it is "measurements"."""
    return "measurements" if path.parent.name == "bench" else path.stem


class Chapter:
    def __init__(self, path):
        self.name = name_of(path)
        self.is_index = path.stem == "index"
        self.code = False

    def label(self, heading):
        return f"{self.name}-{slug(heading)}"

    def link(self, match):
        text, target = match.groups()
        if re.match(r"\w+:", target):
            return match.group(0)
        path, _, anchor = target.partition("#")
        page = name_of(pathlib.PurePath(path)) if path else self.name
        if path.startswith("../examples/"):
            return f"[{text}](@ref {pathlib.PurePath(path).name})"
        if anchor:
            return f"[{text}](@ref {page}-{anchor})"
        return f"[{text}](@ref {page})"

    def heading(self, line):
        marks, text = line.split(" ", 1)
        if marks == "#":
            return line if self.is_index else f"{line} {{#{self.name}}}\n\n[TOC]\n"
        if self.is_index: # the contents need no places of their own in the navigation
            return f"<h{len(marks) - 1}>{text}</h{len(marks) - 1}>"
        return f"{line} {{#{self.label(text)}}}"

    def fence(self, line):
        indent, info = re.match(r"(\s*)```(.*)", line).groups()
        opens, self.code = not self.code, not self.code
        return f"{indent}```{COLOURED.get(info, '{.unparsed}') if opens else ''}"

    @staticmethod
    def span(span):
        # A qualified name is shown, not looked up: it may be one that has no page.
        span = re.sub(r"(?<![\w:])(?=Vorn(Net|Support)::)", "%", span)
        return span.replace("<", "&lt;").replace(">", "&gt;")

    def line(self, line):
        if re.match(r"\s*```", line):
            return self.fence(line)
        if self.code:
            return line
        if re.match(r"#+ ", line):
            return self.heading(line)
        chapter = re.match(r"(\d+\. )\[([^\]]*)\]\(([\w-]+)\.md\)(.*)", line)
        if self.is_index and chapter:
            number, title, page, rest = chapter.groups()
            return f'{number}@subpage {page} "{title}"{rest}'
        image = re.match(r"!\[[^\]]*\]\([\w/-]*?([\w-]+\.svg)\)", line)
        if image:
            return f"@image html {image.group(1)}"
        parts = re.split(r"(`[^`]*`)", line)
        parts[1::2] = [self.span(span) for span in parts[1::2]]
        parts[0::2] = [re.sub(r"\\(?=\w)", r"\\\\", text) for text in parts[0::2]]
        line = "".join(parts)
        return re.sub(r"(?<!`)\[([^\]]*)\]\(([^)\s]+)\)", self.link, line)


def neighbours(path):
    """Links from a chapter to the previous and the next one."""
    order = re.findall(r"^\d+\. \[[^\]]*\]\(([\w-]+)\.md\)", pathlib.Path("docs/index.md").read_text(), re.M)
    if path.stem not in order:
        return ""
    at = order.index(path.stem)
    before = f"&larr; @ref {order[at - 1]}" if at > 0 else ""
    after = f"@ref {order[at + 1]} &rarr;" if at + 1 < len(order) else ""
    return (f'\n\n<div class="neighbours"><span>{before}</span><span>@ref index "Contents"</span>'
            f"<span>{after}</span></div>\n")


def chapter(path):
    text = re.sub(r"\A<!--.*?-->\n", "", path.read_text(), flags=re.S)
    text = re.sub(r"^\s*<!-- (measured|block).*?-->$\n", "", text, flags=re.M)
    page = Chapter(path)
    return "\n".join(page.line(line) for line in text.split("\n")) + neighbours(path)


def header(path):
    def promise(match):
        before, name, word = match.groups()
        if re.fullmatch(r"[a-z][a-z-]*[,;.]?", word):
            word = word[0].upper() + word[1:]
        star = before if "*" in before else "\n * "
        return f"{star}@par {name}\n * {word}"

    def split(match):
        return re.sub(r"(^\s*\*\s+|(?<=\.) )" + PROMISES + r"(\S+)", promise, match.group(0), flags=re.M)
    return re.sub(r"/\*\*.*?\*/", split, path.read_text(), flags=re.S)


source = pathlib.Path(sys.argv[1])
sys.stdout.write(header(source) if source.suffix == ".h" else chapter(source))
