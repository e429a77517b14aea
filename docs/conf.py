# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""The manual's site and manual pages, for Sphinx; script/docs calls it on a copy of the chapters.

Chapters are written for readers of plain Markdown, so what Sphinx needs beside is added when it reads them. The
reference has a page for each public header: Doxygen reads the header, Breathe shows what it has found.
"""
import pathlib
import re
import xml.etree.ElementTree

from docutils import nodes

project = "vornnet"
author = "The vornnet authors"
project_copyright = f"2026, {author}"
version = release = "1.0.0"
extensions = ["myst_parser", "breathe", "sphinx_copybutton"]
breathe_default_project = project
primary_domain = highlight_language = "cpp"
toc_object_entries_show_parents = "hide"
myst_heading_anchors = 4
copybutton_prompt_text = "$ "
smartquotes = False
FOR_MAN = tags.has("man")  # noqa: F821  Sphinx defines it
suppress_warnings = ["ref.ref"] if FOR_MAN else []  # Breathe has no places to link to there

html_theme = "furo"
html_title = "The vornnet manual"
html_static_path = ["site"]
html_css_files = ["manual.css"]
html_copy_source = html_show_sourcelink = html_show_sphinx = False
man_make_section_directory = True


# The reference.

def words(element):
    return " ".join("".join(element.itertext()).split()) if element is not None else ""


def escaped(text):
    return re.sub(r"([\\`*|_<])", r"\\\1", text)


def summary(compound):
    """The first sentence of a comment, or what it says is returned."""
    returned = [section for section in compound.iter("simplesect") if section.get("kind") == "return"]
    brief = compound.find("briefdescription/para")
    if brief is not None and brief.find("simplesect") is None:
        return words(brief)
    return f"Returns {words(returned[0])}" if returned else ""


def whatis(brief):
    """A class comment's first sentence as manual pages have it: without article and full stop."""
    brief = re.sub(r"^(?:(?:A|An|The) (.)|([A-Z])(?=[a-z]))", lambda match: match[1] or match[2].lower(), brief)
    return brief.rstrip(".")


def short_name(compound):
    return compound.findtext("compoundname").split("::")[-1]


def line_of(member):
    return int(member.find("location").get("line"))


def signature(member, named=False):
    arguments = ", ".join(words(parameter.find("type")) for parameter in member.findall("param"))
    name = member.findtext("qualifiedname" if named else "name")
    return re.sub(r" (?=[&*>])|(?<=<) ", "", f"{name}({arguments})")


def is_described(member):
    """Without a comment are constructors and destructors that do what everybody expects, and what is deleted."""
    return member.get("kind") == "function" and any(words(member.find(f"{part}description"))
                                                    for part in ("brief", "detailed"))


def table(members):
    for member in members:
        if not summary(member):
            raise ValueError(f"{member.findtext('definition')}: its comment does not begin with what it does")
        yield f"   * - `{escaped(signature(member))} <#{member.get('id')}>`__"
        yield f"     - {escaped(summary(member))}"


class Header:
    """A public header, and what is declared in it."""

    def __init__(self, folder, path):
        def load(reference):
            return xml.etree.ElementTree.parse(folder / f"{reference.get('refid')}.xml").getroot().find("compounddef")

        self.file = xml.etree.ElementTree.parse(path).getroot().find("compounddef")
        self.name = self.file.findtext("compoundname").removesuffix(".h")
        classes = {one.findtext("compoundname"): one for one in map(load, self.file.findall("innerclass"))}
        self.classes = [one for name, one in classes.items() if name.rpartition("::")[0] not in classes]
        self.classes.sort(key=lambda one: short_name(one) != self.name)
        self.members = [member for space in map(load, self.file.findall("innernamespace"))
                        for member in space.iter("memberdef") if is_described(member) or member.get("kind") == "typedef"
                        if member.find("location").get("file").endswith(f"/{self.name}.h")]
        self.members.sort(key=line_of)

    def brief(self):
        return summary(self.classes[0] if self.classes else self.file) or summary(self.members[0])

    def names(self):
        """By what it is looked up in the manual pages, and what that is: also further classes with the prefix."""
        others = [one for one in self.classes[1:] if short_name(one).startswith("Vorn")]
        return [(self.name, self.brief())] + [(short_name(one), summary(one)) for one in others]

    def functions(self):
        of_classes = [member for one in self.classes for member in sorted(one.iter("memberdef"), key=line_of)
                      if is_described(member) and member.get("prot") != "private"]
        return of_classes + [member for member in self.members if member.get("kind") == "function"]

    def page(self):
        library = {"include": "vornnet", "support": "vornsupt", "notify": "vornnotify"}[
            pathlib.PurePath(self.file.find("location").get("file")).parent.name]
        lines = [self.name, "=" * len(self.name), "", "Synopsis", "--------", "", f"``#include <{self.name}.h>``", "",
                 f"``$(pkg-config --cflags --libs {library})``", ""]
        if not FOR_MAN and self.functions():
            lines += [escaped(self.brief()), "", ".. list-table::", "   :class: functions", "",
                      *table(self.functions()), ""]
        lines += ["Description", "-----------", ""]
        for one in self.classes:
            lines += [f".. doxygen{one.get('kind')}:: {one.findtext('compoundname')}",
                      "   :members:", "   :protected-members:", ""]
        for member in self.members:
            name = member.findtext("qualifiedname")
            lines += [f".. doxygentypedef:: {name}" if member.get("kind") == "typedef"
                      else f".. doxygenfunction:: {signature(member, named=True)}", ""]
        return "\n".join(lines + (["See also", "--------", "", "vornnet(7)"] if FOR_MAN else []))


def headers(config):
    folder = pathlib.Path(config.breathe_projects[project])
    return [Header(folder, path) for path in sorted(folder.glob("*_8h.xml"))]


def write_pages(app, config):
    folder = pathlib.Path(app.srcdir) / "reference"
    folder.mkdir(exist_ok=True)
    app.reference = headers(config)
    config.man_pages = [("reference", "vornnet", "connections, servers and notifications between processes and hosts",
                         author, 7)]
    for header in app.reference:
        (folder / f"{header.name}.rst").write_text(header.page())
        config.man_pages += [(f"reference/{header.name}", name, whatis(brief), author, 3)
                             for name, brief in header.names()]


# The chapters.

def toctree(pages):
    return "\n".join(["", "```{toctree}", ":hidden:", *pages, "```", ""])


def complete(app, page, source):
    """What Sphinx has to be told is added to a page as it is read."""
    text = re.sub(r"\A<!--.*?-->\n", "", source[0], flags=re.S)
    text = re.sub(r"^\s*<!-- (measured|block).*?-->$\n", "", text, flags=re.M)
    text = re.sub(r"\]\(\.\./(docs/)?", "](../" if page.startswith("bench/") else "](", text)
    reference = toctree([f"reference/{header.name}" for header in app.reference])
    if page == "index":
        text += toctree(re.findall(r"^\d+\. \[[^\]]*\]\(([\w-]+)\.md\)", text, re.M) + ["bench/README"])
        text += reference if FOR_MAN else ""  # or vornnet(7) would contain them all
    elif page == "reference":
        text += "\n".join(f"- [{header.name}](reference/{header.name}.rst): {escaped(header.brief())}"
                          for header in app.reference)
        text += "\n" if FOR_MAN else f"\n{reference}"
    elif page == "errors":  # the search leaves out numbers, unless they are in the index
        text = re.sub(r"^\| [\d, ]+ \| [A-Z, ]+ \|", lambda row: re.sub(r"\w+", r"{index}`\g<0>`", row[0]), text,
                      flags=re.M)
    source[0] = text


def split_paragraphs(_app, document):
    """A comment's program, which Breathe leaves within a paragraph, stands between two."""
    for program in [*document.findall(nodes.literal_block)]:
        paragraph = program.parent
        if isinstance(paragraph, nodes.paragraph):
            at = paragraph.index(program)
            before, after = (nodes.paragraph("", "", *part) for part in (paragraph[:at], paragraph[at + 1:]))
            paragraph.replace_self([part for part in (before, program, after) if part.astext().strip()])


def mend_theme(app, error):
    """Debian 12's theme works from a web server only, and does not follow the system's dark mode: mends both."""
    if error or app.builder.name != "html":
        return
    static = pathlib.Path(app.outdir) / "_static"
    scripts, styles = static / "scripts/furo.js", static / "styles/furo.css"
    scripts.write_text((static / "scripts/gumshoe-patched.js").read_text()
                       + scripts.read_text().replace('import Gumshoe from "./gumshoe-patched.js";', ""))
    styles.write_text(re.sub(r'body\[data-theme="dark"\] ({[^}]*})',
                             r'\g<0> @media (prefers-color-scheme: dark) { body:not([data-theme="light"]) \1 }',
                             styles.read_text().replace("@import url(/javascript/normalize.css/normalize.css);", "")))


def setup(app):
    app.connect("config-inited", write_pages)
    app.connect("source-read", complete)
    app.connect("doctree-read", split_paragraphs)
    app.connect("build-finished", mend_theme)
