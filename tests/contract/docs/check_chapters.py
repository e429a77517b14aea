#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Checks how the manual hangs together: check_chapters.py [links] SOURCE_TREE

Every link leads somewhere; threads.md speaks of every public class; a test that is named is there. With "links", only
the links, also in a tree that is installed. That index.md lists every chapter is seen when the site is rendered.
"""
import pathlib
import re
import sys

LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")
TEST_NAME = re.compile(r"`((?:\w+)\.(?:[A-Z]\w*_?\w+))`")


def prose(text):
    """The text without fenced blocks."""
    return re.sub(r"^\s*```.*?^\s*```\s*$", "", text, flags=re.M | re.S)


def anchors(text):
    """As GitHub makes them of headings."""
    headings = re.findall(r"^#+ (.*)$", prose(text), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def check_links(tree, pages):
    for page in pages:
        for link in LINK.findall(prose(page.read_text())):
            # Images are drawn when the manual is rendered, which fails without them.
            if re.match(r"\w+:", link) or link.endswith(".svg"):
                continue
            path, _, anchor = link.partition("#")
            target = (page.parent / path).resolve() if path else page
            if not target.exists():
                yield f"{page.name}: the link {link} leads nowhere"
            elif anchor and anchor not in anchors(target.read_text()):
                yield f"{page.name}: there is no heading for the link {link}"


def check_classes(tree):
    table = (tree / "docs/threads.md").read_text()
    for folder in ("include", "support", "notify"):
        for header in [*sorted((tree / folder).glob("Vorn*.h")), *(tree / folder).glob("ModuleData.h")]:
            for name in re.findall(r"^class (?:VORN\w+_API )?(\w+)[^;]*\{", header.read_text(), re.M):
                if f"`{name}`" not in table:
                    yield f"threads.md does not speak of {name}"


def check_test_names(tree, pages):
    tests = {f"{suite}.{name}" for source in (tree / "tests").rglob("*.cpp")
             for suite, name in re.findall(r"^(?:TYPED_)?TEST(?:_[FP])?\((\w+),\s*(\w+)", source.read_text(), re.M)}
    # GoogleTest leaves out what is called so, and the test would assert nothing.
    for test in sorted(tests):
        if ".DISABLED_" in test:
            yield f"{test} is switched off"
    for page in pages:
        for name in TEST_NAME.findall(prose(page.read_text())):
            if name not in tests:
                yield f"{page.name}: there is no test {name}"


def main(tree, links_only):
    pages = sorted((tree / "docs").glob("*.md")) + [
        tree / page for page in ("README.md", "CONTRIBUTING.md", "SECURITY.md", "bench/README.md")]
    problems = [*check_links(tree, pages)]
    if not links_only:
        problems += [*check_classes(tree), *check_test_names(tree, pages)]
    for problem in problems:
        print(problem)
    print(f"{len(pages)} pages, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[-1]).resolve(), sys.argv[1] == "links"))
