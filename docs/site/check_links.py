#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Looks whether every link of a rendered site leads somewhere: check_links.py DIRECTORY"""
import html.parser
import pathlib
import re
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.links, self.anchors = [], set()
        self.feed(path.read_text())

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if value and name in ("href", "src", "data"):
                self.links.append(value)
            elif value and name in ("id", "name"):
                self.anchors.add(value)


def main(folder):
    pages = {path.name: Page(path) for path in sorted(folder.glob("*.html"))}
    problems, links = [], 0
    for name, page in pages.items():
        for link in page.links:
            path, _, anchor = urllib.parse.unquote(link).partition("#")
            if re.match(r"\w+:", link) or not (path or anchor):
                continue
            links += 1
            target = path.split("?")[0] or name
            if not (folder / target).exists():
                problems.append(f"{name}: {link} leads nowhere")
            elif anchor and target in pages and anchor not in pages[target].anchors:
                problems.append(f"{name}: there is no place {link}")
    print("\n".join(sorted(set(problems)) + [f"{len(pages)} pages, {links} links"]))
    return 1 if problems or not pages else 0


sys.exit(main(pathlib.Path(sys.argv[1])))
